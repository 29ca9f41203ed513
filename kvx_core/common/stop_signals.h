#pragma once
// SIGINT and SIGTERM ask a run to stop: the first one is only recorded, and the run finishes the work
// in hand, writes its outputs and returns; a second one ends the process at once (exit value 128 +
// the signal), for a user who will not wait. Job schedulers send SIGTERM at a job's time limit; what
// was finished stays on disk, and the programs' --resume calls the rest.

#include <atomic>

namespace Common {

class StopSignals {
public:
    // Installs the handlers for SIGINT and SIGTERM. Call once, before the threads start.
    static void Install();
    // The first stop signal received, 0 while none has come.
    static const std::atomic<int>& Received();
};

}  // namespace Common
