#pragma once
// Writes a simulated data set: read files through the project's own read-file writer, and the truth
// (sequences, pairs, base starts, reference index) beside them.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "read_simulator.h"

namespace TestBed {

struct WriterOptions {
    std::string output_dir;
    std::uint32_t reads_per_file = 40;   // multi-read files
    double legacy_fraction = 0.1;        // share of reads written as legacy single-read files
    std::uint64_t seed = 1;
    std::string flow_cell_id = "KVX-FC0417";
    std::string sample_id = "testbed_sample";
};

struct WrittenRead {
    std::string filename;  // file name only; files sit in <output_dir>/reads
    const SimulatedRead* read = nullptr;
};

class SimulationWriter {
public:
    SimulationWriter(WriterOptions options, DigitiserSettings digitiser, double sampling_rate,
                     std::vector<std::string> run_ids);

    // Writes everything and returns where each read went.
    std::vector<WrittenRead> Write(const std::vector<SimulatedRead>& reads, const std::vector<SimulatedPair>& pairs);

private:
    void writeReadFiles(std::vector<WrittenRead>& placed);
    void writeTruth(const std::vector<WrittenRead>& placed, const std::vector<SimulatedPair>& pairs) const;

    WriterOptions m_options;
    DigitiserSettings m_digitiser;
    double m_samplingRate;
    std::vector<std::string> m_runIds;
    std::map<std::uint32_t, std::string> m_currentName;  // multi-read file being filled, per run
};

}  // namespace TestBed
