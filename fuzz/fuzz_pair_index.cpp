// The index of the single-strand run, read the way a pair run reads it: the table reader, the
// required columns, the rows matched against the read files of the input folder, and the pairing
// of neighbouring reads of one pore.

#include <cmath>

#include "fuzz_support.h"
#include "pair_list.h"

namespace {

// An input folder with a few empty read files: rows naming one of them are kept and paired, any
// other row is passed over, as in a run whose folder lacks some files of the index.
const std::string& readFolder() {
    static const std::string dir = [] {
        const std::string path = fuzz::ScratchDir() + "/reads";
        std::filesystem::create_directories(path);
        for (const char* name : {"a.rawh5", "b.rawh5", "c.rawh5", "run0_batch000.rawh5", "run0_ch25_read2.rawh5"}) {
            std::ofstream(path + "/" + name);
        }
        return path;
    }();
    return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string& reads = readFolder();
    const std::string index = fuzz::WriteScratchFile("index.tsv", data, size);
    std::size_t candidates = 0;
    const Marlo::PairCandidateObserver observer = [&](const Marlo::PairCandidate& c) {
        // What telemetry does with a candidate: plain arithmetic on every field.
        candidates += std::isfinite(c.gap + c.end_time + static_cast<double>(c.length_ratio)) ? 1 : 0;
        candidates += c.run_id.size() % 2;
    };
    fuzz::Try([&] {
        for (const auto& pair : Marlo::FindReadPairs(index, reads, false, observer)) {
            fuzz::Check(!pair.filename1.empty() && !pair.filename2.empty(), "a pair names two read files");
        }
    });
    return 0;
}
