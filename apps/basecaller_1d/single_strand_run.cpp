#include "single_strand_run.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <unistd.h>

#include <boost/filesystem.hpp>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"
#include "common/logger.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"

namespace TestBed {

namespace {

constexpr const char* kVersion = "1.0.0";

struct Job {
    std::uint64_t sequence = 0;  // position in the input order
    std::size_t file = 0;
    ReadInfo info;
    std::vector<std::int16_t> raw;
    std::int16_t offset = 0;
    float scale = 0.0f;
};

struct Result {
    std::uint64_t sequence = 0;
    std::size_t file = 0;
    ReadInfo info;
    StrandCall call;
    std::string error;  // empty on success
};

// What one read adds to the outputs, kept until every earlier read has been written.
struct Output {
    std::string index_row;
    std::string fastq;
    std::string failure;  // a line of the failed-reads file
    std::uint64_t bases = 0;
};

std::string tabFree(std::string text) {
    std::replace(text.begin(), text.end(), '\t', ' ');
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

std::string failureLine(const std::string& file, const std::string& read_id, const std::string& reason) {
    return file + "\t" + read_id + "\t" + tabFree(reason) + "\n";
}

// The work queue between the file thread and the workers, and the results coming back.
class Exchange {
public:
    void PushJob(Job job) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            jobs.push_back(std::move(job));
        }
        jobReady.notify_one();
    }
    // Blocks until a job arrives or the exchange closes; false when closed and empty.
    bool PopJob(Job& job) {
        std::unique_lock<std::mutex> lock(mutex);
        jobReady.wait(lock, [&] { return !jobs.empty() || closed; });
        if (jobs.empty()) {
            return false;
        }
        job = std::move(jobs.front());
        jobs.pop_front();
        return true;
    }
    void PushResult(Result result) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            results.push_back(std::move(result));
        }
        resultReady.notify_one();
    }
    // Takes every finished result, waiting up to `wait` for the first.
    std::deque<Result> TakeResults(std::chrono::milliseconds wait) {
        std::unique_lock<std::mutex> lock(mutex);
        resultReady.wait_for(lock, wait, [&] { return !results.empty(); });
        std::deque<Result> out;
        out.swap(results);
        return out;
    }
    std::size_t QueuedJobs() {
        std::lock_guard<std::mutex> lock(mutex);
        return jobs.size();
    }
    void Close() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            closed = true;
        }
        jobReady.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable jobReady;
    std::condition_variable resultReady;
    std::deque<Job> jobs;
    std::deque<Result> results;
    bool closed = false;
};

void workerLoop(StrandCaller& caller, Exchange& exchange) {
    Job job;
    while (exchange.PopJob(job)) {
        Result result;
        result.sequence = job.sequence;
        result.file = job.file;
        result.info = std::move(job.info);
        try {
            result.call = caller.Call(job.raw, job.offset, job.scale);
        } catch (const std::exception& e) {
            result.error = e.what();
        } catch (...) {
            result.error = "Unknown exception while calling the read.";
        }
        job.raw.clear();
        exchange.PushResult(std::move(result));
    }
}

struct OpenFile {
    std::string path;
    std::string name;
    std::unique_ptr<DataAPI::Rawh5::ReadSource> source;
    std::vector<std::string> ids;
    std::size_t next = 0;          // next read id to load
    std::size_t outstanding = 0;   // loaded and not yet written back
    std::map<std::string, std::shared_ptr<DataAPI::ReadData>> reads;
};

// On a terminal one line rewritten twice a second; into a file or pipe a plain line every 30 s.
class Progress {
public:
    Progress(bool enabled_, std::uint64_t total_)
        : enabled(enabled_), terminal(isatty(fileno(stderr)) != 0), total(total_) {}
    void Show(std::uint64_t done, std::uint64_t failed, std::uint64_t bases, bool force = false) {
        if (!enabled) {
            return;
        }
        const auto now = std::chrono::steady_clock::now();
        if (!force && now - last < (terminal ? std::chrono::milliseconds(500) : std::chrono::milliseconds(30000))) {
            return;
        }
        last = now;
        const double elapsed = std::chrono::duration<double>(now - start).count();
        std::fprintf(stderr, "%s%llu/%llu reads (%llu failed), %.2f Mbases, %.0f s%s", terminal ? "\r" : "",
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(total),
                     static_cast<unsigned long long>(failed), static_cast<double>(bases) * 1e-6, elapsed,
                     terminal ? "   " : "\n");
        std::fflush(stderr);
    }
    void Finish(std::uint64_t done, std::uint64_t failed, std::uint64_t bases) {
        Show(done, failed, bases, true);
        if (enabled && terminal) {
            std::fprintf(stderr, "\n");
        }
    }

private:
    bool enabled;
    bool terminal;
    std::uint64_t total;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point last = start;
};

}  // namespace

SingleStrandRun::SingleStrandRun(SingleStrandOptions options_) : options(std::move(options_)) {
    if (options.workers < 1) {
        throw std::runtime_error("The number of workers must be at least 1.");
    }
}

