#include <gtest/gtest.h>

#include <hdf5.h>

#include <cstring>
#include <numeric>
#include <vector>

#include "data_api/compressed_data_view.h"
#include "data_api/data_table.h"
#include "data_api/h5_wrapper.h"
#include "test_files.h"

using namespace DataAPI;
using namespace DataAPI::H5Wrapper;
using kvx_test::Fixture;
using kvx_test::Scratch;
using kvx_test::AttributeTexts;
using kvx_test::Thrown;

namespace {

std::vector<hsize_t> chunkShape(H5Dataset* ds) {
    std::lock_guard<std::mutex> lock(h5Mutex);
    hid_t plist = H5Dget_create_plist(ds->Id());
    hsize_t dims[2] = {0, 0};
    const int rank = H5Pget_chunk(plist, 2, dims);
    H5Pclose(plist);
    return std::vector<hsize_t>(dims, dims + std::max(rank, 0));
}

hsize_t storageSize(H5Dataset* ds) {
    std::lock_guard<std::mutex> lock(h5Mutex);
    return H5Dget_storage_size(ds->Id());
}

template <typename T>
T attr(const AttributeMap& m, const std::string& name) {
    return boost::any_cast<T>(m.at(name));
}

}  // namespace

TEST(H5Wrapper, FormatsOfDataSetsFromAnotherWriter) {
    H5File file(Fixture("types.h5"), H5Mode::ReadOnly);
    EXPECT_EQ(file.Mode(), H5Mode::ReadOnly);

    const DataFormat scalar = file.OpenDataset("scalar_int")->Format();
    EXPECT_EQ(scalar.type, DataType::Int32);
    EXPECT_EQ(scalar.count, 1u);
    EXPECT_EQ(scalar.item_size, 4u);
    EXPECT_EQ(scalar.rows, 0u);
    EXPECT_EQ(scalar.cols, 0u);

    const DataFormat matrix = file.OpenDataset("matrix")->Format();
    EXPECT_EQ(matrix.type, DataType::Float);
    EXPECT_EQ(matrix.count, 12u);
    EXPECT_EQ(matrix.rows, 3u);
    EXPECT_EQ(matrix.cols, 4u);

    EXPECT_EQ(file.OpenDataset("cube")->Format().type, DataType::Unknown);
    EXPECT_EQ(file.OpenDataset("nested_table")->Format().type, DataType::Unknown);
    // An element kind the layer cannot read still tells how many elements of what size there are.
    const DataFormat half = file.OpenDataset("half_floats")->Format();
    EXPECT_EQ(half.type, DataType::Unknown);
    EXPECT_EQ(half.count, 5u);
    EXPECT_EQ(half.item_size, 2u);

    const DataFormat fixed = file.OpenDataset("fixed_strings")->Format();
    EXPECT_EQ(fixed.type, DataType::FixedString);
    EXPECT_EQ(fixed.count, 2u);
    EXPECT_EQ(fixed.item_size, 3u);
    EXPECT_EQ(file.OpenDataset("fixed_scalar")->Format().type, DataType::String);
    EXPECT_EQ(file.OpenDataset("text")->Format().type, DataType::String);

    // Packed compound members get aligned in-memory offsets; the record rounds up to 8 bytes.
    const DataFormat events = file.OpenDataset("events")->Format();
    ASSERT_EQ(events.type, DataType::Table);
    EXPECT_EQ(events.count, 5u);
    EXPECT_EQ(events.item_size, 32u);
    const std::vector<TableField> expected = {{"start", DataType::UInt64, 8, 0},
                                              {"length", DataType::UInt32, 4, 8},
                                              {"mean", DataType::Float, 4, 12},
                                              {"model_state", DataType::FixedString, 5, 16},
                                              {"move", DataType::Int32, 4, 24}};
    EXPECT_EQ(events.fields, expected);
}

