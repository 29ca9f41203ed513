#include "stop_signal.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace Marlo {

namespace {

// Lock-free, so that the handler may touch it: nothing else is safe inside a signal handler.
std::atomic<int> stop_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the stop flag must be usable from a signal handler");

extern "C" void onStopSignal(int signal_number) {
    if (stop_signal.exchange(signal_number) != 0) {
        // The second signal: the user wants out now. The shell convention for death by a signal.
        _exit(128 + signal_number);
    }
}

}  // namespace

void InstallStopHandlers() {
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int StopSignal() { return stop_signal.load(); }

}  // namespace Marlo
