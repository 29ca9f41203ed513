#pragma once
// Per-event records of a strand and the emission matrix the one-dimensional decoders read.
//
// EventData<Deep> owns four arrays of one common length; EventData<Shallow> views the arrays of
// another record (or slices of them) and owns nothing. For a raw model an event is simply `stride`
// samples and only the count matters; for an event model the fields come from event detection.

#include <cstdint>
#include <string>
#include <vector>

#include "common/views.h"

namespace Common {

struct Deep {};
struct Shallow {};

template <typename Depth>
class EventData;

// The owning record.
template <>
class EventData<Deep> {
public:
    std::vector<float> mean;            // the event's level
    std::vector<float> stdv;            // its spread
    std::vector<std::uint64_t> start;   // first sample of the event
    std::vector<std::uint64_t> length;  // samples in the event

    EventData() = default;
    explicit EventData(std::size_t n) { resize(n); }

    std::size_t size() const { return mean.size(); }
    bool empty() const { return mean.empty(); }

    // New entries are zero; an unchanged size changes nothing.
    void resize(std::size_t n);

    // A viewing record over a slice of each array (the bounds rules of VecView::slice).
    EventData<Shallow> slice(std::uint64_t first, std::uint64_t count, std::int64_t stride);

    // Removes the given event indices (ascending, unique) and closes up the rest in order.
    void removeIndices(const std::vector<int>& indices);
    // The same as an assignment, the form the network runner uses after dropping rows.
    EventData& operator=(const std::vector<int>& removedIndices) {
        removeIndices(removedIndices);
        return *this;
    }
    EventData& operator=(const EventData&) = default;
    EventData& operator=(EventData&&) = default;
    EventData(const EventData&) = default;
    EventData(EventData&&) = default;
};

// The viewing record. Valid only while the viewed record lives and is not resized.
template <>
class EventData<Shallow> {
public:
    VecView<float> mean;
    VecView<float> stdv;
    VecView<std::uint64_t> start;
    VecView<std::uint64_t> length;

    EventData() = default;
    explicit EventData(EventData<Deep>& owner);

    std::size_t size() const { return mean.size; }
    bool empty() const { return mean.size == 0; }

    // Cuts every view down to n events; n above the present size throws "Cannot enlarge VecView".
    // The views keep the events at the low-address end of the memory they see: for a forward view
    // these are its first n, for a reversed (negative-stride) view its last n. So a reversed view of
    // a record, cut down, still views the start of that record. n == 0 leaves empty default views.
    void resize(std::size_t n);

    EventData<Shallow> slice(std::uint64_t first, std::uint64_t count, std::int64_t stride) const;

    // Removes the given event indices (ascending, unique) by closing up the remaining events, in view
    // order, inside the viewed memory; the views then cover the first size() - indices.size() events.
    void removeIndices(const std::vector<int>& indices);
    EventData& operator=(const std::vector<int>& removedIndices) {
        removeIndices(removedIndices);
        return *this;
    }
    EventData& operator=(const EventData&) = default;
    EventData(const EventData&) = default;
};

// What a decoder of event emissions reads: one row per event, one column per k-mer state, entry
// (e, s) the probability of event e given state s.
template <typename T>
class EmissionBase : public MatView<T> {
public:
    EmissionBase() = default;
    EmissionBase(const MatView<T>& m) : MatView<T>(m) {}  // NOLINT: a view of posteriors is an emission matrix
    EmissionBase(T* data, std::uint64_t rows, std::uint64_t cols, std::int64_t rowStride, std::int64_t colStride = 1)
        : MatView<T>(data, rows, cols, rowStride, colStride) {}
};

// The k of a state count N = 4^k. N must be at least 4 and divide by 4 exactly down to 1; otherwise
// throws "Unsupported number of states: <N>. State count should be a positive power of 4.".
int KmerLengthFromStates(std::int64_t numStates);
// The message above, for the places that check state counts in their own way.
std::string UnsupportedStatesMessage(std::int64_t numStates);

}  // namespace Common
