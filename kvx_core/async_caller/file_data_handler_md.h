#pragma once
// The data handler of strand pairs. The run driver submits file pairs; the loading thread opens both
// read files, loads signal, segmentation and the 1D results of both reads and turns the latter into
// one 3-mer label per block. On the caller threads GetRead scales both signals, aligns the two label
// sequences, keeps the aligned stretch of each strand and fills a ReadHolderMD with it and the prior
// map. Called pairs come back through PassCalledRead, get their metadata back and go to the
// processor.
//
// At most 100 pairs wait loaded, which bounds the memory of loaded signal; the heavy steps (scaling
// and alignment) run on the callers' threads, not on the single loading thread. A bad pair is logged
// at severity info and dropped; it never stops the run.

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "async_caller/file_data_handler.h"
#include "async_caller/prior_aligner.h"
#include "async_caller/read_meta.h"
#include "async_caller/read_pair.h"
#include "data_api/analysis_data.h"
#include "data_api/attribute_map.h"
#include "data_api/data_table.h"

namespace AsyncCaller {

// One 3-mer label per block of a 1D call, in strand-1 orientation (reversed and complemented for
// `second_strand`), from its "Move" data set and the text of its "Fastq" data set. False (logged at
// info) when the two disagree; damaged data that fails a look-up throws.
bool LabelsFromMoves(const std::vector<std::uint8_t>& moves, const std::string& fastq, bool second_strand,
                     std::vector<std::int32_t>& labels);
// The same from the "model_state" field of an "Events" table; every failure throws.
void LabelsFromEvents(const DataAPI::DataTable& table, bool second_strand, std::vector<std::int32_t>& labels);

class FileDataHandlerMD : public FileDataHandler {
public:
    // What the 1D results of one read give the prior alignment.
    struct PriorReadInfo {
        std::vector<std::int32_t> labels;  // one 3-mer label per block, in strand-1 orientation
        std::uint64_t stride = 0;          // samples per block
        std::uint64_t first_sample = 0;    // "first_sample_template" of the segmentation
        std::uint64_t duration = 0;        // "duration_template" of the segmentation
    };

    struct LoadedPair {
        RawRead read1;
        RawRead read2;
        PriorReadInfo info1;
        PriorReadInfo info2;
    };

    // Receives strand 1 of every loaded pair: sampling rate, the read's metadata, duration and start
    // time in samples. The run's telemetry aggregator sits behind it; empty for none.
    using TelemetryReport = std::function<void(float sampling_rate, const DataAPI::ReadMetadata& metadata,
                                               std::uint64_t duration, std::uint64_t start_time)>;

    // `stride`: samples per event of the model. `workers`: caller workers, one aligner copy each.
    // `flags`: bit 0 T to U, bit 1 reversed sequences. Starts the loading thread.
    FileDataHandlerMD(std::uint64_t stride, const PriorAligner& aligner, int workers, FileProcessor* processor,
                      std::uint32_t flags, TelemetryReport telemetry = TelemetryReport());
    ~FileDataHandlerMD() override;

    // False once every pair is loaded and taken. A loading thread that died on an error also ends
    // the handler's activity once what it loaded has been taken.
    bool IsActive() override;
    bool GetRead(int priority, ReadHolder& holder, int worker) override;
    void PassCalledRead(ReadHolder& holder, int worker) override;
    bool loadRead() override;
    bool NoMoreData() override;
    std::uint64_t PendingCount() override;
    std::uint64_t ReadsDone() override { return reads_done; }
    std::uint64_t EventsDone() override { return events_done; }

    // Queues a pair for loading; after NoMoreData it throws.
    void SubmitFilePair(const ReadPair& pair);
    // Ends the run early: pairs not yet taken by a caller are dropped and counted in PairsLeft, so
    // that only the pairs now in the callers finish. Implies NoMoreData.
    void Stop();
    std::uint64_t PairsLeft() const { return pairs_left; }
    // Pairs loaded and waiting for GetRead.
    std::uint64_t LoadedCount();

    // Loads one read and its labels; failures are logged at info and give false.
    bool loadReadAndLabels(std::shared_ptr<DataAPI::ReadData>& read, RawRead& raw, PriorReadInfo& info,
                           bool second_strand);

    static constexpr std::uint64_t kMaxLoaded = 100;

private:
    std::list<ReadPair> pending;
    std::map<std::uint64_t, std::pair<ReadMeta, ReadMeta>> in_flight;
    std::list<std::unique_ptr<LoadedPair>> loaded;
    std::vector<PriorAligner> aligners;
    std::atomic<std::uint64_t> next_read_index{0};
    std::atomic<std::uint64_t> events_done{0};
    std::atomic<std::uint64_t> reads_done{0};
    std::atomic<bool> no_more_data{false};
    std::atomic<bool> stopped{false};
    std::atomic<std::uint64_t> pairs_left{0};
    std::mutex queue_mutex;  // pending, loaded
    std::mutex map_mutex;    // in_flight
    TelemetryReport telemetry;
};

}  // namespace AsyncCaller
