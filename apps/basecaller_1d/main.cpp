// basecaller_1d: the single-strand step. It annotates raw read files the way the earlier single-strand
// run that the pair caller builds on would have: segmentation, moves and calls in every read, and an
// index of the reads for pairing.
#include <cstdio>
#include <iostream>
#include <string>

#include <boost/filesystem.hpp>
#include <boost/program_options.hpp>

#include "common/executable_path.h"
#include "common/logger.h"
#include "common/logger_group.h"
#include "single_strand_run.h"
#include "common/stop_signals.h"

namespace po = boost::program_options;
using namespace TestBed;

namespace {

// A default as the help shows it: "4.6", not the float's full "4.5999999".
std::string shortText(float value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", value);
    return text;
}
constexpr int kExitFailedReads = 2;

Common::logging::LoggerOptions logOptions(const std::string& save_path, bool verbose) {
    using Common::logging::Loggers;
    using Severity = Common::logging::attributes::SeverityLevel;
    Common::logging::LoggerOptions options;
    auto& err = options.Sink(Loggers::StdErr);
    err.enabled = true;
    err.severities = {Severity::warning, Severity::error};
    err.severity = true;
    options.Sink(Loggers::StdOut).enabled = false;
    auto& file = options.Sink(Loggers::CoreFile);
    file.enabled = true;
    file.timestamp = true;
    file.severity = true;
    file.severities = {Severity::message, Severity::info, Severity::warning, Severity::error};
    if (verbose) {
        file.severities.push_back(Severity::verbose);
    }
    options.log_path = save_path;
    options.core_file_name = "basecaller_1d";
    return options;
}
}  // namespace

