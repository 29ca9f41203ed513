#include "common/event_data.h"

#include <stdexcept>

namespace Common {

namespace {

// Checks a removal list against a record of n events: ascending, unique and inside the record.
void checkRemovalList(const std::vector<int>& indices, std::size_t n) {
    int previous = -1;
    for (int index : indices) {
        if (index <= previous || static_cast<std::size_t>(index) >= n) {
            throw std::runtime_error("Event removal list must hold ascending event indices below " +
                                     std::to_string(n) + ", but has " + std::to_string(index) + ".");
        }
        previous = index;
    }
}

// Closes up the kept elements of `a` (any indexable of n elements) in order; returns the new count.
template <typename Array>
std::size_t closeUp(Array& a, std::size_t n, const std::vector<int>& indices) {
    std::size_t out = 0;
    std::size_t next = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (next < indices.size() && static_cast<std::size_t>(indices[next]) == i) {
            ++next;
            continue;
        }
        if (out != i) {
            a[out] = a[i];
        }
        ++out;
    }
    return out;
}

template <typename T>
void cutView(VecView<T>& v, std::size_t n) {
    if (n > v.size) {
        throw std::runtime_error("Cannot enlarge VecView");
    }
    if (n == 0) {
        v = VecView<T>();
        return;
    }
    if (v.stride < 0) {
        // Keep the low-address end: the view's last n elements.
        v.data += static_cast<std::int64_t>(v.size - n) * v.stride;
    }
    v.size = n;
}

}  // namespace

std::string UnsupportedStatesMessage(std::int64_t numStates) {
    return "Unsupported number of states: " + std::to_string(numStates) +
           ". State count should be a positive power of 4.";
}

int KmerLengthFromStates(std::int64_t numStates) {
    if (numStates < 4) {
        throw std::runtime_error(UnsupportedStatesMessage(numStates));
    }
    int k = 0;
    for (std::int64_t n = numStates; n > 1; n /= 4) {
        if (n % 4 != 0) {
            throw std::runtime_error(UnsupportedStatesMessage(numStates));
        }
        ++k;
    }
    return k;
}

// ---- Deep ----

void EventData<Deep>::resize(std::size_t n) {
    mean.resize(n, 0.0f);
    stdv.resize(n, 0.0f);
    start.resize(n, 0);
    length.resize(n, 0);
}

EventData<Shallow> EventData<Deep>::slice(std::uint64_t first, std::uint64_t count, std::int64_t stride) {
    return EventData<Shallow>(*this).slice(first, count, stride);
}

void EventData<Deep>::removeIndices(const std::vector<int>& indices) {
    if (indices.empty()) {
        return;
    }
    const std::size_t n = size();
    checkRemovalList(indices, n);
    const std::size_t kept = closeUp(mean, n, indices);
    closeUp(stdv, n, indices);
    closeUp(start, n, indices);
    closeUp(length, n, indices);
    resize(kept);
}

// ---- Shallow ----

EventData<Shallow>::EventData(EventData<Deep>& owner)
    : mean(owner.mean.data(), owner.mean.size(), 1),
      stdv(owner.stdv.data(), owner.stdv.size(), 1),
      start(owner.start.data(), owner.start.size(), 1),
      length(owner.length.data(), owner.length.size(), 1) {}

void EventData<Shallow>::resize(std::size_t n) {
    cutView(mean, n);
    cutView(stdv, n);
    cutView(start, n);
    cutView(length, n);
}

EventData<Shallow> EventData<Shallow>::slice(std::uint64_t first, std::uint64_t count, std::int64_t stride) const {
    EventData<Shallow> out;
    out.mean = mean.slice(first, count, stride);
    out.stdv = stdv.slice(first, count, stride);
    out.start = start.slice(first, count, stride);
    out.length = length.slice(first, count, stride);
    return out;
}

void EventData<Shallow>::removeIndices(const std::vector<int>& indices) {
    if (indices.empty()) {
        return;
    }
    const std::size_t n = size();
    checkRemovalList(indices, n);
    const std::size_t kept = closeUp(mean, n, indices);
    closeUp(stdv, n, indices);
    closeUp(start, n, indices);
    closeUp(length, n, indices);
    // Kept events now stand first in view order, whatever the stride, so cut from the back of the view.
    for (auto* v : {&mean, &stdv}) {
        v->size = kept;
        if (kept == 0) {
            *v = VecView<float>();
        }
    }
    for (auto* v : {&start, &length}) {
        v->size = kept;
        if (kept == 0) {
            *v = VecView<std::uint64_t>();
        }
    }
}

}  // namespace Common
