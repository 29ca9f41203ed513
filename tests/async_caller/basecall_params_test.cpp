#include "test_util.h"
#include "async_caller/basecall_params.h"

using AsyncCaller::BasecallParams;
using Common::Parameters;

namespace {

std::uint32_t Parse(BasecallParams& params, const std::vector<std::string>& args, std::istream* config = nullptr) {
    std::vector<const char*> argv = {"prog"};
    for (const auto& arg : args) argv.push_back(arg.c_str());
    return params.ParseArguments(config, "", static_cast<int>(argv.size()), argv.data(), "");
}

// Option, source: B both, L command line, F file, S switch.
const std::vector<std::pair<std::string, char>> kOptions = {
    {"print_workflows", 'S'}, {"compatible_flowcells", 'F'}, {"compatible_kits", 'F'},
    {"compatible_kits_with_barcoding", 'F'}, {"flowcell", 'L'}, {"kit", 'L'}, {"model_file", 'B'},
    {"chunk_size", 'B'}, {"chunks_per_runner", 'B'}, {"chunks_per_caller", 'B'}, {"overlap", 'B'},
    {"gpu_runners_per_device", 'B'}, {"cpu_threads_per_caller", 'B'}, {"num_callers", 'B'},
    {"stay_penalty", 'B'}, {"qscore_offset", 'B'}, {"qscore_scale", 'B'}, {"temp_weight", 'B'},
    {"temp_bias", 'B'}, {"hp_correct", 'B'}, {"builtin_scripts", 'B'}, {"device", 'L'}, {"kernel_path", 'L'},
    {"quiet", 'S'}, {"trace_categories_logs", 'B'}, {"verbose_logs", 'S'}, {"qscore_filtering", 'S'},
    {"min_qscore", 'B'}, {"disable_pings", 'S'}, {"ping_url", 'B'}, {"ping_segment_duration", 'B'},
    {"calib_detect", 'S'}, {"calib_reference", 'B'}, {"calib_min_sequence_length", 'B'},
    {"calib_max_sequence_length", 'B'}, {"calib_min_coverage", 'B'},
};

}  // namespace

TEST(BasecallParams, OptionsInTheirOrderEachKnownExactlyWhereItIsDeclared) {
    BasecallParams defaults;
    defaults.InitOptions();
    const auto names = defaults.OptionNames();
    ASSERT_EQ(names.size(), kOptions.size());
    // Printed defaults the user sees are checked in the run header; two here for the number formats.
    EXPECT_EQ(defaults.PrintOption("chunk_size") + " " + defaults.PrintOption("min_qscore"), "1000 7.000000");
    for (std::size_t i = 0; i < kOptions.size(); ++i) {
        const auto& option = kOptions[i];
        EXPECT_EQ(names[i], option.first);
        for (const bool inFile : {true, false}) {
            BasecallParams params;
            std::istringstream config(option.first + " = 1\n");
            std::vector<std::string> args = {"--num_callers", "1"};
            if (!inFile) args = {"--" + option.first};
            if (!inFile && option.second != 'S') args.push_back("1");
            const auto flags = Parse(params, args, inFile ? &config : nullptr);
            const bool known = inFile ? option.second == 'B' || option.second == 'F' : option.second != 'F';
            EXPECT_EQ((flags & Parameters::UnexpectedOption) == 0, known) << option.first << " " << inFile;
            EXPECT_TRUE(params.ErrorText().empty()) << option.first << ": " << params.ErrorText();
        }
    }
}

TEST(BasecallParams, ShortNamesSwitchesAndZeroCounts) {
    BasecallParams params;
    const auto flags = Parse(params, {"-m", "model.json", "-x", "auto", "-k", "kernels", "-z", "--verbose_logs",
                                      "--hp_correct", "0"});
    EXPECT_EQ(flags, 0u) << params.ErrorText() << params.MessageText();
    EXPECT_EQ(TestSupport::Fields(params.model_file, params.device, params.kernel_path, params.quiet,
                                  params.verbose_logs, params.hp_correct),
              "model.json auto kernels 1 1 0");
    // A zero count fails validation, which logs the failure instead of adding it to the error text.
    for (const char* option : {"--num_callers", "--cpu_threads_per_caller", "--gpu_runners_per_device"}) {
        BasecallParams zero;
        EXPECT_EQ(Parse(zero, {option, "0"}), static_cast<std::uint32_t>(Parameters::ParseFailed)) << option;
        EXPECT_TRUE(zero.ErrorText().empty());
    }
}
