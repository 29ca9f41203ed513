#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "basecall_1d2_params.h"

using Common::Parameters;
using Marlo::Basecall1D2Params;

namespace {

std::uint32_t Parse(Basecall1D2Params& params, std::vector<std::string> args, std::istream* config = nullptr) {
    args.insert(args.begin(), "prog");
    std::vector<const char*> argv;
    for (const auto& arg : args) argv.push_back(arg.c_str());
    return params.ParseArguments(config, "", static_cast<int>(argv.size()), argv.data(), "");
}


}  // namespace

TEST(Basecall1D2Params, OwnOptionsFollowTheFamilyOnesWithTheirSources) {
    // B both, L command line, S switch, R required on the command line.
    const std::vector<std::pair<std::string, char>> own = {
        {"score_matrix", 'B'}, {"records_per_fastq", 'B'}, {"winsize1", 'B'}, {"winsize2", 'B'},
        {"threshold1", 'B'}, {"threshold2", 'B'}, {"band_size", 'B'}, {"pa_band_size", 'B'},
        {"gap_penalty", 'B'}, {"start_end_penalty", 'B'}, {"reverse_sequence", 'B'}, {"u_substitution", 'B'},
        {"input_path", 'B'}, {"index_file", 'R'}, {"save_path", 'R'}, {"port", 'L'}, {"recursive", 'S'},
        {"override_scaling", 'S'}, {"scaling_med", 'L'}, {"scaling_mad", 'L'}, {"resume", 'S'},
        {"compress_fastq", 'S'},
    };
    Basecall1D2Params params;
    Parse(params, {"-f", "index.txt", "-s", "out"});
    const auto& names = params.OptionNames();
    ASSERT_EQ(names.size(), 36u + own.size());
    EXPECT_EQ(names.front(), "print_workflows");
    for (std::size_t i = 0; i < own.size(); ++i) {
        EXPECT_EQ(names[36 + i], own[i].first);
        EXPECT_EQ(params.IsConfigOption(own[i].first), own[i].second == 'B') << own[i].first;
    }
    EXPECT_TRUE(params.IsConfigOption("ipc_threads"));
    for (const auto& [name, value] : std::vector<std::pair<std::string, std::string>>{
             {"records_per_fastq", "4000"}, {"band_size", "5"}, {"pa_band_size", "1000"}, {"gap_penalty", "500"},
             {"start_end_penalty", "300"}, {"threshold1", "0.000000"}}) {
        EXPECT_EQ(params.PrintOption(name), value) << name;
    }
    EXPECT_FALSE(params.use_service);
    // No limit on records per file is a value of its own, not a parse failure.
    Basecall1D2Params zero;
    EXPECT_EQ(Parse(zero, {"-q", "0", "-f", "index.txt", "-s", "out"}), 0u) << zero.ErrorText();
    EXPECT_EQ(zero.records_per_fastq, 0u);
}

TEST(Basecall1D2Params, ConfigFileAndCommandLine) {
    std::istringstream config(
        "chunk_size = 600\nrecords_per_fastq = 0\nipc_threads = 8\nscaling_med = 90\nindex_file = idx\n"
        "gap_penalty = -4\nreverse_sequence = true\n");
    Basecall1D2Params params;
    const auto flags = Parse(params, {"--chunk_size", "700", "-s", "out", "-q", "12", "-r", "--scaling_mad", "2.5",
                                      "-p", "host:5555", "-i", "reads"},
                             &config);
    EXPECT_EQ(flags, static_cast<std::uint32_t>(Parameters::ParseFailed | Parameters::UnexpectedOption));
    EXPECT_EQ(params.chunk_size, 700u);
    EXPECT_EQ(params.records_per_fastq, 12u);
    EXPECT_EQ(params.gap_penalty, -4);
    EXPECT_TRUE(params.reverse_sequence);
    EXPECT_TRUE(params.recursive);
    EXPECT_FLOAT_EQ(params.scaling_mad, 2.5f);
    EXPECT_FLOAT_EQ(params.scaling_med, 0.0f);
    EXPECT_EQ(params.port, "host:5555");
    EXPECT_EQ(params.input_path, "reads");
    EXPECT_EQ(params.index_file, "");
    // Command-line-only options are unexpected in a file; a required one is then also missing.
    EXPECT_EQ(params.MessageText(),
              "Unexpected option 'scaling_med' found in configuration file.\n"
              "Unexpected option 'index_file' found in configuration file.\n");
    EXPECT_EQ(params.ErrorText(), "Missing required option 'index_file'.\n");
}
