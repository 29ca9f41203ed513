#include "mismatch_estimator.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include "async_caller/file_data_handler_md.h"
#include "async_caller/prior_aligner.h"
#include "common/table_reader.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "decoders/fast_align.h"
#include "decoders/mismatch_table.h"
#include "stored_call.h"

namespace TestBed {

namespace {

std::vector<std::string> column(const Common::TableReader& table, const std::string& name, const std::string& path) {
    const int index = table.ColumnIndex(name);
    if (index < 0) {
        throw std::runtime_error("Column \"" + name + "\" not found in " + path + ".");
    }
    std::vector<std::string> values;
    table.GetColumn(index, values, std::string());
    return values;
}

// read_id -> base start samples (from the start of the read), for the ids wanted.
std::map<std::string, std::vector<std::uint64_t>> readBaseStarts(const std::string& path,
                                                                 const std::set<std::string>& wanted) {
    gzFile in = gzopen(path.c_str(), "rb");
    if (!in) {
        throw std::runtime_error("Cannot open \"" + path + "\".");
    }
    std::map<std::string, std::vector<std::uint64_t>> out;
    std::string line;
    std::vector<char> buffer(1 << 16);
    bool header = true;
    while (gzgets(in, buffer.data(), static_cast<int>(buffer.size()))) {
        line += buffer.data();
        if (line.empty() || line.back() != '\n') {
            continue;  // a long line: keep reading it
        }
        line.pop_back();
        if (header) {
            header = false;
            line.clear();
            continue;
        }
        std::istringstream fields(line);
        std::string id, start, deltas;
        std::getline(fields, id, '\t');
        std::getline(fields, start, '\t');
        std::getline(fields, deltas, '\t');
        if (wanted.count(id)) {
            std::vector<std::uint64_t> starts;
            std::uint64_t position = std::stoull(start);
            std::istringstream values(deltas);
            std::string d;
            while (std::getline(values, d, ',')) {
                position += std::stoull(d);
                starts.push_back(position);
            }
            out[id] = std::move(starts);
        }
        line.clear();
    }
    gzclose(in);
    return out;
}

// The pair run's own label extraction, so that the table describes exactly the labels it aligns.
class LabelLoader {
public:
    LabelLoader()
        : scores(PairAlignment::kMismatchLabels * PairAlignment::kMismatchLabels, 0),
          aligner(PairAlignment::FastAlign(
              Common::MatView<const int>(scores.data(), PairAlignment::kMismatchLabels,
                                         PairAlignment::kMismatchLabels, PairAlignment::kMismatchLabels, 1),
              {300, 300, 500, 300, 300, 500}, 1001)),
          handler(1, aligner, 1, nullptr, 0) {}

