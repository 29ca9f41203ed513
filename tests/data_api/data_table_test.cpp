#include <gtest/gtest.h>

#include <zlib.h>

#include <random>
#include <vector>

#include "data_api/attribute_map.h"
#include "data_api/compressed_data_view.h"
#include "data_api/data_table.h"
#include "test_files.h"

using namespace DataAPI;
using TestSupport::ErrorOf;

TEST(DataTable, FieldLayoutAndMessages) {
    // A string is aligned to 4 and keeps a spare terminator byte; a numeric field to its size.
    DataTable mixed;
    mixed.AddField("c", DataType::UInt8);
    mixed.AddField("t", DataType::FixedString, 5);
    mixed.AddField("h", DataType::Int16);
    mixed.AddField("q", DataType::UInt64);
    std::vector<std::uint64_t> offsets;
    for (const auto& field : mixed.fields) offsets.push_back(field.offset);
    EXPECT_EQ(offsets, (std::vector<std::uint64_t>{0, 4, 10, 16}));
    EXPECT_EQ(mixed.record_size, 24u);

    for (DataType bad : {DataType::String, DataType::Table, DataType::Unknown})
        EXPECT_EQ(ErrorOf([&] { mixed.AddField("x", bad); }), "Invalid data type for data table field.");
    EXPECT_EQ(ErrorOf([&] { mixed.AddField("x", DataType::FixedString); }), "Must specify a size for string fields.");
    EXPECT_EQ(ErrorOf([&] { mixed.AddField("x", DataType::Float, 8); }), "Specified type size does not match actual type size.");
    mixed.AddField("c", DataType::Float, 4);  // a repeated name points at the last field
    EXPECT_EQ(mixed.Field("c").type, DataType::Float);

    mixed.Resize(3);
    EXPECT_EQ(mixed.record_size, 32u);  // 28, rounded up to 8
    EXPECT_EQ(mixed.buffer.size(), 96u);
    mixed.Set<std::uint64_t>(2, "q", 77);
    mixed.SetString(2, "t", "ACGTACGT");  // cut to the field's width
    EXPECT_EQ(mixed.Get<std::uint64_t>(2, "q"), 77u);
    EXPECT_EQ(mixed.GetString(2, "t"), "ACGTA");
    EXPECT_EQ(mixed.GetString(1, "t"), "");
    EXPECT_THROW(mixed.Get<double>(2, "q"), std::runtime_error);
    EXPECT_THROW(mixed.Get<std::uint64_t>(3, "q"), std::out_of_range);
}

// Each chunk inflates with zlib itself, back to the input, for sizes around the chunk length.
TEST(CompressedChunks, ChunksInflateBackToTheInput) {
    std::mt19937 random(7);
    for (std::size_t size : {0u, 1u, 2047u, 2048u, 2049u, 10000u}) {
        std::vector<std::uint8_t> input(size);
        for (auto& b : input) b = std::uint8_t(random() % 16);  // compressible, not trivially so
        std::vector<std::uint8_t> output(CompressedChunks::BufferSize(size, 2048));
        CompressedChunks chunks(input.data(), input.size(), output.data(), output.size(), 2048, 1);
        ASSERT_EQ(chunks.chunk_sizes.size(), (size + 2047) / 2048) << size;
        std::vector<std::uint8_t> rebuilt;
        std::uint64_t pos = 0;
        for (std::uint64_t length : chunks.chunk_sizes) {
            std::vector<std::uint8_t> piece(2048);
            uLongf piece_size = piece.size();
            ASSERT_EQ(uncompress(piece.data(), &piece_size, chunks.data + pos, length), Z_OK);
            rebuilt.insert(rebuilt.end(), piece.begin(), piece.begin() + piece_size);
            pos += length;
        }
        EXPECT_EQ(pos, chunks.size);
        EXPECT_EQ(rebuilt, input) << size;
    }
    EXPECT_EQ(CompressedChunks::CompressBound(2048), 2063u);
    std::vector<std::uint8_t> input(4096), small(2 * 2063 - 1);
    EXPECT_EQ(ErrorOf([&] { CompressedChunks c(input.data(), input.size(), small.data(), small.size(), 2048, 1); }),
              "Compressed buffer not large enough for input data.");
}

TEST(GenericCast, NumericKindsConvertStringsOnlyWhenAsked) {
    EXPECT_EQ(GenericCast<std::uint32_t>(boost::any(1500.9f)), 1500u);
    EXPECT_EQ(GenericCast<double>(boost::any((unsigned char)200)), 200.0);
    EXPECT_EQ(GenericCast<std::uint64_t>(boost::any(123456ul)), 123456u);
    for (const boost::any& bad : {boost::any(std::string("12")), boost::any(true)})
        EXPECT_EQ(ErrorOf([&] { GenericCast<int>(bad); }), "Unsupported numeric type for generic conversion.");
    EXPECT_EQ(GenericCastOrParse<std::uint32_t>(boost::any(std::string("12"))), 12u);
    EXPECT_EQ(GenericCastOrParse<std::uint32_t>(boost::any((short)9)), 9u);
    EXPECT_EQ(ErrorOf([] { GenericCastOrParse<int>(boost::any(std::string("x"))); }), "stoi");
}
