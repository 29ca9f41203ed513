#pragma once
// The cells of the sequencing summary: one read holder, one column name, one text.

#include <string>
#include <vector>

#include "async_caller/read_holder.h"
#include "common/value_formatter.h"

namespace AsyncCaller {

// The columns of a strand pair's summary, in file order.
const std::vector<std::string>& PairSummaryColumns();

// The text of `column` for the holder: a strand pair (dimension 1) answers the pair columns and
// "duration1", "duration2", "num_events1", "num_events2"; a single read (dimension 0) answers the
// single-read columns it holds values for. Any other name gives an empty text. Times are in seconds
// (samples over sampling rate, in single precision), event counts are samples over stride.
std::string GetSummaryValue(const ReadHolder& holder, const std::string& column,
                            const Common::ValueFormatter& formatter);

}  // namespace AsyncCaller