TEST(H5Wrapper, ReadsDataSetsFromAnotherWriter) {
    H5File file(Fixture("types.h5"), H5Mode::ReadOnly);

    H5Dataset* matrix = file.OpenDataset("matrix");
    std::vector<float> values(12);
    DataView view = DataView::Matrix(values.data(), 3, 4);
    ASSERT_TRUE(matrix->Read(view));
    EXPECT_EQ(values[11], 11.0f);
    // Every view but a string view must match exactly.
    DataView flat = DataView::Of(values.data(), values.size());
    EXPECT_EQ(Thrown<std::runtime_error>([&] { matrix->Read(flat); }),
              "Data to be read does not match format of dataset.");
    std::string text;
    DataView string_view = DataView::OfString(text);
    EXPECT_EQ(Thrown<std::runtime_error>([&] { matrix->Read(string_view); }),
              "Data to be read does not match format of dataset.");

    // String views adapt to the length of the data set; fixed-length text is cut at its first zero.
    ASSERT_TRUE(file.OpenDataset("fixed_scalar")->Read(string_view));
    EXPECT_EQ(text, "hello");
    EXPECT_EQ(string_view.format.item_size, 5u);
    ASSERT_TRUE(file.OpenDataset("text")->Read(string_view));
    EXPECT_EQ(text, "variable text");
    EXPECT_EQ(static_cast<const char*>(string_view.data), text.data());

    H5Dataset* fixed_text = file.OpenDataset("text");
    DataView no_string;
    no_string.format = fixed_text->Format();
    EXPECT_EQ(Thrown<std::runtime_error>([&] { fixed_text->Read(no_string); }), "Data does not view string data.");

    // Fixed-width arrays are read space-padded into their memory width.
    char packed[6];
    DataView strings = DataView::OfFixedStrings(packed, 3, 2);
    ASSERT_TRUE(file.OpenDataset("fixed_strings")->Read(strings));
    EXPECT_EQ(std::string(packed, 6), "ab cde");

    // Tables convert member by member by name into the aligned records.
    H5Dataset* events = file.OpenDataset("events");
    DataTable table = DataTable::FromFormat(events->Format());
    DataView table_view = table.View();
    ASSERT_TRUE(events->Read(table_view));
    EXPECT_EQ(table.Get<std::uint64_t>(3, "start"), 30u);
    EXPECT_EQ(table.Get<float>(4, "mean"), 82.0f);
    EXPECT_EQ(table.GetString(2, "model_state"), "GTACG");
    EXPECT_EQ(table.Get<std::int32_t>(2, "move"), 2);

    // A three-dimensional data set stays Unknown; the only matching view is an empty one.
    DataView unknown;
    EXPECT_FALSE(file.OpenDataset("cube")->Read(unknown));
}

TEST(H5Wrapper, AttributesFromAnotherWriter) {
    H5File file(Fixture("types.h5"), H5Mode::ReadOnly);
    // Undecodable values are warnings, not failures.
    const std::map<std::string, std::string> expected = {
        {"vlen", "text:variable"}, {"fixed", "text:fixed"}, {"i8", "i8:-8"}, {"u8", "u8:200"}, {"i16", "i16:-16"},
        {"u16", "u16:60000"}, {"i32", "i32:-32"}, {"u32", "u32:4000000000"}, {"i64", "i64:-64"},
        {"u64", "u64:9223372036854775813"}, {"f32", "f32:0.25"}, {"f64", "f64:0.33333333333333331"},
        {"big_endian", "i32:258"}, {"array", "i32:11"}, {"vlen_array", "text:first"},
        {"odd_int", "text:Warning, integer size of 3 not supported."},
        {"half", "text:Warning, floating-point size of 2 not supported."},
        {"flag", "text:Warning, attribute is of unsupported type."}};
    EXPECT_EQ(AttributeTexts(file.OpenGroup("attrs")->GetAttributes()), expected);

    // More attributes than compact storage holds are all found.
    H5File multi(Fixture("multi.rawh5"), H5Mode::ReadOnly);
    const AttributeMap tags = multi.OpenGroup("read_read-one/context_tags")->GetAttributes();
    EXPECT_EQ(tags.size(), 14u);
    EXPECT_EQ(attr<short>(tags, "extra_09"), 9);
}

