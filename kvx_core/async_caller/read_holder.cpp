#include "async_caller/read_holder.h"

namespace AsyncCaller {

ReadHolder::~ReadHolder() = default;

ReadHolder::ReadHolder(const ReadHolder& other)
    : dimension(other.dimension),
      owns_raw(false),
      overlap(other.overlap),
      sequence(other.sequence),
      qualities(other.qualities),
      mean_qscore(other.mean_qscore),
      passes_filtering(other.passes_filtering),
      strand_score(other.strand_score),
      stride(other.stride),
      kmerLength(other.kmerLength),
      qscore_offset(other.qscore_offset),
      qscore_scale(other.qscore_scale) {}

ReadHolder::ReadHolder(ReadHolder&& other) noexcept
    : dimension(other.dimension),
      owns_raw(other.owns_raw),
      chunks(std::move(other.chunks)),
      overlap(other.overlap),
      sequence(std::move(other.sequence)),
      qualities(std::move(other.qualities)),
      mean_qscore(other.mean_qscore),
      passes_filtering(other.passes_filtering),
      strand_score(other.strand_score),
      stride(other.stride),
      kmerLength(other.kmerLength),
      qscore_offset(other.qscore_offset),
      qscore_scale(other.qscore_scale) {
    // The signal now belongs here; the derived move constructor takes the views.
    other.owns_raw = false;
    other.chunks.clear();
}

}  // namespace AsyncCaller
