#pragma once
// Pre-compressed chunks for writing large data sets (raw signal above all): the data are deflated
// here, chunk by chunk, and the HDF5 layer writes each compressed chunk straight into the file,
// past the library's filter pipeline. The result is an ordinary deflate-filtered chunked data set.

#include <cstdint>
#include <memory>
#include <vector>

#include "data_api/data_view.h"

namespace DataAPI {

struct CompressedChunks {
    // Deflates `input_size` bytes at `input` in chunks of `chunk_bytes` with zlib `level` into
    // `output` (capacity `output_size`), back to back. The output must hold
    // ceil(input / chunk_bytes) * CompressBound(chunk_bytes) bytes, else
    // "Compressed buffer not large enough for input data.".
    CompressedChunks(const std::uint8_t* input, std::uint64_t input_size, std::uint8_t* output,
                     std::uint64_t output_size, std::uint64_t chunk_bytes, std::int32_t level);

    // Worst-case deflate size of one chunk: ceil(chunk_bytes * 1.001 + 12).
    static std::uint64_t CompressBound(std::uint64_t chunk_bytes);
    // Output capacity needed for `input_size` bytes.
    static std::uint64_t BufferSize(std::uint64_t input_size, std::uint64_t chunk_bytes);

    std::uint64_t chunk_bytes;
    std::int32_t level;
    const std::uint8_t* data = nullptr;  // the compressed stream
    std::uint64_t size = 0;              // its total length
    std::vector<std::uint64_t> chunk_sizes;
};

// A view whose data travel compressed: the format is the source's, the chunks and their buffer
// are owned by the view.
class CompressedDataView : public DataView {
public:
    CompressedDataView() = default;
    // Compresses the memory of `source` (a numeric view of one or two dimensions). A
    // two-dimensional source must have a column count that divides 1024 and the elements of one
    // chunk, else "For 2d arrays, chunksize for compression must be a multiple of the column
    // count.".
    CompressedDataView(const DataView& source, std::uint64_t chunk_bytes, std::int32_t level);

    void Reset() override;
    const CompressedChunks* Chunks() const { return chunks.get(); }

    std::unique_ptr<CompressedChunks> chunks;
    std::vector<std::uint8_t> buffer;
};

}  // namespace DataAPI