TEST(H5Wrapper, FailuresOfFilesAndModes) {
    const std::string missing = Scratch().File("does_not_exist.h5");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { H5File f(missing, H5Mode::ReadOnly); }),
              "Could not open file \"" + missing + "\".");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { H5File f(Fixture("types.h5"), H5Mode::CreateExclusive); }),
              "Could not create file \"" + Fixture("types.h5") + "\".");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { H5File f(missing, static_cast<H5Mode>(9)); }),
              "Unknown value of mode parameter for H5File constructor.");
    EXPECT_EQ(Thrown<std::runtime_error>([&] { H5File f(missing, H5Mode::Closed); }),
              "Unknown value of mode parameter for H5File constructor.");

    H5File created(Scratch().File("modes.h5"), H5Mode::CreateTruncate);
    EXPECT_EQ(created.Mode(), H5Mode::ReadWrite);
    EXPECT_EQ(created.CreateGroup("g")->Mode(), H5Mode::ReadWrite);
}

TEST(H5Wrapper, ReadOnlyAndClosedObjectsRefuseWithTheirMessages) {
    H5File file(Fixture("types.h5"), H5Mode::ReadOnly);
    H5Group* group = file.OpenGroup("attrs");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->Mode(), H5Mode::ReadOnly);
    std::vector<int> data(3);
    const DataView view = DataView::Of(data);
    using E = std::runtime_error;
    EXPECT_EQ(Thrown<E>([&] { group->CreateGroup("x"); }), "Cannot create group in read-only mode.");
    EXPECT_EQ(Thrown<E>([&] { group->SetAttributes({{"x", 1}}); }), "Cannot set attributes in read-only mode.");
    EXPECT_EQ(Thrown<E>([&] { group->AddAttribute("x", 1); }), "Cannot add attribute in read-only mode.");
    EXPECT_EQ(Thrown<E>([&] { group->CreateDataset("x", view); }), "Cannot create dataset in read-only mode.");

    // The closed test comes first, even for a read-only object.
    H5Dataset* ds = file.OpenDataset("scalar_int");
    group->Close();
    ds->Close();
    ds->Close();  // closing twice is harmless
    EXPECT_FALSE(group->IsOpen());
    EXPECT_EQ(group->Mode(), H5Mode::Closed);
    EXPECT_EQ(Thrown<E>([&] { group->GetAttributes(); }), "Cannot get attributes for invalid or closed object.");
    EXPECT_EQ(Thrown<E>([&] { group->SetAttributes({}); }), "Cannot set attributes for invalid or closed object.");
    EXPECT_EQ(Thrown<E>([&] { group->AddAttribute("x", 1); }), "Cannot add attribute to invalid or closed object.");
    EXPECT_EQ(Thrown<E>([&] { group->ListGroups(); }), "Cannot list groups for invalid group or file object.");
    EXPECT_EQ(Thrown<E>([&] { group->ListDatasets(); }), "Cannot list datasets for invalid group or file object.");
    EXPECT_EQ(Thrown<E>([&] { group->OpenGroup("x"); }), "Cannot open group for invalid group or file object.");
    EXPECT_EQ(Thrown<E>([&] { group->CreateGroup("x"); }), "Cannot create group for invalid group or file object.");
    EXPECT_EQ(Thrown<E>([&] { group->OpenDataset("x"); }), "Cannot open dataset in invalid group or file object.");
    EXPECT_EQ(Thrown<E>([&] { group->CreateDataset("x", view); }), "Cannot create dataset in invalid or closed object.");
    DataView target = DataView::Of(data.data(), 1);
    EXPECT_EQ(Thrown<E>([&] { ds->Read(target); }), "Cannot read data from an invalid or closed object.");
    EXPECT_FALSE(group->Exists("anything"));
}