int main(int argc, char** argv) {
    try {
        SingleStrandOptions opt;
        const auto dataDir = Common::ExecutableDirectory().parent_path() / "data";
        const std::string defaultModel = (dataDir / "model_raw_r1_gru96x4.json").string();
        po::options_description desc(
            "Usage: basecaller_1d --input_path DIR --save_path DIR [options]\n"
            "\n"
            "Calls every read of the .rawh5 files in DIR on its own (single strand) and writes the results\n"
            "back into each read, as the pair caller expects to find them:\n"
            "  Analyses/Segmentation_NNN  Summary/segmentation: first_sample_template, duration_template\n"
            "  Analyses/Basecall_1D_NNN   BaseCalled_template/Move, BaseCalled_template/Fastq,\n"
            "                             Summary/basecall_1d_template: block_stride\n"
            "NNN is the next free index; running again adds newer analyses, which are the ones read later.\n"
            "\n"
            "A read file is never written where it lies: each is copied to a hidden temporary file beside\n"
            "it (.NAME.rawh5.partial-PID), annotated there and renamed over the original once complete, so a\n"
            "stop at any moment leaves every read file whole. With --output_path the annotated copies go\n"
            "to that folder instead (same subfolders, same names) and the input is only read; give the\n"
            "pair caller that folder as its --input_path. Temporary files of a killed run are removed\n"
            "by the next run.\n"
            "\n"
            "In the save path it writes:\n"
            "  index_1d.tsv       the index for pairing (the pair caller's --index_file): filename, read_id,\n"
            "                     run_id, channel, start_time, duration, sequence_length_template,\n"
            "                     mean_qscore_template and more\n"
            "  calls_1d.fastq     every call, for evaluate_calls --single\n"
            "  failed_reads.tsv   reads that could not be loaded, called or written, with the reason\n"
            "  basecaller_1d_log-*.log (the run's log)\n"
            "\n"
            "The strand is found after the open-pore stretch (current far above the end of the read) by\n"
            "skipping the leader, --adapter_samples long. Signal is scaled to picoamperes and normalised by\n"
            "the median and MAD of the whole read before the network runs.\n"
            "\n"
            "Outputs reach the disk as each read file is finished. SIGINT or SIGTERM stops the run after\n"
            "the reads in hand, with their files in place and their outputs written (a second signal ends\n"
            "it at once); --resume with the same input and save path then finishes it.\n"
            "\n"
            "Exit status: 0 when every read was annotated, 2 when some reads failed (listed), 130 or 143\n"
            "when stopped by SIGINT or SIGTERM with reads left, 1 on an error that stopped the run.\n"
            "\nOptions");
        desc.add_options()("help,h", "show this help")(
            "input_path,i", po::value(&opt.input_path)->required(), "directory of .rawh5 read files")(
            "recursive,r", po::bool_switch(&opt.recursive), "also look in subdirectories of the input path")(
            "save_path,s", po::value(&opt.save_path)->required(), "directory for the index, FASTQ and logs (created)")(
            "output_path", po::value(&opt.output_path),
            "write the annotated read files to this directory (created) and leave the input files as they are")(
            "resume", po::bool_switch(&opt.resume),
            "finish a stopped run: keep the outputs in the save path, repair a last record cut short, and call "
            "only the reads they lack (reads listed as failed are not tried again)")(
            "model_file,m", po::value(&opt.model_file)->default_value(defaultModel),
            "raw network model (JSON, either dialect)")(
            "workers,t", po::value(&opt.workers)->default_value(2), "calling threads")(
            "max_reads", po::value(&opt.max_reads)->default_value(0), "stop after this many reads (0: all)")(
            "quiet,q", "no progress line")(
            "verbose", "more detail in the log file");
        po::options_description calling("Calling");
        calling.add_options()(
            "qscore_offset", po::value(&opt.call.qscore_offset)->default_value(TestBed::kCalibratedQscoreOffset, shortText(TestBed::kCalibratedQscoreOffset)),
            "added to every quality score (the default is fitted to the shipped model)")(
            "qscore_scale", po::value(&opt.call.qscore_scale)->default_value(TestBed::kCalibratedQscoreScale, shortText(TestBed::kCalibratedQscoreScale)),
            "multiplies every quality score (the default is fitted to the shipped model)")(
            "stay_penalty", po::value(&opt.call.stay_penalty)->default_value(1.0f),
            "scales the model's stay probability (1: neutral)")(
            "homopolymer_correct", po::bool_switch(&opt.call.homopolymer_correct),
            "recount bases inside homopolymer runs from their dwell");
        po::options_description segmentation("Segmentation");
        segmentation.add_options()(
            "adapter_samples", po::value(&opt.segmenter.adapter_samples)->default_value(230),
            "leader samples skipped after the open pore")(
            "open_pore_step", po::value(&opt.segmenter.min_open_pore_step)->default_value(40.0),
            "pA above the level at the end of the read that mark its start as open pore")(
            "open_pore_quiet", po::value(&opt.segmenter.quiet_samples)->default_value(50),
            "samples in a row below the open-pore threshold that end the open pore");
        desc.add(calling).add(segmentation);

        po::variables_map vm;
        po::store(po::parse_command_line(argc, argv, desc), vm);
        if (vm.count("help") || argc == 1) {
            std::cout << desc << std::endl;
            return 0;
        }
        po::notify(vm);
        opt.progress = vm.count("quiet") == 0;

        boost::filesystem::create_directories(opt.save_path);
        Common::logging::LoggerGroup logs(logOptions(opt.save_path, vm.count("verbose") > 0));
        Common::StopSignals::Install();
        opt.stop = &Common::StopSignals::Received();
        SingleStrandRun run(opt);
        const auto summary = run.Run();
        std::cout << "Annotated " << summary.annotated << " of " << summary.reads << " reads (" << summary.bases
                  << " bases) in " << summary.seconds << " s";
        if (summary.skipped > 0) {
            std::cout << "; " << summary.skipped << " done before";
        }
        if (summary.left > 0) {
            std::cout << "; " << summary.left << " left";
        }
        std::cout << "; index " << opt.save_path << "/" << SingleStrandRun::kIndexName << ", calls " << opt.save_path
                  << "/" << SingleStrandRun::kFastqName << std::endl;
        if (summary.stopped_by != 0) {
            return 128 + summary.stopped_by;
        }
        if (summary.failed > 0) {
            std::cerr << summary.failed << " reads failed; they are listed in " << opt.save_path << "/"
                      << SingleStrandRun::kFailedName << std::endl;
            return kExitFailedReads;
        }
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "basecaller_1d: " << e.what() << std::endl;
        return 1;
    }
}
