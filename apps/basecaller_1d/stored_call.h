#pragma once
// Reads back what the single-strand step stored in a read: the newest Segmentation_ and Basecall_1D_
// analyses (greatest three-digit suffix, as the pair run chooses them), the segmentation, the block
// stride, the moves and the FASTQ record.

#include <cstdint>
#include <string>
#include <vector>

#include "data_api/read_data.h"

namespace TestBed {

struct StoredCall {
    std::string segmentation_analysis;  // e.g. "Segmentation_000"
    std::string basecall_analysis;      // e.g. "Basecall_1D_000"
    std::uint64_t first_sample = 0;
    std::uint64_t duration = 0;
    std::uint64_t block_stride = 0;     // 0 when the summary has none
    std::vector<std::uint8_t> moves;
    std::string fastq;                  // the whole record
    std::string sequence;               // its second line

    // k of the model that made the call: sequence length + 1 - sum of moves.
    std::int64_t KmerLength() const;
};

// Throws std::runtime_error when an analysis, summary group or data set is missing.
StoredCall ReadStoredCall(DataAPI::ReadData& read);

}  // namespace TestBed
