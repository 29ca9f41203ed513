// read_simulator: a seeded data set of raw reads with their truth, for the test bed.
#include <fstream>
#include <iostream>
#include <string>

#include <boost/filesystem.hpp>
#include <boost/program_options.hpp>

#include "common/executable_path.h"
#include "common/kmer_table.h"
#include "read_simulator.h"
#include "simulation_writer.h"

namespace po = boost::program_options;
using namespace TestBed;

namespace {
std::string readFasta(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("Cannot open genome \"" + path + "\".");
    }
    std::string genome, line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '>') {
            continue;
        }
        for (char c : line) {
            const char u = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            if (u == 'A' || u == 'C' || u == 'G' || u == 'T') {
                genome.push_back(u);
            }
        }
    }
    return genome;
}
}  // namespace

int main(int argc, char** argv) {
    try {
        SimulatorOptions sim;
        DigitiserSettings digitiser;
        WriterOptions out;
        std::string genomePath, poreModel;
        const auto defaultModel = (Common::ExecutableDirectory().parent_path() / "data" / "pore_model_6mer.txt").string();
        po::options_description desc(
            "Usage: read_simulator --output DIR [options]\n"
            "Simulates raw reads of molecules (strand 1 and, for some, strand 2 right after it on the same\n"
            "channel) and writes .rawh5 read files under DIR/reads plus the truth: truth.fasta,\n"
            "truth_pairs.tsv, base_starts.tsv.gz and reference_index.tsv.\nOptions");
        desc.add_options()("help,h", "show this help")("output,o", po::value(&out.output_dir)->required(),
                                                        "output directory (created)")(
            "seed", po::value(&sim.seed)->default_value(1), "random seed; equal seeds give equal data sets")(
            "molecules", po::value(&sim.molecules)->default_value(200), "number of molecules")(
            "genome", po::value(&genomePath), "FASTA to draw molecules from (default: a random genome)")(
            "genome_length", po::value(&sim.genome_length)->default_value(500000), "length of the random genome")(
            "min_length", po::value(&sim.min_length)->default_value(2000), "shortest molecule, bases")(
            "max_length", po::value(&sim.max_length)->default_value(20000), "longest molecule, bases")(
            "pair_fraction", po::value(&sim.pair_fraction)->default_value(0.7),
            "share of molecules whose second strand follows")(
            "channels", po::value(&sim.channels)->default_value(64), "number of channels")(
            "runs", po::value(&sim.run_count)->default_value(2), "number of run ids")(
            "mean_dwell", po::value(&sim.mean_dwell)->default_value(9.0), "mean samples per base")(
            "dwell_shape", po::value(&sim.dwell_shape)->default_value(3.0),
            "gamma shape of a dwell beyond 1 sample")(
            "noise_scale", po::value(&sim.noise_scale)->default_value(1.0),
            "multiplies the noise around every level")(
            "drift_scale", po::value(&sim.drift_scale)->default_value(1.0),
            "multiplies the slow drift (1.5 pA)")(
            "drift_period_min", po::value(&sim.drift_period_min)->default_value(2000.0),
            "shortest drift period, samples")(
            "drift_period_max", po::value(&sim.drift_period_max)->default_value(8000.0),
            "longest drift period, samples")(
            "scale_spread", po::value(&sim.scale_spread)->default_value(0.04, "0.04"),
            "SD of each read's gain around 1")(
            "offset_spread", po::value(&sim.offset_spread)->default_value(3.0),
            "SD of each read's shift, pA")(
            "open_pore_min", po::value(&sim.open_pore_min)->default_value(400),
            "shortest open-pore stretch, samples")(
            "open_pore_max", po::value(&sim.open_pore_max)->default_value(1200),
            "open-pore stretch upper bound, samples")(
            "leader_dwell_factor", po::value(&sim.leader_dwell_factor)->default_value(0.5),
            "adapter 6-mer dwell / a base's dwell")(
            "digitisation_offset", po::value(&digitiser.offset)->default_value(12.0),
            "digitiser offset, a whole number")(
            "digitisation_range", po::value(&digitiser.range)->default_value(1402.0),
            "digitiser range, pA")(
            "no_adapter", "leave out the open-pore and adapter stretch before each strand")(
            "reads_per_file", po::value(&out.reads_per_file)->default_value(40), "reads per multi-read file")(
            "legacy_fraction", po::value(&out.legacy_fraction)->default_value(0.1),
            "share of reads written as legacy single-read files")(
            "pore_model", po::value(&poreModel)->default_value(defaultModel), "6-mer level table");
        po::variables_map vm;
        po::store(po::parse_command_line(argc, argv, desc), vm);
        if (vm.count("help") || argc == 1) {
            std::cout << desc << std::endl;
            return 0;
        }
        po::notify(vm);
        sim.adapter = vm.count("no_adapter") == 0;
        out.seed = sim.seed;

        Common::KmerTable table;
        table.Read(poreModel, 6);
        PoreLevels levels{table.level_mean, table.level_stdv};
        ReadSimulator simulator(sim, digitiser, levels, genomePath.empty() ? "" : readFasta(genomePath));
        std::vector<SimulatedPair> pairs;
        const auto reads = simulator.Run(pairs);
        SimulationWriter writer(out, digitiser, sim.sampling_rate, simulator.RunIds());
        writer.Write(reads, pairs);
        std::uint64_t samples = 0;
        for (const auto& r : reads) {
            samples += r.raw.size();
        }
        std::cout << "Simulated " << sim.molecules << " molecules: " << reads.size() << " reads, " << pairs.size()
                  << " true pairs, " << samples << " samples, in " << out.output_dir << std::endl;
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "read_simulator: " << e.what() << std::endl;
        return 1;
    }
}
