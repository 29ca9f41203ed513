#include "data_api/compressed_data_view.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include <zlib.h>

namespace DataAPI {

std::uint64_t CompressedChunks::CompressBound(std::uint64_t chunk_bytes) {
    return static_cast<std::uint64_t>(std::ceil(static_cast<double>(chunk_bytes) * 1.001 + 12.0));
}

std::uint64_t CompressedChunks::BufferSize(std::uint64_t input_size, std::uint64_t chunk_bytes) {
    if (chunk_bytes == 0) return 0;
    const auto chunks = static_cast<std::uint64_t>(std::ceil(double(input_size) / double(chunk_bytes)));
    return chunks * CompressBound(chunk_bytes);
}

CompressedChunks::CompressedChunks(const std::uint8_t* input, std::uint64_t input_size, std::uint8_t* output,
                                   std::uint64_t output_size, std::uint64_t chunk_bytes_, std::int32_t level_)
    : chunk_bytes(chunk_bytes_), level(level_), data(output) {
    if (chunk_bytes == 0) throw std::runtime_error("Chunk size for compression must not be zero.");
    const auto chunks = static_cast<std::uint64_t>(std::ceil(double(input_size) / double(chunk_bytes)));
    const std::uint64_t bound = CompressBound(chunk_bytes);
    if (chunks * bound > output_size) throw std::runtime_error("Compressed buffer not large enough for input data.");
    std::vector<std::uint8_t> scratch(bound);
    std::uint64_t done = 0;
    std::uint64_t pos = 0;
    chunk_sizes.reserve(chunks);
    for (std::uint64_t i = 0; i < chunks; ++i) {
        const std::uint64_t length = std::min(chunk_bytes, input_size - done);
        uLongf out_len = static_cast<uLongf>(bound);
        // The bound above exceeds zlib's own worst case, so compress2 has the room it needs.
        compress2(scratch.data(), &out_len, input + done, static_cast<uLong>(length), level);
        std::memcpy(output + pos, scratch.data(), out_len);
        chunk_sizes.push_back(out_len);
        pos += out_len;
        done += length;
    }
    size = pos;
}

CompressedDataView::CompressedDataView(const DataView& source, std::uint64_t chunk_bytes, std::int32_t level)
    : DataView(source) {
    if (format.rows != 0 && format.cols != 0) {
        // Each compressed chunk must cover whole rows, since it is written at a row offset.
        const std::uint64_t chunk_items = format.item_size ? chunk_bytes / format.item_size : 0;
        if (1024 % format.cols != 0 || chunk_items % format.cols != 0)
            throw std::runtime_error("For 2d arrays, chunksize for compression must be a multiple of the column count.");
    }
    const std::uint64_t total = format.count * format.item_size;
    buffer.resize(CompressedChunks::BufferSize(total, chunk_bytes));
    chunks.reset(new CompressedChunks(static_cast<const std::uint8_t*>(data), total, buffer.data(), buffer.size(),
                                      chunk_bytes, level));
}

void CompressedDataView::Reset() {
    DataView::Reset();
    chunks.reset();
    buffer.clear();
}

}  // namespace DataAPI
