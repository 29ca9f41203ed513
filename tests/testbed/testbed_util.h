#pragma once
// Shared by the test-bed tests; pairs as a set of id pairs compare with the truth in any order.

#include <set>
#include <string>
#include <utility>

#include "../common/test_support.h"
#include "common/kmer_table.h"
#include "read_simulator.h"

namespace TestBed {

inline PoreLevels ShippedLevels() {
    Common::KmerTable table;
    table.Read(std::string(KVX_SOURCE_DIR) + "/data/pore_model_6mer.txt", 6);
    return {table.level_mean, table.level_stdv};
}

inline SimulatorOptions SmallSet(std::uint64_t seed, std::uint32_t molecules, std::uint32_t minLength,
                                 std::uint32_t maxLength, std::uint32_t genomeLength = 5000) {
    SimulatorOptions o;
    o.seed = seed;
    o.molecules = molecules;
    o.min_length = minLength;
    o.max_length = maxLength;
    o.genome_length = genomeLength;
    return o;
}

template <typename Pairs>
std::set<std::pair<std::string, std::string>> IdPairs(const Pairs& pairs) {
    std::set<std::pair<std::string, std::string>> ids;
    for (const auto& p : pairs) ids.insert({p.read_id1, p.read_id2});
    return ids;
}

}  // namespace TestBed
