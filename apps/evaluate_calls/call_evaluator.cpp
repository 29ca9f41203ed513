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

using EdlibGuard = std::unique_ptr<EdlibAlignResult, void (*)(EdlibAlignResult*)>;

EdlibAlignResult runEdlib(const std::string& call, const std::string& truth, int maxDistance, EdlibAlignTask task) {
    EdlibAlignResult result = edlibAlign(call.data(), static_cast<int>(call.size()), truth.data(),
                                         static_cast<int>(truth.size()),
                                         edlibNewAlignConfig(maxDistance, EDLIB_MODE_HW, task, nullptr, 0));
    if (result.status != EDLIB_STATUS_OK) {
        edlibFreeAlignResult(result);
        throw std::runtime_error("Alignment failed.");
    }
    return result;
}

void freeEdlib(EdlibAlignResult* r) { edlibFreeAlignResult(*r); }

// Infix edit distance of the call in the truth; -1 when above maxDistance (-1 for no bound).
int infixDistance(const std::string& call, const std::string& truth, int maxDistance) {
    EdlibAlignResult result = runEdlib(call, truth, maxDistance, EDLIB_TASK_DISTANCE);
    EdlibGuard guard(&result, freeEdlib);
    return result.editDistance;
}

// Walks the infix alignment's columns, counting them and charging each error to call bases.
void chargeAlignment(const std::string& call, const std::string& truth, int maxDistance, BaseCharges& out) {
    out.charges.assign(call.size(), 0.0);
    AlignmentCounts& counts = out.counts;
    if (call.empty() || truth.empty()) {
        counts.deletions = truth.size();
        counts.insertions = call.size();
        std::fill(out.charges.begin(), out.charges.end(), 1.0);
        return;
    }
    EdlibAlignResult result = runEdlib(call, truth, maxDistance, EDLIB_TASK_PATH);
    EdlibGuard guard(&result, freeEdlib);
    const std::size_t n = call.size();
    std::size_t next = 0;  // the call base the next column reaches
    for (int i = 0; i < result.alignmentLength; ++i) {
        switch (result.alignment[i]) {
            case EDLIB_EDOP_MATCH: ++counts.matches; ++next; break;
            case EDLIB_EDOP_MISMATCH: ++counts.mismatches; out.charges[next++] += 1.0; break;
            case EDLIB_EDOP_INSERT: ++counts.insertions; out.charges[next++] += 1.0; break;
            case EDLIB_EDOP_DELETE:
                // The missing truth base lies between call bases next - 1 and next.
                ++counts.deletions;
                if (next == 0) {
                    out.charges[0] += 1.0;
                } else if (next == n) {
                    out.charges[n - 1] += 1.0;
                } else {
                    out.charges[next - 1] += 0.5;
                    out.charges[next] += 0.5;
                }
                break;
            default: break;
        }
    }
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
            records.push_back({firstWord(line), "", ""});
        } else if (line[0] == '@') {
            SequenceRecord rec{firstWord(line), "", ""};
            std::string plus, qual;
            if (!std::getline(in, rec.sequence) || !std::getline(in, plus) || !std::getline(in, qual) ||
                plus.empty() || plus[0] != '+') {
                throw std::runtime_error("Truncated FASTQ record \"" + rec.id + "\" in " + path + ".");
            }
            for (std::string* s : {&rec.sequence, &qual}) {
                if (!s->empty() && s->back() == '\r') {
                    s->pop_back();
                }
            }
            rec.quality = std::move(qual);
            records.push_back(std::move(rec));
        } else if (!records.empty()) {
            records.back().sequence += line;
        } else {
            throw std::runtime_error("File \"" + path + "\" is neither FASTA nor FASTQ.");
        }
    }
    return records;
}

BaseCharges ChargeBases(const std::string& call, const std::string& truth) {
    std::string forward = call;
    std::replace(forward.begin(), forward.end(), 'U', 'T');
    const std::string backward = reverseComplement(forward);
    // Distances alone pick the orientation (the path is the expensive part on long reads); the
    // wrong one is bounded by the right one's distance so that it stops early. Ties keep forward.
    BaseCharges best;
    int distance = -1;
    if (!forward.empty() && !truth.empty()) {
        const int fwd = infixDistance(forward, truth, -1);
        const int bwd = infixDistance(backward, truth, fwd > 0 ? fwd - 1 : 0);
        best.reverse = bwd >= 0 && bwd < fwd;
        distance = best.reverse ? bwd : fwd;
    }
    chargeAlignment(best.reverse ? backward : forward, truth, distance, best);
    if (best.reverse) {
        std::reverse(best.charges.begin(), best.charges.end());
    }
    return best;
}

AlignmentCounts AlignToTruth(const std::string& call, const std::string& truth) {
    return ChargeBases(call, truth).counts;
}

double PhredOf(double errors, double total) {
    if (!(total > 0) || errors <= total * 1e-6) {
        return 60.0;
    }
    return std::min(60.0, -10.0 * std::log10(errors / total));
}

bool QualityBins::Add(const std::string& quality, const std::vector<double>& charges) {
    if (quality.size() != charges.size()) {
        return false;
    }
    for (std::size_t i = 0; i < quality.size(); ++i) {
        const int q = std::max(0, static_cast<int>(static_cast<unsigned char>(quality[i])) - 33);
        if (static_cast<std::size_t>(q) >= bases.size()) {
            bases.resize(q + 1, 0);
            errors.resize(q + 1, 0.0);
        }
        ++bases[q];
        errors[q] += charges[i];
    }
    return true;
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
    s.median_qscore = PhredOf(1.0 - s.median, 1.0);
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
