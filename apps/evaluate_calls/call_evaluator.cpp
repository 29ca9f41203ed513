#include "call_evaluator.h"

#include <edlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

namespace TestBed {

namespace {
std::string firstWord(const std::string& title) {
    const auto end = title.find_first_of(" \t");
    return title.substr(1, end == std::string::npos ? std::string::npos : end - 1);
}

std::string reverseComplement(const std::string& s) {
    std::string rc(s.rbegin(), s.rend());
    for (auto& c : rc) {
        switch (c) {
            case 'A': c = 'T'; break;
            case 'C': c = 'G'; break;
            case 'G': c = 'C'; break;
            case 'T': case 'U': c = 'A'; break;
            default: c = 'N';
        }
    }
    return rc;
}

AlignmentCounts alignOne(const std::string& call, const std::string& truth) {
    AlignmentCounts counts;
    if (call.empty() || truth.empty()) {
        counts.deletions = truth.size();
        counts.insertions = call.size();
        return counts;
    }
    EdlibAlignResult result = edlibAlign(call.data(), static_cast<int>(call.size()), truth.data(),
                                         static_cast<int>(truth.size()),
                                         edlibNewAlignConfig(-1, EDLIB_MODE_HW, EDLIB_TASK_PATH, nullptr, 0));
    std::unique_ptr<EdlibAlignResult, void (*)(EdlibAlignResult*)> guard(&result, [](EdlibAlignResult* r) {
        edlibFreeAlignResult(*r);
    });
    if (result.status != EDLIB_STATUS_OK) {
        throw std::runtime_error("Alignment failed.");
    }
    for (int i = 0; i < result.alignmentLength; ++i) {
        switch (result.alignment[i]) {
            case EDLIB_EDOP_MATCH: ++counts.matches; break;
            case EDLIB_EDOP_MISMATCH: ++counts.mismatches; break;
            case EDLIB_EDOP_INSERT: ++counts.insertions; break;
            case EDLIB_EDOP_DELETE: ++counts.deletions; break;
            default: break;
        }
    }
    return counts;
}
}  // namespace

double AlignmentCounts::Identity() const {
    const std::size_t columns = matches + mismatches + insertions + deletions;
    return columns == 0 ? 0.0 : static_cast<double>(matches) / static_cast<double>(columns);
}

std::vector<SequenceRecord> ReadSequences(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("Cannot open sequence file \"" + path + "\".");
    }
    std::vector<SequenceRecord> records;
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        if (line[0] == '>') {
            records.push_back({firstWord(line), ""});
        } else if (line[0] == '@') {
            SequenceRecord rec{firstWord(line), ""};
            std::string plus, qual;
            if (!std::getline(in, rec.sequence) || !std::getline(in, plus) || !std::getline(in, qual) ||
                plus.empty() || plus[0] != '+') {
                throw std::runtime_error("Truncated FASTQ record \"" + rec.id + "\" in " + path + ".");
            }
            if (!rec.sequence.empty() && rec.sequence.back() == '\r') {
                rec.sequence.pop_back();
            }
            records.push_back(std::move(rec));
        } else if (!records.empty()) {
            records.back().sequence += line;
        } else {
            throw std::runtime_error("File \"" + path + "\" is neither FASTA nor FASTQ.");
        }
    }
    return records;
}

AlignmentCounts AlignToTruth(const std::string& call, const std::string& truth) {
    std::string forward = call;
    std::replace(forward.begin(), forward.end(), 'U', 'T');
    const AlignmentCounts a = alignOne(forward, truth);
    const AlignmentCounts b = alignOne(reverseComplement(forward), truth);
    return b.Identity() > a.Identity() ? b : a;
}

SetSummary Summarise(const std::string& name, std::vector<double> identities) {
    SetSummary s;
    s.name = name;
    s.count = identities.size();
    if (identities.empty()) {
        return s;
    }
    std::sort(identities.begin(), identities.end());
    const auto quantile = [&](double q) {
        // Linear interpolation between order statistics.
        const double pos = q * static_cast<double>(identities.size() - 1);
        const auto lo = static_cast<std::size_t>(std::floor(pos));
        const auto hi = std::min(lo + 1, identities.size() - 1);
        return identities[lo] + (identities[hi] - identities[lo]) * (pos - static_cast<double>(lo));
    };
    s.median = quantile(0.5);
    s.p10 = quantile(0.1);
    s.mean = std::accumulate(identities.begin(), identities.end(), 0.0) / static_cast<double>(identities.size());
    const double error = 1.0 - s.median;
    s.median_qscore = error <= 1e-6 ? 60.0 : std::min(60.0, -10.0 * std::log10(error));
    return s;
}

std::string FormatTable(const std::vector<SetSummary>& sets) {
    std::ostringstream os;
    char line[160];
    std::snprintf(line, sizeof(line), "%-16s %7s %9s %9s %9s %8s\n", "set", "count", "median", "mean", "p10", "Q(med)");
    os << line;
    for (const auto& s : sets) {
        std::snprintf(line, sizeof(line), "%-16s %7zu %8.2f%% %8.2f%% %8.2f%% %8.1f\n", s.name.c_str(), s.count,
                      100 * s.median, 100 * s.mean, 100 * s.p10, s.median_qscore);
        os << line;
    }
    return os.str();
}

std::string FormatJson(const std::vector<SetSummary>& sets) {
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    for (const auto& s : sets) {
        w.Key(s.name.c_str());
        w.StartObject();
        w.Key("count");
        w.Uint64(s.count);
        w.Key("median_identity");
        w.Double(s.median);
        w.Key("mean_identity");
        w.Double(s.mean);
        w.Key("p10_identity");
        w.Double(s.p10);
        w.Key("median_qscore");
        w.Double(s.median_qscore);
        w.EndObject();
    }
    w.EndObject();
    return std::string(buffer.GetString()) + "\n";
}

}  // namespace TestBed
