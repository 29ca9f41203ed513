#pragma once
// The run driver: owns everything alive during a run. Setup builds the pipeline (telemetry, model
// configuration, callers, post-processor, data handler) and hands it the pair list; Run drives the
// parallel caller, draws the progress bar and reports the speed.
//
//   Marlo::Basecaller1D2 caller(params);
//   caller.Setup();
//   caller.Run();
//
// The members are declared so that they die in a fixed order: progress bar, parallel caller,
// callers, telemetry, data handler, post-processor, then the lists and the parameters. So the
// callers end while the handler and the post-processor still exist. The telemetry dies before the
// handler, which only holds a plain pointer to it; the destructor therefore stops the handler's
// loading thread first, so that nothing can report to the telemetry once it is gone.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/timer/progress_display.hpp>

#include "async_caller/data_trimmer.h"
#include "async_caller/file_data_handler_md.h"
#include "async_caller/parallel_caller.h"
#include "async_caller/read_caller.h"
#include "async_caller/read_pair.h"
#include "basecall_1d2_params.h"

class TelemetryAggregator;

namespace Marlo {

class Basecaller1D2 : public Basecall1D2Params {
public:
    // Copies the finished parameters. The telemetry prints the options of the set it is given, and
    // a copy prints through the original's bindings: `params` must live until Setup has returned.
    explicit Basecaller1D2(const Basecall1D2Params& params);
    ~Basecaller1D2() override;
    Basecaller1D2(const Basecaller1D2&) = delete;
    Basecaller1D2& operator=(const Basecaller1D2&) = delete;

    // Builds the pipeline and submits every pair; the callers' threads are running when it returns.
    // Throws std::runtime_error on failure ("Basecallers not initialised correctly." when no caller
    // could be made, as in service mode).
    void Setup();
    // Fills `pairs` from the index (the pair list reports its candidates to the telemetry).
    void GetFileList();
    // Calls every pair, showing progress unless quiet, and logs the speed. Rethrows any failure of
    // the pipeline's threads. After a stop signal (Common::StopSignals) it starts no new pair, lets
    // the pairs in the callers finish and returns as usual.
    void Run();
    // The signal that stopped the run early, or 0 for a run that called every pair.
    int StoppedBy() const { return stopped_by; }

private:
    std::string summary_path;
    std::vector<AsyncCaller::ReadPair> pairs;
    std::vector<std::string> summary_columns;
    std::unique_ptr<AsyncCaller::DataTrimmer> post_processor;
    std::unique_ptr<AsyncCaller::FileDataHandlerMD> data_handler;
    std::unique_ptr<TelemetryAggregator> telemetry;
    std::vector<std::shared_ptr<AsyncCaller::ReadCaller>> callers;
    std::unique_ptr<AsyncCaller::ParallelCaller> parallel_caller;
    std::unique_ptr<boost::timer::progress_display> progress;
    std::int64_t start_time_ms = 0;
    int stopped_by = 0;
};

}  // namespace Marlo
