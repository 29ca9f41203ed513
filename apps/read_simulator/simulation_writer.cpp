#include "simulation_writer.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>

#include <boost/filesystem.hpp>

#include "data_api/attribute_map.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "data_api/read_data.h"

namespace TestBed {

namespace {
constexpr std::uint32_t kStartMux = 1;

std::string experimentStart(std::uint32_t runIndex) {
    // One run a day, from a fixed date, so that data sets are reproducible.
    char text[32];
    std::snprintf(text, sizeof(text), "2026-03-%02uT09:30:00Z", 1 + runIndex % 28);
    return text;
}
}  // namespace

SimulationWriter::SimulationWriter(WriterOptions options, DigitiserSettings digitiser, double sampling_rate,
                                   std::vector<std::string> run_ids)
    : m_options(std::move(options)), m_digitiser(digitiser), m_samplingRate(sampling_rate),
      m_runIds(std::move(run_ids)) {}

std::vector<WrittenRead> SimulationWriter::Write(const std::vector<SimulatedRead>& reads,
                                                 const std::vector<SimulatedPair>& pairs) {
    boost::filesystem::create_directories(boost::filesystem::path(m_options.output_dir) / "reads");
    std::vector<WrittenRead> placed;
    placed.reserve(reads.size());
    for (const auto& r : reads) {
        placed.push_back({"", &r});
    }
    writeReadFiles(placed);
    writeTruth(placed, pairs);
    return placed;
}

void SimulationWriter::writeReadFiles(std::vector<WrittenRead>& placed) {
    using DataAPI::AttributeMap;
    using DataAPI::ReadMetadata;
    std::mt19937_64 rng(m_options.seed ^ 0x5eedf11eULL);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    const auto readsDir = boost::filesystem::path(m_options.output_dir) / "reads";

    auto metadataOf = [&](const SimulatedRead& r) {
        ReadMetadata m;
        m["raw_data"] = AttributeMap{
            {"duration", static_cast<unsigned int>(r.raw.size())},
            {"read_number", static_cast<unsigned int>(r.read_number)},
            {"start_time", static_cast<unsigned long>(r.start_sample)},
            {"read_id", r.read_id},
            {"start_mux", static_cast<unsigned int>(kStartMux)},
            {"median_before", r.median_before},
        };
        m["channel_id"] = AttributeMap{
            {"digitisation", m_digitiser.digitisation},
            {"offset", m_digitiser.offset},
            {"range", m_digitiser.range},
            {"sampling_rate", m_samplingRate},
            {"channel_number", std::to_string(r.channel)},
        };
        m["tracking_id"] = AttributeMap{
            {"run_id", r.run_id},
            {"flow_cell_id", m_options.flow_cell_id},
            {"sample_id", m_options.sample_id},
            {"exp_start_time", experimentStart(r.run_index)},
            {"device_id", std::string("KVX-BENCH-01")},
        };
        m["context_tags"] = AttributeMap{
            {"experiment_type", std::string("genomic_dna")},
            {"sequencing_kit", std::string("kvx-lsk-q1")},
            {"sample_frequency", std::to_string(static_cast<long>(m_samplingRate))},
        };
        return m;
    };
    auto store = [&](DataAPI::ReadSource& source, const SimulatedRead& r) {
        auto read = source.AddRead(r.read_id);
        read->SetMetadata(metadataOf(r));
        read->SetRawData(r.raw);
    };

    std::map<std::uint32_t, std::pair<std::unique_ptr<DataAPI::Rawh5::ReadSource>, std::uint32_t>> openByRun;
    std::map<std::uint32_t, std::uint32_t> fileCount;
    for (auto& w : placed) {
        const SimulatedRead& r = *w.read;
        if (uniform(rng) < m_options.legacy_fraction) {
            char name[96];
            std::snprintf(name, sizeof(name), "run%u_ch%u_read%u.rawh5", r.run_index, r.channel, r.read_number);
            w.filename = name;
            DataAPI::Rawh5::ReadSource source((readsDir / name).string(), DataAPI::H5Wrapper::H5Mode::CreateTruncate,
                                              true);
            store(source, r);
            source.Close();
            continue;
        }
        auto& slot = openByRun[r.run_index];
        if (!slot.first || slot.second >= m_options.reads_per_file) {
            if (slot.first) {
                slot.first->Close();
            }
            char name[64];
            std::snprintf(name, sizeof(name), "run%u_batch%03u.rawh5", r.run_index, fileCount[r.run_index]++);
            slot.first = std::make_unique<DataAPI::Rawh5::ReadSource>(
                (readsDir / name).string(), DataAPI::H5Wrapper::H5Mode::CreateTruncate, false);
            slot.second = 0;
            m_currentName[r.run_index] = name;
        }
        w.filename = m_currentName[r.run_index];
        store(*slot.first, r);
        ++slot.second;
    }
    for (auto& entry : openByRun) {
        if (entry.second.first) {
            entry.second.first->Close();
        }
    }
}

void SimulationWriter::writeTruth(const std::vector<WrittenRead>& placed, const std::vector<SimulatedPair>& pairs) const {
    const auto dir = boost::filesystem::path(m_options.output_dir);
    std::ofstream fasta((dir / "truth.fasta").string());
    std::ofstream index((dir / "reference_index.tsv").string());
    index << "filename\tread_id\trun_id\tchannel\tmux\tstart_time\tduration\tsequence_length_template\tmolecule\tstrand\n";
    const std::string startsPath = (dir / "base_starts.tsv.gz").string();
    gzFile starts = gzopen(startsPath.c_str(), "wb6");
    if (!starts) {
        throw std::runtime_error("Cannot write " + startsPath);
    }
    gzputs(starts, "read_id\tstrand_start\tbase_start_deltas\n");
    for (const auto& w : placed) {
        const SimulatedRead& r = *w.read;
        fasta << '>' << r.read_id << " molecule=" << r.molecule << " strand=" << r.strand << '\n';
        for (std::size_t i = 0; i < r.sequence.size(); i += 80) {
            fasta << r.sequence.substr(i, 80) << '\n';
        }
        char line[512];
        std::snprintf(line, sizeof(line), "%s\t%s\t%s\t%u\t%u\t%.6f\t%.6f\t%zu\t%u\t%d\n", w.filename.c_str(),
                      r.read_id.c_str(), r.run_id.c_str(), r.channel, kStartMux,
                      static_cast<double>(r.start_sample) / m_samplingRate,
                      static_cast<double>(r.raw.size()) / m_samplingRate, r.sequence.size(), r.molecule, r.strand);
        index << line;
        // Base starts as differences from the previous base: small numbers that compress well.
        std::string row = r.read_id + "\t" + std::to_string(r.strand_start) + "\t";
        std::uint32_t previous = static_cast<std::uint32_t>(r.strand_start);
        for (std::size_t i = 0; i < r.base_starts.size(); ++i) {
            row += std::to_string(r.base_starts[i] - previous);
            row += (i + 1 < r.base_starts.size()) ? "," : "";
            previous = r.base_starts[i];
        }
        row += "\n";
        gzwrite(starts, row.data(), static_cast<unsigned>(row.size()));
    }
    gzclose(starts);
    std::ofstream pairFile((dir / "truth_pairs.tsv").string());
    pairFile << "read_id1\tread_id2\n";
    for (const auto& p : pairs) {
        pairFile << p.read_id1 << '\t' << p.read_id2 << '\n';
    }
    if (!fasta || !index || !pairFile) {
        throw std::runtime_error("Failed to write the truth files under " + dir.string());
    }
}

}  // namespace TestBed
