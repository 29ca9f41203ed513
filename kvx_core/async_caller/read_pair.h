#pragma once

#include <string>

namespace AsyncCaller {

// Two reads of one molecule, as found in the index: the earlier read is strand 1.
struct ReadPair {
    std::string filename1;
    std::string filename2;
    std::string read_id1;
    std::string read_id2;
};

inline bool operator==(const ReadPair& a, const ReadPair& b) {
    return a.filename1 == b.filename1 && a.filename2 == b.filename2 && a.read_id1 == b.read_id1 &&
           a.read_id2 == b.read_id2;
}

}  // namespace AsyncCaller