    bool Load(std::shared_ptr<DataAPI::ReadData>& read, AsyncCaller::FileDataHandlerMD::PriorReadInfo& info,
              bool second_strand) {
        AsyncCaller::FileDataHandler::RawRead raw;
        return handler.loadReadAndLabels(read, raw, info, second_strand);
    }

private:
    std::vector<int> scores;
    AsyncCaller::PriorAligner aligner;
    AsyncCaller::FileDataHandlerMD handler;
};

}  // namespace

MismatchCounts::MismatchCounts() : weights(static_cast<std::size_t>(kLabels * kLabels), 0.0) {}

void MismatchCounts::AddPair(const std::vector<std::int32_t>& labels1, const std::vector<std::int64_t>& positions1,
                             const std::vector<std::int32_t>& labels2, const std::vector<std::int64_t>& positions2) {
    if (labels1.size() != positions1.size() || labels2.size() != positions2.size()) {
        throw std::runtime_error("Every block needs a position: label and position counts differ.");
    }
    auto valid = [](std::int32_t label) { return label >= 0 && label < kLabels; };
    // Strand-2 labels at each molecule position.
    std::map<std::int64_t, std::vector<std::int32_t>> second;
    for (std::size_t e = 0; e < labels2.size(); ++e) {
        if (positions2[e] >= 0 && valid(labels2[e])) {
            second[positions2[e]].push_back(labels2[e]);
        }
    }
    for (std::size_t e = 0; e < labels1.size(); ++e) {
        if (positions1[e] < 0 || !valid(labels1[e])) {
            continue;
        }
        const auto it = second.find(positions1[e]);
        if (it == second.end()) {
            continue;
        }
        const double share = 1.0 / static_cast<double>(it->second.size());
        for (std::int32_t b : it->second) {
            weights[static_cast<std::size_t>(labels1[e] * kLabels + b)] += share;
        }
    }
    ++pairs;
}

double MismatchCounts::TotalWeight() const {
    double total = 0.0;
    for (double w : weights) {
        total += w;
    }
    return total;
}

std::vector<double> MismatchCounts::ConditionalTable(double pseudocount) const {
    if (!(pseudocount > 0.0)) {
        throw std::runtime_error("The pseudocount must be positive, or unseen label pairs get probability 0.");
    }
    std::vector<double> table(weights.size());
    for (int a = 0; a < kLabels; ++a) {
        double row = 0.0;
        for (int b = 0; b < kLabels; ++b) {
            row += weights[static_cast<std::size_t>(a * kLabels + b)] + pseudocount;
        }
        for (int b = 0; b < kLabels; ++b) {
            const std::size_t i = static_cast<std::size_t>(a * kLabels + b);
            table[i] = (weights[i] + pseudocount) / row;
        }
    }
    return table;
}

void WriteMismatchTable(std::ostream& out, const std::vector<double>& table) {
    if (table.size() != static_cast<std::size_t>(MismatchCounts::kLabels * MismatchCounts::kLabels)) {
        throw std::runtime_error("A mismatch table has 4096 entries.");
    }
    out << "prob\n";
    char text[32];
    for (double p : table) {
        // Nine significant digits keep a float's value, and so the aligner's integer scores, exactly.
        std::snprintf(text, sizeof(text), "%.9g\n", p);
        out << text;
    }
}

std::vector<std::int64_t> BlockPositions(const std::vector<std::uint64_t>& base_starts, std::uint64_t first_sample,
                                         std::uint64_t stride, std::size_t blocks, int k, bool second_strand) {
    std::vector<std::int64_t> positions(blocks, -1);
    const std::int64_t m = static_cast<std::int64_t>(base_starts.size());
    const std::int64_t centre = k == 5 ? 1 : 0;
    std::size_t arrived = 0;  // bases arrived so far; base_starts never decrease
    for (std::size_t e = 0; e < blocks; ++e) {
        const std::uint64_t last = first_sample + (e + 1) * stride - 1;
        while (arrived < base_starts.size() && base_starts[arrived] <= last) {
            ++arrived;
        }
        const std::int64_t j = static_cast<std::int64_t>(arrived) - 1;
        const std::int64_t start = j - k + 1 + centre;
        if (j < k - 1 || start < 0 || start + 3 > m) {
            continue;
        }
        if (second_strand) {
            positions[blocks - 1 - e] = m - 3 - start;
        } else {
            positions[e] = start;
        }
    }
    return positions;
}

TruthEstimate EstimateFromTruth(const std::string& truth_dir, const std::string& index_path,
                                const std::string& input_path) {
    namespace fs = boost::filesystem;
    Common::TableReader index;
    index.Read(index_path);
    const auto files = column(index, "filename", index_path);
    const auto ids = column(index, "read_id", index_path);
    std::map<std::string, std::string> fileOf;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        fileOf[ids[i]] = (fs::path(input_path) / files[i]).string();
    }

    const std::string pairsPath = (fs::path(truth_dir) / "truth_pairs.tsv").string();
    Common::TableReader pairTable;
    pairTable.Read(pairsPath);
    const auto first = column(pairTable, "read_id1", pairsPath);
    const auto second = column(pairTable, "read_id2", pairsPath);
    std::set<std::string> wanted(first.begin(), first.end());
    wanted.insert(second.begin(), second.end());
    const auto starts = readBaseStarts((fs::path(truth_dir) / "base_starts.tsv.gz").string(), wanted);

    TruthEstimate estimate;
    LabelLoader labels;
    for (std::size_t p = 0; p < first.size(); ++p) {
        const std::string pair[2] = {first[p], second[p]};
        try {
            AsyncCaller::FileDataHandlerMD::PriorReadInfo info[2];
            std::vector<std::int64_t> positions[2];
            for (int s = 0; s < 2; ++s) {
                const auto file = fileOf.find(pair[s]);
                const auto truth = starts.find(pair[s]);
                if (file == fileOf.end() || truth == starts.end()) {
                    throw std::runtime_error("read " + pair[s] + " is not in the index or the truth");
                }
                DataAPI::Rawh5::ReadSource source(file->second, DataAPI::H5Wrapper::H5Mode::ReadOnly);
                auto read = source.GetRead(pair[s]);
                if (!labels.Load(read, info[s], s == 1)) {
                    throw std::runtime_error("the pair run's loader refused read " + pair[s]);
                }
                const auto k = ReadStoredCall(*read).KmerLength();
                positions[s] = BlockPositions(truth->second, info[s].first_sample, info[s].stride,
                                              info[s].labels.size(), static_cast<int>(k), s == 1);
                read.reset();
                source.Close();
            }
            estimate.counts.AddPair(info[0].labels, positions[0], info[1].labels, positions[1]);
        } catch (const std::exception& e) {
            estimate.skipped.push_back("pair " + first[p] + ", " + second[p] + ": " + e.what());
        }
    }
    return estimate;
}

}  // namespace TestBed
