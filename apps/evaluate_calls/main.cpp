// evaluate_calls: identities of single-strand and pair calls against the simulator's truth.
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <stdexcept>
#include <sstream>
#include <string>
#include <vector>

#include <boost/program_options.hpp>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "call_evaluator.h"

namespace po = boost::program_options;
using namespace TestBed;

namespace {
std::map<std::string, std::string> loadTruth(const std::string& path) {
    std::map<std::string, std::string> truth;
    for (auto& rec : ReadSequences(path)) {
        truth[rec.id] = std::move(rec.sequence);
    }
    return truth;
}

// Pair call ids may join both read ids; the first one found in the truth names the molecule's strand 1.
const std::string* findTruth(const std::map<std::string, std::string>& truth, const std::string& id) {
    auto it = truth.find(id);
    if (it != truth.end()) {
        return &it->second;
    }
    std::string token;
    std::istringstream parts(id);
    while (std::getline(parts, token, ';')) {
        it = truth.find(token);
        if (it != truth.end()) {
            return &it->second;
        }
    }
    return nullptr;
}

struct ReadRow {
    std::string id;
    std::size_t length;
    AlignmentCounts counts;
    bool reverse;
};

struct CallSet {
    std::vector<double> identities;
    std::vector<ReadRow> reads;  // only with --details
    QualityBins bins;
};

void writeDetails(const std::string& path, const std::map<std::string, CallSet>& calls) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    for (const auto& [name, set] : calls) {
        w.Key(name.c_str());
        w.StartObject();
        // bins[q] = [bases, errors] for printed quality q, at every value up to the highest seen.
        w.Key("bins");
        w.StartArray();
        for (std::size_t q = 0; q < set.bins.bases.size(); ++q) {
            w.StartArray();
            w.Uint64(set.bins.bases[q]);
            w.Double(set.bins.errors[q]);
            w.EndArray();
        }
        w.EndArray();
        w.Key("read_columns");
        w.StartArray();
        for (const char* column : {"read_id", "length", "aligned", "errors", "identity", "true_q", "reverse"}) {
            w.String(column);
        }
        w.EndArray();
        w.Key("reads");
        w.StartArray();
        for (const auto& r : set.reads) {
            const auto& c = r.counts;
            const std::size_t errors = c.mismatches + c.insertions + c.deletions;
            const std::size_t aligned = errors + c.matches;
            w.StartArray();
            w.String(r.id.c_str());
            w.Uint64(r.length);
            w.Uint64(aligned);
            w.Uint64(errors);
            w.Double(c.Identity());
            w.Double(PhredOf(static_cast<double>(errors), static_cast<double>(aligned)));
            w.Bool(r.reverse);
            w.EndArray();
        }
        w.EndArray();
        w.EndObject();
    }
    w.EndObject();
    std::ofstream out(path);
    out << buffer.GetString() << "\n";
    if (!out) {
        throw std::runtime_error("Cannot write \"" + path + "\".");
    }
}
}  // namespace

