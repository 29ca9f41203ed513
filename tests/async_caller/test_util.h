#pragma once
// Small helpers shared by the pipeline tests, and the standard headers they all use.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <deque>
#include <mutex>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "../common/test_support.h"

namespace TestSupport {

template <typename Path>
std::string Slurp(const Path& path) { return ReadText(path.string()); }

// The values on one line, blank-separated: one comparison for a record of fields.
template <typename... T>
std::string Fields(const T&... values) {
    std::ostringstream out;
    ((out << values << ' '), ...);
    const std::string text = out.str();
    return text.substr(0, text.empty() ? 0 : text.size() - 1);
}

// Polls `done` every millisecond until it holds or `seconds` have passed. The bound is for liveness
// (sanitizer builds are slow), never a measure of speed.
template <typename Done>
bool Eventually(Done done, int seconds = 10) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

// Polls until `f` throws and returns the text, or "<no exception>" if it never did.
template <typename F>
std::string AwaitError(F&& f, int seconds = 10) {
    std::string text;
    Eventually([&] { return (text = ErrorOf(f, "<no exception>")) != "<no exception>"; }, seconds);
    return text;
}

}  // namespace TestSupport
