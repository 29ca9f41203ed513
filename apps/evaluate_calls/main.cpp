// evaluate_calls: identities of single-strand and pair calls against the simulator's truth.
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

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
}  // namespace

int main(int argc, char** argv) {
    try {
        std::string truthPath, pairsPath, jsonPath;
        std::vector<std::string> single, pairCalls;
        po::options_description desc(
            "Usage: evaluate_calls --truth truth.fasta [--pairs truth_pairs.tsv] [--single calls.fastq ...]\n"
            "                      [--pair_calls pairs.fastq ...] [--json summary.json]\n"
            "Aligns each call to its true sequence and prints count, median, mean and 10th-percentile\n"
            "identity and the Q-score of the median error for each set of calls.\nOptions");
        desc.add_options()("help,h", "show this help")(
            "truth", po::value(&truthPath)->required(), "FASTA of the true read sequences (from the simulator)")(
            "pairs", po::value(&pairsPath), "true pairs (read_id1, read_id2); splits single calls into strand 1 and 2")(
            "single", po::value(&single)->multitoken(), "FASTQ/FASTA files of single-strand calls")(
            "pair_calls", po::value(&pairCalls)->multitoken(), "FASTQ files of pair calls")(
            "json", po::value(&jsonPath), "also write the summary as JSON to this file");
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

        std::vector<double> strand1, strand2, other, pairs;
        std::size_t unknown = 0;
        for (const auto& path : single) {
            for (const auto& rec : ReadSequences(path)) {
                const std::string* t = findTruth(truth, rec.id);
                if (!t) {
                    ++unknown;
                    continue;
                }
                const double id = AlignToTruth(rec.sequence, *t).Identity();
                if (firstStrand.count(rec.id)) {
                    strand1.push_back(id);
                } else if (secondStrand.count(rec.id)) {
                    strand2.push_back(id);
                } else {
                    other.push_back(id);
                }
            }
        }
        for (const auto& path : pairCalls) {
            for (const auto& rec : ReadSequences(path)) {
                const std::string* t = findTruth(truth, rec.id);
                if (!t) {
                    ++unknown;
                    continue;
                }
                pairs.push_back(AlignToTruth(rec.sequence, *t).Identity());
            }
        }

        std::vector<SetSummary> sets;
        if (!single.empty()) {
            if (!pairsPath.empty()) {
                sets.push_back(Summarise("strand1", strand1));
                sets.push_back(Summarise("strand2", strand2));
                sets.push_back(Summarise("unpaired", other));
            } else {
                sets.push_back(Summarise("single", other));
            }
        }
        if (!pairCalls.empty()) {
            sets.push_back(Summarise("pairs", pairs));
        }
        std::cout << FormatTable(sets);
        if (unknown) {
            std::cout << unknown << " call(s) had no true sequence and were left out." << std::endl;
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
