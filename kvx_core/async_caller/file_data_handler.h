#pragma once
// The file-based data handler: it owns the background loading thread and its error channel, the
// tables of k-mers, and the conversion of one read's file data into a RawRead. The processor scales
// the signal and receives the finished reads.
//
// The loading thread polls: it loads while there is work and sleeps 10 ms when there is none. An
// exception that escapes a load ends the thread; its text is kept and logged by the next GetRead,
// and the run goes on with what was loaded.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/any.hpp>

#include "async_caller/data_handler.h"
#include "async_caller/read_holder_1d.h"

namespace DataAPI {
class ReadData;
}  // namespace DataAPI

namespace AsyncCaller {

class FileDataHandler : public DataHandler {
public:
    // What a processor's Process reports about the samples it scaled.
    struct ScaleResult {
        std::uint64_t trim_start = 0;    // samples cut from the start
        std::uint64_t kept_samples = 0;  // samples left in the output, from its start
        float median = 0.0f;             // measured, in picoamperes
        float mad = 0.0f;
        float before_mean = 0.0f;
        float after_mean = 0.0f;
        float before_spread = 0.0f;
        bool feature_found = false;
    };

    // Scales raw signal and receives finished reads. Process runs on every caller thread at once and
    // must touch no shared state; PostProcess locks.
    class FileProcessor {
    public:
        FileProcessor() = default;
        FileProcessor(float scaling_med_, float scaling_mad_, bool auto_scale_)
            : scaling_med(scaling_med_), scaling_mad(scaling_mad_), auto_scale(auto_scale_) {}
        FileProcessor(const FileProcessor&) = delete;
        FileProcessor& operator=(const FileProcessor&) = delete;
        virtual ~FileProcessor();

        // Writes `count` samples of `raw` in picoamperes, normalised, to `output`. The base form trims
        // nothing.
        virtual ScaleResult Process(float scale, const std::int16_t* raw, std::uint64_t stride, float* output,
                                    std::uint64_t count, std::int16_t offset, int worker);
        // Keeps a copy of the finished read (sequence, qualities, metadata).
        virtual void PostProcess(ReadHolder& holder, int worker);

        // Moves the kept reads out.
        ReadList Results();
        std::uint64_t Count();

        // Normalises `count` picoampere samples in place by the measured median and MAD, or by the
        // fixed values when auto_scale is off: x = (x - m) / (d * 1.4826).
        void Normalise(float* output, std::uint64_t count, float median, float mad) const;

        std::mutex mutex;
        ReadList results;
        float scaling_med = 0.0f;
        float scaling_mad = 0.0f;
        bool auto_scale = true;
    };

    // One read as loaded from its file, until GetRead scales it.
    class RawRead : public ReadHolder1D {
    public:
        // Scales raw_data into an owned float array with the processor and records the scaling
        // results in the metadata.
        void scaleRaw(FileProcessor& processor, int worker);

        std::vector<std::int16_t> raw_data;  // samples as stored
        std::int16_t offset = 0;
        float scale = 0.0f;  // range / digitisation
    };

    // `flags`: bit 0 turns T into U in called sequences, bit 1 reverses them. A null processor makes
    // a default one. The thread is started by the derived constructor, once it is fully built.
    FileDataHandler(std::uint64_t stride, FileProcessor* processor, std::int32_t dimension, std::uint32_t flags,
                    std::uint64_t queue_limit);
    ~FileDataHandler() override;

    bool IsActive() override;
    // One unit of the loading thread's work; false when there was nothing to do.
    virtual bool loadRead();
    // Says that no more reads will be submitted; returns the old value.
    virtual bool NoMoreData() = 0;
    virtual std::uint64_t PendingCount() = 0;
    virtual std::uint64_t ReadsDone() = 0;
    virtual std::uint64_t EventsDone() = 0;

    void workerLoop();
    // Stops and joins the loading thread; false (after logging it) if it had stopped on an error.
    bool JoinWorkerThread();

    // The 4^k k-mers, number u with base (u >> 2t) & 3 of "ACGT" at position k-1-t. Built once.
    const std::vector<std::string>& GetKmers(int k);
    const std::map<std::string, int>& GetKmerIndex(int k);

    // Fills `raw` from a read of a file: metadata, samples and calibration. Throws on metadata it
    // cannot convert.
    bool loadRawRead(const std::shared_ptr<DataAPI::ReadData>& read, RawRead& raw);

    FileProcessor& Processor() { return *processor; }

    const std::uint64_t stride;
    const std::uint64_t queue_limit;
    const bool u_substitution;
    const bool reverse_sequence;

protected:
    void startWorker();
    // Logs and clears the loading thread's failure, if any.
    void reportWorkerError();

    std::unique_ptr<FileProcessor> default_processor;
    FileProcessor* processor;
    std::atomic<bool> active{true};
    std::atomic<bool> keep_running{true};
    std::atomic<bool> worker_error{false};
    std::string error_message;
    std::thread worker;
    std::mutex error_mutex;

private:
    std::mutex k_mer_mutex;
    std::mutex index_mutex;
    std::map<int, std::vector<std::string>> kmers;
    std::map<int, std::map<std::string, int>> kmer_index;
};

// A numeric attribute of a read file as an integer in [low, high]. Read files come from other
// programs and may be damaged: a string that is no number, NaN, or a value out of range throws a
// message naming the attribute, so that the read is refused instead of a negative value wrapping
// around in unsigned arithmetic further on. Strings are parsed as GenericCastOrParse does.
std::int64_t CheckedInteger(const boost::any& value, const std::string& name, std::int64_t low, std::int64_t high);

// Wall-clock start of a read: "exp_start_time" (as "%Y-%m-%dT%H:%M:%SZ") plus start_time /
// sampling_rate seconds, as "%FT%TZ". Empty if the experiment start cannot be parsed.
std::string ReadStartTimeText(const std::string& exp_start_time, std::uint64_t start_time, float sampling_rate);

}  // namespace AsyncCaller
