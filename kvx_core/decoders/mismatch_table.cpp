#include "decoders/mismatch_table.h"

#include <cmath>
#include <stdexcept>

#include "common/logger.h"
#include "common/table_reader.h"
#include "decoders/int_score.h"

namespace PairAlignment {

MismatchMatrix LoadMismatchMatrix(const std::string& path) {
    Common::TableReader table;
    table.Read(path);
    const int column = table.ColumnIndex("prob");
    if (column < 0) {
        throw std::runtime_error("Mismatch table \"" + path +
                                 "\" has no \"prob\" column: expected a tab-separated table with a header "
                                 "line naming a \"prob\" column of 4096 probabilities.");
    }
    std::vector<float> probabilities;
    table.GetColumn<float>(column, probabilities, 0.0f);
    if (probabilities.size() != static_cast<std::size_t>(kMismatchLabels * kMismatchLabels)) {
        throw std::runtime_error("Unexpected size of mismatch data.");
    }
    MismatchMatrix matrix;
    matrix.values.reserve(probabilities.size());
    for (const float p : probabilities) {
        matrix.values.push_back(BasecallCommon::TruncateToInt32(std::log(p) * 100.0f));
    }
    KVX_LOG(verbose) << "Loaded mismatch table " << path;
    return matrix;
}

}  // namespace PairAlignment
