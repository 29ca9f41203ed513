#pragma once
// Small helpers shared by the pipeline tests.

#include <chrono>
#include <exception>
#include <string>
#include <thread>

namespace TestSupport {

// The text of what `f` throws, or "<no exception>".
template <typename F>
std::string ErrorOf(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

// Polls `done` every millisecond until it holds or `seconds` have passed. The bound is for liveness
// (sanitizer builds are slow), never a measure of speed.
template <typename Done>
bool Eventually(Done done, int seconds = 10) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

}  // namespace TestSupport
