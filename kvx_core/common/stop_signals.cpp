#include "common/stop_signals.h"

#include <csignal>
#include <cstring>
#include <stdexcept>

#include <unistd.h>

namespace Common {

namespace {

// The handler may touch nothing but a lock-free atomic and _exit.
static_assert(std::atomic<int>::is_always_lock_free, "the stop flag must be usable from a signal handler");
std::atomic<int> received{0};

extern "C" void onStopSignal(int signal) {
    int none = 0;
    if (!received.compare_exchange_strong(none, signal)) {
        _exit(128 + signal);
    }
}

}  // namespace

void StopSignals::Install() {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    // Restarting keeps file reads and writes on other threads from failing with EINTR.
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGINT, SIGTERM}) {
        if (sigaction(signal, &action, nullptr) != 0) {
            throw std::runtime_error(std::string("Could not install the stop signal handler: ") + std::strerror(errno));
        }
    }
}

const std::atomic<int>& StopSignals::Received() { return received; }

}  // namespace Common