int main(int argc, char** argv) {
    try {
        std::string truthPath, pairsPath, jsonPath, jsonDetails;
        std::vector<std::string> single, pairCalls;
        po::options_description desc(
            "Usage: evaluate_calls --truth truth.fasta [--pairs truth_pairs.tsv] [--single calls.fastq ...]\n"
            "                      [--pair_calls pairs.fastq ...] [--json summary.json] [--details details.json]\n"
            "Aligns each call to its true sequence and prints count, median, mean and 10th-percentile\n"
            "identity and the Q-score of the median error for each set of calls.\n"
            "The details file holds, for each set, one row per call (id, length, aligned columns, errors,\n"
            "identity, true Q, orientation) and the bases binned by printed quality with the errors charged\n"
            "to them (a deleted truth base charges half to each call base beside it).\nOptions");
        desc.add_options()("help,h", "show this help")(
            "truth", po::value(&truthPath)->required(), "FASTA of the true read sequences (from the simulator)")(
            "pairs", po::value(&pairsPath), "true pairs (read_id1, read_id2); splits single calls into strand 1 and 2")(
            "single", po::value(&single)->multitoken(), "FASTQ/FASTA files of single-strand calls")(
            "pair_calls", po::value(&pairCalls)->multitoken(), "FASTQ files of pair calls")(
            "json", po::value(&jsonPath), "also write the summary as JSON to this file")(
            "details", po::value(&jsonDetails),
            "write per-read rows and per-base quality bins of each set of calls as JSON to this file");
        po::variables_map vm;
        po::store(po::parse_command_line(argc, argv, desc), vm);
        if (vm.count("help") || argc == 1) {
            std::cout << desc << std::endl;
            return 0;
        }
        po::notify(vm);

        const auto truth = loadTruth(truthPath);
        std::set<std::string> firstStrand, secondStrand;
        if (!pairsPath.empty()) {
            std::ifstream in(pairsPath);
            if (!in) {
                throw std::runtime_error("Cannot open pairs file \"" + pairsPath + "\".");
            }
            std::string line;
            while (std::getline(in, line)) {
                std::istringstream row(line);
                std::string a, b;
                if (row >> a >> b && a != "read_id1") {
                    firstStrand.insert(a);
                    secondStrand.insert(b);
                }
            }
        }

        std::map<std::string, CallSet> calls;
        std::size_t unknown = 0, badQuality = 0;
        const auto evaluate = [&](const SequenceRecord& rec, const std::string& setName) {
            const std::string* t = findTruth(truth, rec.id);
            if (!t) {
                ++unknown;
                return;
            }
            CallSet& set = calls[setName];
            if (jsonDetails.empty()) {
                set.identities.push_back(AlignToTruth(rec.sequence, *t).Identity());
                return;
            }
            const BaseCharges charged = ChargeBases(rec.sequence, *t);
            set.identities.push_back(charged.counts.Identity());
            if (!rec.quality.empty() && !set.bins.Add(rec.quality, charged.charges)) {
                ++badQuality;
            }
            set.reads.push_back({rec.id, rec.sequence.size(), charged.counts, charged.reverse});
        };
        for (const auto& path : single) {
            for (const auto& rec : ReadSequences(path)) {
                if (pairsPath.empty()) {
                    evaluate(rec, "single");
                } else {
                    evaluate(rec, firstStrand.count(rec.id)    ? "strand1"
                                  : secondStrand.count(rec.id) ? "strand2"
                                                               : "unpaired");
                }
            }
        }
        for (const auto& path : pairCalls) {
            for (const auto& rec : ReadSequences(path)) {
                evaluate(rec, "pairs");
            }
        }
        const auto identities = [&](const std::string& name) {
            const auto it = calls.find(name);
            return it == calls.end() ? std::vector<double>{} : it->second.identities;
        };

        std::vector<SetSummary> sets;
        if (!single.empty()) {
            if (!pairsPath.empty()) {
                sets.push_back(Summarise("strand1", identities("strand1")));
                sets.push_back(Summarise("strand2", identities("strand2")));
                sets.push_back(Summarise("unpaired", identities("unpaired")));
            } else {
                sets.push_back(Summarise("single", identities("single")));
            }
        }
        if (!pairCalls.empty()) {
            sets.push_back(Summarise("pairs", identities("pairs")));
        }
        std::cout << FormatTable(sets);
        if (unknown) {
            std::cout << unknown << " call(s) had no true sequence and were left out." << std::endl;
        }
        if (badQuality) {
            std::cout << badQuality << " call(s) had a quality string of another length than the sequence"
                      << " and were left out of the quality bins." << std::endl;
        }
        if (!jsonDetails.empty()) {
            writeDetails(jsonDetails, calls);
        }
        if (!jsonPath.empty()) {
            std::ofstream out(jsonPath);
            out << FormatJson(sets);
            if (!out) {
                throw std::runtime_error("Cannot write \"" + jsonPath + "\".");
            }
        }
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "evaluate_calls: " << e.what() << std::endl;
        return 1;
    }
}
