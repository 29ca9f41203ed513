// estimate_mismatch_table: the label mismatch table of the prior aligner, estimated from the
// single-strand calls of simulated true pairs (see mismatch_estimator.h for the method).
#include <fstream>
#include <iostream>
#include <string>

#include <boost/filesystem.hpp>
#include <boost/program_options.hpp>

#include "mismatch_estimator.h"

namespace po = boost::program_options;
namespace fs = boost::filesystem;
using namespace TestBed;

int main(int argc, char** argv) {
    try {
        std::string truthDir, indexPath, inputPath, outputPath;
        double pseudocount = 0.5;
        po::options_description desc(
            "Usage: estimate_mismatch_table --truth_dir DIR --index FILE --output FILE [options]\n"
            "\n"
            "Estimates the 64 x 64 label mismatch table of the prior aligner from single-strand calls of the\n"
            "true pairs of a simulated data set. Run basecaller_1d on the data set first. The truth directory\n"
            "is the read simulator's output (truth_pairs.tsv, base_starts.tsv.gz, reads/). Row a of the table\n"
            "is the distribution of the strand-2 label given strand-1 label a (rows sum to 1, no zeros);\n"
            "the file has a column \"prob\" of 4096 values, row-major.\n"
            "\nOptions");
        desc.add_options()("help,h", "show this help")(
            "truth_dir", po::value(&truthDir)->required(), "read simulator output directory")(
            "index", po::value(&indexPath)->required(), "index written by basecaller_1d (filename, read_id)")(
            "input_path", po::value(&inputPath), "directory of the annotated read files (default: TRUTH_DIR/reads)")(
            "output,o", po::value(&outputPath)->required(), "table to write")(
            "pseudocount", po::value(&pseudocount)->default_value(0.5),
            "weight added to every cell before the rows are normalised");
        po::variables_map vm;
        po::store(po::parse_command_line(argc, argv, desc), vm);
        if (vm.count("help") || argc == 1) {
            std::cout << desc << std::endl;
            return 0;
        }
        po::notify(vm);
        if (inputPath.empty()) {
            inputPath = (fs::path(truthDir) / "reads").string();
        }

        const TruthEstimate estimate = EstimateFromTruth(truthDir, indexPath, inputPath);
        for (const auto& message : estimate.skipped) {
            std::cerr << "Skipping " << message << std::endl;
        }
        const MismatchCounts& counts = estimate.counts;
        const std::size_t skipped = estimate.skipped.size();
        if (counts.Pairs() == 0) {
            throw std::runtime_error("No true pair could be used; has basecaller_1d annotated the reads?");
        }
        const auto table = counts.ConditionalTable(pseudocount);
        std::ofstream out(outputPath);
        WriteMismatchTable(out, table);
        out.close();
        if (!out) {
            throw std::runtime_error("Could not write \"" + outputPath + "\".");
        }
        double diagonal = 0.0;
        for (int a = 0; a < MismatchCounts::kLabels; ++a) {
            diagonal += counts.Weight(a, a);
        }
        std::cout << "Estimated from " << counts.Pairs() << " pairs (" << skipped << " skipped), "
                  << static_cast<std::uint64_t>(counts.TotalWeight()) << " matched blocks; labels agree in "
                  << 100.0 * diagonal / counts.TotalWeight() << "% of them. Table written to " << outputPath
                  << std::endl;
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "estimate_mismatch_table: " << e.what() << std::endl;
        return 1;
    }
}