TEST(H5Wrapper, ExistsNeverPrintsWhateverHandlerIsInstalled) {
    H5File file(Fixture("types.h5"), H5Mode::ReadOnly);
    {
        std::lock_guard<std::mutex> lock(h5Mutex);
        H5Eset_auto2(H5E_DEFAULT, reinterpret_cast<H5E_auto2_t>(H5Eprint2), stderr);
    }
    testing::internal::CaptureStderr();
    EXPECT_FALSE(file.Exists("nothing_here"));
    EXPECT_FALSE(file.Exists("attrs/deeper/still"));
    EXPECT_TRUE(file.Exists("attrs"));
    EXPECT_TRUE(file.Exists("matrix"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    std::lock_guard<std::mutex> lock(h5Mutex);
    H5E_auto2_t handler = nullptr;
    void* data = nullptr;
    H5Eget_auto2(H5E_DEFAULT, &handler, &data);
    EXPECT_EQ(handler, reinterpret_cast<H5E_auto2_t>(H5Eprint2));  // the caller's handler is back
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

TEST(H5Wrapper, ListingsAndOwnedChildren) {
    H5File file(Scratch().File("listing.h5"), H5Mode::CreateTruncate);
    ASSERT_NE(file.CreateGroup("b"), nullptr);
    ASSERT_NE(file.CreateGroup("a"), nullptr);
    std::vector<std::int8_t> bytes = {1, 2};
    ASSERT_NE(file.CreateDataset("d2", DataView::Of(bytes)), nullptr);
    ASSERT_NE(file.CreateDataset("d1", DataView::Of(bytes)), nullptr);
    ASSERT_NE(file.CreateGroup("a/inner"), nullptr);
    EXPECT_EQ(file.ListGroups(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(file.ListDatasets(), (std::vector<std::string>{"d1", "d2"}));

    // Failures of the library come back as null pointers.
    EXPECT_EQ(file.CreateGroup("a"), nullptr);
    EXPECT_EQ(file.OpenGroup("zzz"), nullptr);
    EXPECT_EQ(file.OpenDataset("a"), nullptr);
    EXPECT_EQ(file.CreateDataset("d1", DataView::Of(bytes)), nullptr);

    // Two opens of one name are two children; closing one leaves the other usable.
    H5Group* first = file.OpenGroup("a");
    H5Group* second = file.OpenGroup("a");
    ASSERT_NE(first, second);
    first->Close();
    EXPECT_EQ(second->ListGroups(), (std::vector<std::string>{"inner"}));
}

TEST(H5Wrapper, AttributeRoundTripOfEveryKind) {
    H5File file(Scratch().File("attributes.h5"), H5Mode::CreateTruncate);
    H5Group* group = file.CreateGroup("g", {{"from_create", std::string("yes")}});
    AttributeMap all = {{"sc", (signed char)-3},   {"uc", (unsigned char)250}, {"s", (short)-300},
                        {"us", (unsigned short)65000}, {"i", -70000},             {"ui", 4000000000u},
                        {"l", -(1l << 40)},        {"ul", (1ul << 63)},        {"f", 1.5f},
                        {"d", 2.25},               {"text", std::string("value")}};
    group->SetAttributes(all);
    group->AddAttribute("odd", true);                           // a kind the layer cannot store
    group->AddAttribute("text", std::string("second value"));  // existing names are kept
    EXPECT_EQ(Thrown<std::runtime_error>([&] { group->AddAttribute("empty", boost::any()); }),
              "Something went wrong parsing attribute empty");

    auto expected = AttributeTexts(all);
    expected["from_create"] = "text:yes";
    expected["odd"] = "text:W";  // only the first character of the placeholder text reaches the file
    EXPECT_EQ(AttributeTexts(group->GetAttributes()), expected);
}

TEST(H5Wrapper, CreatedDataSetsAreChunkedAndReadBack) {
    H5File file(Scratch().File("datasets.h5"), H5Mode::CreateTruncate);

    std::vector<std::int32_t> ints(3000);
    std::iota(ints.begin(), ints.end(), -1000);
    H5Dataset* flat = file.CreateDataset("flat", DataView::Of(ints));
    ASSERT_NE(flat, nullptr);
    EXPECT_EQ(chunkShape(flat), (std::vector<hsize_t>{1024}));
    EXPECT_EQ(flat->Format().count, 3000u);

    std::vector<std::uint16_t> grid(100 * 8);
    std::iota(grid.begin(), grid.end(), 0);
    H5Dataset* two = file.CreateDataset("grid", DataView::Matrix(grid.data(), 100, 8));
    ASSERT_NE(two, nullptr);
    EXPECT_EQ(chunkShape(two), (std::vector<hsize_t>{100, 8}));  // 128 rows, at most the row count
    std::vector<std::uint16_t> narrow(700 * 3);
    EXPECT_EQ(chunkShape(file.CreateDataset("narrow", DataView::Matrix(narrow.data(), 700, 3))),
              (std::vector<hsize_t>{341, 3}));

    std::vector<std::uint16_t> grid_back(grid.size());
    DataView grid_view = DataView::Matrix(grid_back.data(), 100, 8);
    ASSERT_TRUE(two->Read(grid_view));
    EXPECT_EQ(grid_back, grid);

    const std::string text = "a line\nand another";
    H5Dataset* str = file.CreateDataset("text", DataView::OfString(text));
    ASSERT_NE(str, nullptr);
    EXPECT_EQ(str->Format().type, DataType::String);
    EXPECT_EQ(str->Format().item_size, text.size() + 1);
    std::string text_back;
    DataView text_view = DataView::OfString(text_back);
    ASSERT_TRUE(str->Read(text_view));
    EXPECT_EQ(text_back, text);

    const char packed[] = "ab\0cde";
    H5Dataset* fixed = file.CreateDataset("fixed", DataView::OfFixedStrings(packed, 3, 2));
    ASSERT_NE(fixed, nullptr);
    EXPECT_EQ(fixed->Format().type, DataType::FixedString);

    // Tables: aligned fields, record padded to 8 bytes, same format when opened again.
    DataTable table;
    table.AddField("id", DataType::Int32);
    table.AddField("code", DataType::FixedString, 3);
    table.AddField("value", DataType::Double);
    table.Resize(4);
    for (int r = 0; r < 4; ++r) {
        table.Set<std::int32_t>(r, "id", r * 10);
        table.SetString(r, "code", std::string(3, char('A' + r)));
        table.Set<double>(r, "value", r / 4.0);
    }
    H5Dataset* records = file.CreateDataset("table", table.View());
    ASSERT_NE(records, nullptr);
    EXPECT_EQ(records->Format(), table.View().format);
    DataTable back = DataTable::FromFormat(file.OpenDataset("table")->Format());
    DataView back_view = back.View();
    ASSERT_TRUE(file.OpenDataset("table")->Read(back_view));
    EXPECT_EQ(back.buffer, table.buffer);
    EXPECT_EQ(back.GetString(3, "code"), "DDD");
}

TEST(H5Wrapper, PreCompressedChunksAreWrittenAsIs) {
    H5File file(Scratch().File("compressed.h5"), H5Mode::CreateTruncate);

    // 2500 samples: two whole chunks of 1024 and a short one.
    std::vector<std::int16_t> samples(2500);
    for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = std::int16_t((i * 7919) % 30011 - 15000);
    CompressedDataView packed(DataView::Of(samples), 2048, 1);
    EXPECT_EQ(packed.Chunks()->chunk_sizes.size(), 3u);
    H5Dataset* signal = file.CreateDataset("signal", packed);
    ASSERT_NE(signal, nullptr);
    EXPECT_EQ(chunkShape(signal), (std::vector<hsize_t>{1024}));
    EXPECT_EQ(storageSize(signal), packed.Chunks()->size);
    std::vector<std::int16_t> back(samples.size());
    DataView view = DataView::Of(back.data(), back.size());
    ASSERT_TRUE(signal->Read(view));
    EXPECT_EQ(back, samples);

    // Two dimensions: a chunk covers whole rows.
    std::vector<std::int32_t> grid(64 * 16);
    std::iota(grid.begin(), grid.end(), 0);
    CompressedDataView packed_grid(DataView::Matrix(grid.data(), 64, 16), 2048, 6);
    H5Dataset* g = file.CreateDataset("grid", packed_grid);
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(chunkShape(g), (std::vector<hsize_t>{32, 16}));
    std::vector<std::int32_t> grid_back(grid.size());
    DataView grid_view = DataView::Matrix(grid_back.data(), 64, 16);
    ASSERT_TRUE(g->Read(grid_view));
    EXPECT_EQ(grid_back, grid);

    std::vector<std::int32_t> three(30 * 3);
    EXPECT_EQ(Thrown<std::runtime_error>([&] { CompressedDataView v(DataView::Matrix(three.data(), 30, 3), 2048, 1); }),
              "For 2d arrays, chunksize for compression must be a multiple of the column count.");

    // Nothing to write: the data set exists, empty, with no chunk stored.
    std::vector<std::int16_t> none;
    CompressedDataView empty(DataView::Of(none), 2048, 1);
    H5Dataset* e = file.CreateDataset("empty", empty);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->Format().type, DataType::Int16);
    EXPECT_EQ(e->Format().count, 0u);
    EXPECT_EQ(storageSize(e), 0u);
}
