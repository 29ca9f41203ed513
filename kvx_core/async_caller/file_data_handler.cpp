#include "async_caller/file_data_handler.h"

#include <time.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "async_caller/read_holder_md.h"
#include "async_caller/signal_scaling.h"
#include "common/logger.h"
#include "data_api/attribute_map.h"
#include "data_api/read_data.h"

namespace AsyncCaller {

// ---- FileProcessor ----

FileDataHandler::FileProcessor::~FileProcessor() = default;

void FileDataHandler::FileProcessor::Normalise(float* output, std::uint64_t count, float median, float mad) const {
    const float m = auto_scale ? median : scaling_med;
    const float d = auto_scale ? mad : scaling_mad;
    const float f = 1.0f / (d * 1.4826f);
    ShiftAndScale(output, count, m, f);
}

FileDataHandler::ScaleResult FileDataHandler::FileProcessor::Process(float scale, const std::int16_t* raw,
                                                                     std::uint64_t, float* output, std::uint64_t count,
                                                                     std::int16_t offset, int) {
    ScaleResult result;
    result.kept_samples = count;
    if (count == 0) {
        // Nothing to measure: an empty read keeps zeros and is judged further down the road.
        return result;
    }
    ScaleToPicoamps(raw, count, offset, scale, output);
    MedianAndMad(output, count, result.median, result.mad);
    Normalise(output, count, result.median, result.mad);
    return result;
}

void FileDataHandler::FileProcessor::PostProcess(ReadHolder& holder, int) {
    std::unique_ptr<ReadHolder> clone;
    switch (holder.dimension) {
        case 0:
            clone = std::make_unique<ReadHolder1D>(static_cast<const ReadHolder1D&>(holder));
            break;
        case 1:
            clone = std::make_unique<ReadHolderMD>(static_cast<const ReadHolderMD&>(holder));
            break;
        default:
            throw std::runtime_error("Unrecognized read-holder dimension value.");
    }
    std::lock_guard<std::mutex> lock(mutex);
    results.push_back(std::move(clone));
}

ReadList FileDataHandler::FileProcessor::Results() {
    std::lock_guard<std::mutex> lock(mutex);
    ReadList out;
    out.splice(out.end(), results);
    return out;
}

std::uint64_t FileDataHandler::FileProcessor::Count() {
    std::lock_guard<std::mutex> lock(mutex);
    return results.size();
}

// ---- RawRead ----

void FileDataHandler::RawRead::scaleRaw(FileProcessor& processor, int worker) {
    const std::uint64_t count = raw_data.size();
    float* samples = new float[count];
    SetRawData(samples, count, true);
    const ScaleResult r = processor.Process(scale, raw_data.data(), stride, samples, count, offset, worker);
    read.trimmed_start = r.trim_start;
    read.trimmed_duration = r.kept_samples;
    read.median = r.median;
    read.mad = r.mad;
    read.before_mean = r.before_mean;
    read.after_mean = r.after_mean;
    read.before_spread = r.before_spread;
    read.feature_found = r.feature_found;
}

// ---- FileDataHandler ----

FileDataHandler::FileDataHandler(std::uint64_t stride_, FileProcessor* processor_, std::int32_t dimension_,
                                 std::uint32_t flags, std::uint64_t queue_limit_)
    : DataHandler(dimension_),
      stride(stride_),
      queue_limit(queue_limit_),
      u_substitution((flags & 1u) != 0),
      reverse_sequence((flags & 2u) != 0),
      processor(processor_) {
    if (processor == nullptr) {
        default_processor = std::make_unique<FileProcessor>(0.0f, 0.0f, true);
        processor = default_processor.get();
    }
}

FileDataHandler::~FileDataHandler() { JoinWorkerThread(); }

void FileDataHandler::startWorker() { worker = std::thread(&FileDataHandler::workerLoop, this); }

bool FileDataHandler::IsActive() { return active; }

bool FileDataHandler::loadRead() { return false; }

void FileDataHandler::workerLoop() {
    try {
        while (keep_running) {
            if (worker_error) {
                return;
            }
            bool worked = false;
            if (active) {
                worked = loadRead();
            }
            if (!active || !worked) {
                const timespec pause{0, 10000000};
                nanosleep(&pause, nullptr);
            }
        }
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(error_mutex);
        error_message = std::string("Exception thrown in FileDataHandler worker thread: ") + e.what();
        worker_error = true;
    } catch (...) {
        std::lock_guard<std::mutex> lock(error_mutex);
        error_message = "Unknown exception thrown in FileDatahandler worker thread.";
        worker_error = true;
    }
}

bool FileDataHandler::JoinWorkerThread() {
    keep_running = false;
    if (worker.joinable()) {
        worker.join();
    }
    if (worker_error) {
        std::lock_guard<std::mutex> lock(error_mutex);
        if (!error_message.empty()) {
            KVX_LOG(info) << "Error detected in FileDataHandler worker thread during destructor. " << error_message;
            error_message.clear();
            return false;
        }
    }
    return true;
}

void FileDataHandler::reportWorkerError() {
    if (!worker_error) {
        return;
    }
    std::lock_guard<std::mutex> lock(error_mutex);
    if (!error_message.empty()) {
        KVX_LOG(info) << error_message;
        error_message.clear();
    }
}

const std::vector<std::string>& FileDataHandler::GetKmers(int k) {
    std::lock_guard<std::mutex> lock(k_mer_mutex);
    auto found = kmers.find(k);
    if (found != kmers.end()) {
        return found->second;
    }
    std::vector<std::string>& list = kmers[k];
    const std::uint64_t count = 1ull << (2 * k);
    list.reserve(count);
    for (std::uint64_t u = 0; u < count; ++u) {
        std::string kmer(static_cast<std::size_t>(k), 'A');
        for (int t = 0; t < k; ++t) {
            kmer[static_cast<std::size_t>(k - 1 - t)] = "ACGT"[(u >> (2 * t)) & 3];
        }
        list.push_back(std::move(kmer));
    }
    return list;
}

const std::map<std::string, int>& FileDataHandler::GetKmerIndex(int k) {
    {
        std::lock_guard<std::mutex> lock(index_mutex);
        auto found = kmer_index.find(k);
        if (found != kmer_index.end()) {
            return found->second;
        }
    }
    // Built from the list without holding the index lock, so that the two caches' locks never nest.
    const std::vector<std::string>& list = GetKmers(k);
    std::map<std::string, int> index;
    for (std::size_t u = 0; u < list.size(); ++u) {
        index.emplace(list[u], static_cast<int>(u));
    }
    std::lock_guard<std::mutex> lock(index_mutex);
    return kmer_index.emplace(k, std::move(index)).first->second;
}

std::string ReadStartTimeText(const std::string& exp_start_time, std::uint64_t start_time, float sampling_rate) {
    struct tm start;
    std::memset(&start, 0, sizeof(start));
    if (strptime(exp_start_time.c_str(), "%Y-%m-%dT%H:%M:%SZ", &start) == nullptr) {
        return std::string();
    }
    // mktime reads the fields as local time and gmtime writes UTC, so a run away from UTC shifts by
    // its zone offset; the files' readers expect exactly that.
    time_t when = mktime(&start);
    const float seconds = sampling_rate > 0.0f ? static_cast<float>(start_time) / sampling_rate : 0.0f;
    // A damaged sampling rate can push the offset past any date; such a start has no text.
    if (!(seconds < 4294967296.0f)) {
        return std::string();
    }
    when += static_cast<std::uint32_t>(seconds);
    struct tm utc;
    if (gmtime_r(&when, &utc) == nullptr) {
        return std::string();
    }
    char buffer[32];
    const std::size_t length = strftime(buffer, sizeof(buffer), "%FT%TZ", &utc);
    return std::string(buffer, length);
}

std::int64_t CheckedInteger(const boost::any& value, const std::string& name, std::int64_t low, std::int64_t high) {
    // Through double, which holds every value of the kinds an attribute can have closely enough to
    // compare with the bounds, and whose conversion to an integer is defined once they are met.
    const double number = DataAPI::GenericCastOrParse<double>(value);
    if (!(number >= static_cast<double>(low) && number <= static_cast<double>(high))) {
        std::ostringstream os;
        os << "Attribute '" << name << "' is out of range: " << number << " is not in [" << low << ", " << high
           << "].";
        throw std::runtime_error(os.str());
    }
    return static_cast<std::int64_t>(number);
}

bool FileDataHandler::loadRawRead(const std::shared_ptr<DataAPI::ReadData>& read, RawRead& raw) {
    ReadMeta& m = raw.read;
    m.read_id = read->ReadId();
    m.read_number = read->ReadNumber();
    m.start_time = read->StartTime();
    m.duration = read->Duration();
    m.run_id = read->RunId();
    m.sample_id = read->SampleId();
    m.sampling_rate = static_cast<float>(read->SamplingRate());
    m.trimmed_start = 0;
    m.trimmed_duration = m.duration;
    m.priority = 0;
    raw.raw_data = read->GetRawData();

    const DataAPI::ReadMetadata& metadata = read->Metadata();
    const auto tracking = metadata.find("tracking_id");
    if (tracking != metadata.end()) {
        const auto exp = tracking->second.find("exp_start_time");
        if (exp != tracking->second.end()) {
            if (const std::string* text = boost::any_cast<std::string>(&exp->second)) {
                m.start_time_text = ReadStartTimeText(*text, m.start_time, m.sampling_rate);
            }
        }
    }
    raw.stride = stride;

    const DataAPI::AttributeMap& channel = metadata.at("channel_id");
    m.channel = static_cast<std::uint32_t>(CheckedInteger(channel.at("channel_number"), "channel_number", 0, UINT32_MAX));
    raw.offset = static_cast<std::int16_t>(CheckedInteger(channel.at("offset"), "offset", INT16_MIN, INT16_MAX));
    const auto range = DataAPI::GenericCastOrParse<float>(channel.at("range"));
    const auto digitisation = DataAPI::GenericCastOrParse<float>(channel.at("digitisation"));
    raw.scale = range / digitisation;
    // Anything else would turn the whole signal into infinities or NaN, which the network and the
    // integer scores of the decoder cannot take.
    if (!std::isfinite(raw.scale) || !(raw.scale > 0.0f)) {
        throw std::runtime_error("Channel calibration of read " + m.read_id +
                                 " is not usable: range / digitisation must be a positive number.");
    }
    return true;
}

}  // namespace AsyncCaller