std::vector<std::string> SingleStrandRun::ListReadFiles(const std::string& dir, bool recursive) {
    namespace fs = boost::filesystem;
    if (!fs::is_directory(dir)) {
        throw std::runtime_error("Input directory \"" + dir + "\" does not exist or is not a directory.");
    }
    std::vector<std::string> files;
    auto take = [&](const fs::directory_entry& entry) {
        if (fs::is_regular_file(entry.status()) && entry.path().extension() == ".rawh5") {
            files.push_back(entry.path().string());
        }
    };
    if (recursive) {
        for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
            take(*it);
        }
    } else {
        for (fs::directory_iterator it(dir), end; it != end; ++it) {
            take(*it);
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

SingleStrandSummary SingleStrandRun::Run() {
    namespace fs = boost::filesystem;
    using DataAPI::H5Wrapper::H5Mode;
    const auto started = std::chrono::steady_clock::now();
    SingleStrandSummary summary;

    // The model first: a wrong model file should stop the run before any file is touched.
    BasecallNN::NNLoader loader(options.model_file);
    if (!loader.IsRawModel()) {
        throw std::runtime_error("Model file \"" + options.model_file + "\" holds an event model; a raw model is needed.");
    }
    auto network = std::make_shared<BasecallNN::NNCallerCblas>();
    loader.LoadInto(*network);
    const std::shared_ptr<const BasecallNN::NNCaller> shared = network;
    std::vector<std::unique_ptr<StrandCaller>> callers;
    for (int w = 0; w < options.workers; ++w) {
        callers.push_back(std::make_unique<StrandCaller>(shared, options.segmenter, options.call));
    }
    const int k = Common::KmerLengthFromStates(network->label_state);
    if (k != 3 && k != 4 && k != 5) {
        KVX_LOG(warning) << "The model's states are " << k << "-mers; the pair run reads moves of 3-, 4- and 5-mer "
                         << "models only and will refuse these reads.";
    }

    const auto files = ListReadFiles(options.input_path, options.recursive);
    fs::create_directories(options.save_path);
    const auto openOutput = [&](const char* name) {
        const std::string path = (fs::path(options.save_path) / name).string();
        auto stream = std::make_unique<std::ofstream>(path, std::ios::trunc);
        if (!*stream) {
            throw std::runtime_error("Could not open \"" + path + "\" for writing.");
        }
        return stream;
    };
    auto index = openOutput(kIndexName);
    auto fastq = openOutput(kFastqName);
    auto failed = openOutput(kFailedName);
    *index << IndexHeader();
    *failed << "filename\tread_id\treason\n";

    // A first look at every file, read-only, for the total the progress line counts towards.
    for (const auto& path : files) {
        try {
            DataAPI::Rawh5::ReadSource source(path, H5Mode::ReadOnly);
            summary.reads += source.GetReadIds().size();
        } catch (const std::exception&) {
            // Reported when the file is opened for annotation.
        }
    }
    if (options.max_reads > 0) {
        summary.reads = std::min(summary.reads, options.max_reads);
    }
    KVX_LOG(message) << "Annotating " << summary.reads << " reads in " << files.size() << " files under "
                     << options.input_path << " with " << options.workers << " workers and model "
                     << options.model_file;

    Exchange exchange;
    std::vector<std::thread> threads;
    for (auto& caller : callers) {
        threads.emplace_back(workerLoop, std::ref(*caller), std::ref(exchange));
    }
    // Whatever happens below, the workers are told to stop and joined before the callers go.
    struct Joiner {
        Exchange& exchange;
        std::vector<std::thread>& threads;
        ~Joiner() {
            exchange.Close();
            for (auto& t : threads) {
                if (t.joinable()) {
                    t.join();
                }
            }
        }
    } joiner{exchange, threads};

    const AnnotationSource source{options.model_file, kVersion};
    std::map<std::size_t, OpenFile> open;
    std::size_t nextFile = 0;
    std::size_t loadingFile = 0;
    bool loading = false;  // whether open[loadingFile] still has reads to load
    std::uint64_t nextSequence = 0;
    std::uint64_t nextOutput = 0;
    std::uint64_t loadedReads = 0;
    std::uint64_t done = 0;
    std::map<std::uint64_t, Output> outputs;
    Progress progress(options.progress, summary.reads);
    const std::size_t queueLimit = 2 * static_cast<std::size_t>(options.workers);

    const auto closeIfDone = [&](std::size_t f) {
        auto it = open.find(f);
        if (it != open.end() && it->second.outstanding == 0 && !(loading && loadingFile == f)) {
            it->second.reads.clear();
            it->second.source->Close();
            open.erase(it);
        }
    };
    const auto fail = [&](const std::string& file, const std::string& read_id, const std::string& reason) {
        KVX_LOG(warning) << "Read " << read_id << " of " << file << " failed: " << reason;
        Output out;
        out.failure = failureLine(file, read_id, reason);
        outputs[nextSequence++] = std::move(out);
    };
    const auto flush = [&] {
        for (auto it = outputs.find(nextOutput); it != outputs.end(); it = outputs.find(nextOutput)) {
            const Output& out = it->second;
            if (out.failure.empty()) {
                *index << out.index_row;
                *fastq << out.fastq;
                ++summary.annotated;
                summary.bases += out.bases;
            } else {
                *failed << out.failure;
                ++summary.failed;
            }
            ++done;
            outputs.erase(it);
            ++nextOutput;
        }
    };

    // Loads the next read into the queue; false when there is nothing left to load.
    const auto loadNext = [&]() -> bool {
        while (true) {
            if (options.max_reads > 0 && loadedReads >= options.max_reads) {
                if (loading) {
                    loading = false;
                    closeIfDone(loadingFile);
                }
                return false;
            }
            if (!loading) {
                if (nextFile >= files.size()) {
                    return false;
                }
                const std::size_t f = nextFile++;
                OpenFile file;
                file.path = files[f];
                file.name = fs::path(file.path).filename().string();
                try {
                    file.source = std::make_unique<DataAPI::Rawh5::ReadSource>(file.path, H5Mode::ReadWrite);
                    file.ids = file.source->GetReadIds();
                } catch (const std::exception& e) {
                    ++loadedReads;
                    fail(file.name, "*", std::string("Could not open the read file: ") + e.what());
                    continue;
                }
                KVX_LOG(info) << "Opened " << file.path << " with " << file.ids.size() << " reads";
                open[f] = std::move(file);
                loadingFile = f;
                loading = true;
            }
            OpenFile& file = open[loadingFile];
            if (file.next >= file.ids.size()) {
                loading = false;
                closeIfDone(loadingFile);
                continue;
            }
            const std::string id = file.ids[file.next++];
            ++loadedReads;
            try {
                auto read = file.source->GetRead(id);
                Job job;
                job.info = ReadInfoOf(*read);
                job.info.filename = file.name;
                const auto& channel = read->Metadata().at("channel_id");
                const double range = DataAPI::GenericCast<double>(channel.at("range"));
                const double digitisation = DataAPI::GenericCast<double>(channel.at("digitisation"));
                job.offset = static_cast<std::int16_t>(DataAPI::GenericCast<double>(channel.at("offset")));
                job.scale = static_cast<float>(range) / static_cast<float>(digitisation);
                job.raw = read->GetRawData();
                summary.samples += job.raw.size();
                job.sequence = nextSequence++;
                job.file = loadingFile;
                file.reads[job.info.read_id] = read;
                ++file.outstanding;
                exchange.PushJob(std::move(job));
            } catch (const std::exception& e) {
                fail(file.name, id, std::string("Could not load the read: ") + e.what());
            }
            return true;
        }
    };

    const auto writeBack = [&](Result& result) {
        OpenFile& file = open.at(result.file);
        Output out;
        const std::string& id = result.info.read_id;
        if (result.error.empty()) {
            try {
                const std::string record = FastqRecordText(result.info, result.call);
                WriteAnalyses(*file.reads.at(id), result.call, record, source);
                out.index_row = IndexRow(result.info, result.call);
                out.fastq = record;
                out.bases = result.call.sequence.size();
            } catch (const std::exception& e) {
                out.failure = failureLine(file.name, id, std::string("Could not write the results: ") + e.what());
            }
        } else {
            out.failure = failureLine(file.name, id, result.error);
        }
        if (!out.failure.empty()) {
            KVX_LOG(warning) << "Read " << id << " of " << file.name << " failed: " << out.failure;
        } else {
            KVX_LOG(info) << "Read " << id << " of " << file.name << ": " << result.call.sequence.size() << " bases";
        }
        outputs[result.sequence] = std::move(out);
        file.reads.erase(id);
        --file.outstanding;
        closeIfDone(result.file);
    };

    bool more = true;
    while (true) {
        while (more && exchange.QueuedJobs() < queueLimit) {
            more = loadNext();
        }
        std::uint64_t inFlight = 0;
        for (const auto& entry : open) {
            inFlight += entry.second.outstanding;
        }
        if (!more && inFlight == 0) {
            break;
        }
        for (auto& result : exchange.TakeResults(std::chrono::milliseconds(200))) {
            writeBack(result);
        }
        flush();
        progress.Show(done, summary.failed, summary.bases);
    }
    flush();
    progress.Finish(done, summary.failed, summary.bases);
    for (auto& entry : open) {
        entry.second.reads.clear();
        entry.second.source->Close();
    }
    open.clear();

    index->flush();
    fastq->flush();
    failed->flush();
    if (!*index || !*fastq || !*failed) {
        throw std::runtime_error("Writing the outputs under \"" + options.save_path + "\" failed.");
    }
    summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    KVX_LOG(message) << "Annotated " << summary.annotated << " reads (" << summary.bases << " bases), " << summary.failed
                     << " failed, in " << summary.seconds << " s";
    return summary;
}

}  // namespace TestBed
