#include "basecaller_1d2.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <stdexcept>
#include <thread>

#include <boost/filesystem/path.hpp>

#include "async_caller/buffered_caller.h"
#include "async_caller/output_resume.h"
#include "async_caller/prior_aligner.h"
#include "async_caller/summary_values.h"
#include "async_caller/trim_in_fastq_out.h"
#include "basecall_nn/basecall_config.h"
#include "common/logger.h"
#include "decoders/mismatch_table.h"
#include "pair_list.h"
#include "common/stop_signals.h"
#include "telemetry/telemetry_aggregator.h"
#include "version.h"

namespace Marlo {

namespace {

std::int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Milliseconds are always whole nanoseconds divided down, truncated.
std::int64_t steadyMilliseconds() { return steadyNanoseconds() / 1000000; }

// Height of the peaks the event detector of an event model looks for.
constexpr float kPeakHeight = 0.2f;

}  // namespace

Basecaller1D2::Basecaller1D2(const Basecall1D2Params& params) : Basecall1D2Params(params) {}

Basecaller1D2::~Basecaller1D2() {
    // The handler's loading thread reports loaded pairs to the telemetry, which dies first; stop the
    // thread before any member goes. (The workers that report finished pairs end with the parallel
    // caller, which dies before the telemetry.)
    if (data_handler) {
        data_handler->JoinWorkerThread();
    }
}

void Basecaller1D2::Setup() {
    const std::int64_t setup_start_ms = steadyMilliseconds();
    callers.assign(num_callers, nullptr);

    telemetry = std::make_unique<TelemetryAggregator>(kVersion, *this, save_path, true);

    BasecallNN::BasecallConfigManager config_manager;
    BasecallNN::BasecallSettings settings;
    settings.model_file = model_file;
    settings.qscore_offset = qscore_offset;
    settings.qscore_scale = qscore_scale;
    settings.temp_weight = temp_weight;
    settings.temp_bias = temp_bias;
    settings.stay_penalty = stay_penalty;
    settings.hp_correct = hp_correct;
    auto config = std::make_shared<BasecallNN::BasecallConfig>("", settings);
    if (!config->raw_model) {
        config->event_stride = winsize1;
    }
    config_manager.AddConfig(config);

    if (cpu_mode) {
        for (auto& caller : callers) {
            auto buffered = std::make_shared<AsyncCaller::BufferedCaller>(
                cpu_threads_per_caller, chunk_size, config, overlap, chunks_per_caller, static_cast<int>(band_size));
            if (!config->raw_model) {
                buffered->SetEventDetection(winsize1, winsize2, threshold1, threshold2, kPeakHeight);
            }
            caller = buffered;
        }
    }
    // Service mode makes no caller (this program has no remote one), and neither does a run with
    // num_callers 0: both end here.
    if (callers.empty() || !callers.front()) {
        KVX_LOG(error) << "Basecallers not initialised correctly.";
        throw std::runtime_error("Basecallers not initialised correctly.");
    }

    summary_path = (boost::filesystem::path(save_path) / "sequencing_summary.txt").string();
    summary_columns = AsyncCaller::PairSummaryColumns();

    // The outputs of an earlier run are either taken up (--resume) or never overwritten unasked.
    AsyncCaller::ResumeReport resumed;
    if (resume) {
        resumed = AsyncCaller::RepairOutputs(save_path, summary_path, summary_columns, compress_fastq);
    } else if (const std::uint64_t rows = AsyncCaller::CountSummaryRows(summary_path)) {
        throw std::runtime_error("The save path '" + save_path + "' already holds the outputs of a run (" +
                                 std::to_string(rows) +
                                 " pairs in sequencing_summary.txt). Add --resume to call only the pairs it lacks, "
                                 "or choose another save path to start again.");
    }

    TelemetryAggregator* const run_telemetry = telemetry.get();
    post_processor = std::make_unique<AsyncCaller::TrimInFastqOut>(
        save_path, records_per_fastq, num_callers, scaling_med, scaling_mad, summary_path, summary_columns, "none",
        !override_scaling, min_qscore, qscore_filtering,
        [run_telemetry](const AsyncCaller::ReadHolder& read) { run_telemetry->AddCalledRead(read); },
        resume, compress_fastq);

    const PairAlignment::MismatchMatrix mismatch = PairAlignment::LoadMismatchMatrix(score_matrix);
    const AsyncCaller::PriorAligner aligner(mismatch.View(), gap_penalty, start_end_penalty,
                                            static_cast<int>(pa_band_size));

    const std::uint32_t sequence_flags = (u_substitution ? 1u : 0u) + (reverse_sequence ? 2u : 0u);

    const std::uint64_t stride = config->raw_model ? config->model_stride : config->event_stride;
    data_handler = std::make_unique<AsyncCaller::FileDataHandlerMD>(
        stride, aligner, static_cast<int>(num_callers), post_processor.get(), sequence_flags,
        [run_telemetry](float sampling_rate, const DataAPI::ReadMetadata& metadata, std::uint64_t duration,
                        std::uint64_t start_time) {
            run_telemetry->AddRead(sampling_rate, metadata, duration, start_time);
        });

    GetFileList();
    if (resume) {
        const std::size_t listed = pairs.size();
        pairs.erase(std::remove_if(pairs.begin(), pairs.end(),
                                   [&](const AsyncCaller::ReadPair& p) {
                                       return resumed.done.count({p.read_id1, p.read_id2}) != 0;
                                   }),
                    pairs.end());
        KVX_LOG(message) << "Resuming the run in " << save_path << ": " << listed - pairs.size() << " of " << listed
                         << " pairs already have a summary row and are skipped; " << resumed.records_removed
                         << " cut or unmatched FASTQ records and " << resumed.rows_removed
                         << " cut summary rows were removed.";
    }
    for (const auto& pair : pairs) {
        data_handler->SubmitFilePair(pair);
    }
    data_handler->NoMoreData();

    start_time_ms = steadyMilliseconds();
    KVX_LOG(message) << "Init time: " << (start_time_ms - setup_start_ms) << " ms";
}

void Basecaller1D2::GetFileList() { pairs = Marlo::GetFileList(index_file, input_path, recursive, telemetry.get()); }

void Basecaller1D2::Run() {
    const std::int64_t t0 = steadyNanoseconds();
    const std::uint64_t pair_count = pairs.size();
    if (!quiet) {
        // An empty run still draws a bar, of one item.
        progress = std::make_unique<boost::timer::progress_display>(pair_count == 0 ? 1 : pair_count, std::cout,
                                                                    "\n", "", "");
    }

    parallel_caller = std::make_unique<AsyncCaller::ParallelCaller>(data_handler.get(), this, callers);
    std::uint64_t seen = 0;
    while (parallel_caller->IsRunning()) {
        if (stopped_by == 0 && (stopped_by = Common::StopSignals::Received().load()) != 0) {
            data_handler->Stop();
            KVX_LOG(message) << "Signal " << stopped_by << " received: no new pair is started; the pairs being called "
                             << "are finished. A second signal ends the program at once.";
        }
        const std::uint64_t done = data_handler->ReadsDone();
        if (done > seen) {
            if (progress) {
                *progress += done - seen;
            }
            seen = done;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (progress) {
        // Pairs dropped on the way never count as done; fill the bar up all the same.
        if (pair_count > seen) {
            *progress += pair_count - seen;
        }
        progress.reset();
    }

    const std::int64_t t1 = steadyNanoseconds();
    const std::uint64_t events = data_handler->EventsDone();
    const std::int64_t ms = t1 / 1000000 - t0 / 1000000;
    KVX_LOG(message) << "Caller time: " << ms << " ms, Events: " << events
                     << ", kev/s: " << static_cast<float>(events) / static_cast<float>(ms);

    if (stopped_by != 0) {
        KVX_LOG(message) << "Run stopped: " << data_handler->ReadsDone() << " pairs done, "
                         << data_handler->PairsLeft()
                         << " left. Run again with the same options and --resume to call the rest.";
    }
    telemetry->Finish();
}

}  // namespace Marlo
