#pragma once
// Shared by the test-bed tests: the shipped pore levels the simulator draws from, and pairs as a set
// of read-id pairs, so that a pairing can be compared with the truth whatever order it comes in.

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

template <typename Pairs>
std::set<std::pair<std::string, std::string>> IdPairs(const Pairs& pairs) {
    std::set<std::pair<std::string, std::string>> ids;
    for (const auto& p : pairs) {
        ids.insert({p.read_id1, p.read_id2});
    }
    return ids;
}

}  // namespace TestBed
