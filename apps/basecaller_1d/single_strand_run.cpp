#include "single_strand_run.h"

#include <algorithm>
#include <chrono>
#include <csignal>
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

#include "annotated_copy.h"
#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"
#include "common/logger.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "previous_run.h"

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

constexpr std::size_t kNoFile = static_cast<std::size_t>(-1);

// What one read adds to the outputs, kept until every earlier read has been written and its file is
// in place.
struct Output {
    std::size_t file = kNoFile;  // the plan it belongs to
    std::string read_id;
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

std::string signalName(int signal) {
    return signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "signal " + std::to_string(signal);
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

// One read file as the run sees it before it starts.
struct FilePlan {
    std::string path;           // as found under the input path
    std::string name;           // file name without directories, as the index names it
    std::string destination;    // where the annotated file goes: the file itself, or under output_path
    std::string copy_from;      // what the annotated copy starts from
    std::vector<std::string> todo;  // read ids to call, in file order
    std::string open_error;     // set when the file could not be opened
};

struct OpenFile {
    // Declared first so that it goes last: the copy is removed only after every handle on it closed.
    std::unique_ptr<AnnotatedCopy> copy;
    std::string name;
    std::unique_ptr<DataAPI::Rawh5::ReadSource> source;
    std::size_t next = 0;          // next read of the plan's todo list to load
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
    ForEachEntry(dir, recursive, take);
    std::sort(files.begin(), files.end());
    return files;
}

SingleStrandSummary SingleStrandRun::Run() {
    namespace fs = boost::filesystem;
    using DataAPI::H5Wrapper::H5Mode;
    const auto started = std::chrono::steady_clock::now();
    SingleStrandSummary summary;
    const fs::path save(options.save_path);
    const std::string indexPath = (save / kIndexName).string();
    const std::string fastqPath = (save / kFastqName).string();
    const std::string failedPath = (save / kFailedName).string();

    // An earlier run's index is never overwritten unasked: it may be hours of work.
    if (!options.resume) {
        const std::uint64_t rows = CountIndexRows(indexPath);
        if (rows > 0) {
            throw std::runtime_error("The save path \"" + options.save_path + "\" already holds an index of " +
                                     std::to_string(rows) +
                                     " reads from an earlier run; add --resume to finish it, or choose another "
                                     "save path.");
        }
    }

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
    fs::create_directories(save);
    PreviousRun previous;
    if (options.resume) {
        previous = RepairPreviousRun(indexPath, fastqPath, failedPath);
        KVX_LOG(message) << "Resuming the run in " << options.save_path << ": " << previous.annotated
                         << " reads annotated and " << previous.failed << " failed before"
                         << (previous.dropped > 0 ? "; " + std::to_string(previous.dropped) +
                                                        " incomplete rows, records or lines removed"
                                                  : std::string());
    }
    const std::string target = options.output_path.empty() ? options.input_path : options.output_path;
    const std::size_t leftovers = RemoveLeftoverCopies(target, options.recursive);
    if (leftovers > 0) {
        KVX_LOG(message) << "Removed " << leftovers << " unfinished copies of read files left by a stopped run";
    }

    const auto openOutput = [&](const std::string& path, const std::string& header) {
        // Appending when resuming; a file the repair left empty has lost its header with the rest.
        const bool append = options.resume && fs::exists(path) && fs::file_size(path) > 0;
        auto stream = std::make_unique<std::ofstream>(path, append ? std::ios::app : std::ios::trunc);
        if (!*stream) {
            throw std::runtime_error("Could not open \"" + path + "\" for writing.");
        }
        if (!append) {
            *stream << header << std::flush;
        }
        return stream;
    };
    auto index = openOutput(indexPath, IndexHeader());
    auto fastq = openOutput(fastqPath, "");
    auto failed = openOutput(failedPath, FailedReadsHeader());

    // A first look at every file, read-only: which reads are left to call, and the total the progress
    // line counts towards.
    std::vector<FilePlan> plans;
    std::uint64_t toCall = 0;
    for (const auto& path : files) {
        FilePlan plan;
        plan.path = path;
        plan.name = fs::path(path).filename().string();
        // Lexically, not fs::relative: that resolves symbolic links, and a linked read file would then
        // be written over the file it points to instead of into the output folder.
        const fs::path inFolder = fs::path(path).lexically_normal().lexically_relative(
            fs::path(options.input_path).lexically_normal());
        plan.destination =
            options.output_path.empty() ? path : (fs::path(options.output_path) / inFolder).string();
        std::vector<std::string> ids;
        try {
            DataAPI::Rawh5::ReadSource source(path, H5Mode::ReadOnly);
            ids = source.GetReadIds();
        } catch (const std::exception& e) {
            if (previous.failed_files.count(plan.name) > 0) {
                ++summary.files_skipped;  // listed as unreadable by the earlier run already
                continue;
            }
            plan.open_error = e.what();
            ++summary.files;
            plans.push_back(std::move(plan));
            continue;
        }
        ++summary.files;
        summary.reads += ids.size();
        for (auto& id : ids) {
            if (previous.done_reads.count(id) > 0) {
                ++summary.skipped;
            } else {
                plan.todo.push_back(std::move(id));
            }
        }
        if (plan.todo.empty()) {
            summary.files_skipped += ids.empty() ? 0 : 1;
            continue;
        }
        toCall += plan.todo.size();
        // A file that an earlier run finished in part goes on from its annotated copy.
        const bool partlyDone = plan.todo.size() < ids.size();
        plan.copy_from = partlyDone && fs::exists(plan.destination) ? plan.destination : plan.path;
        plans.push_back(std::move(plan));
    }
    if (options.max_reads > 0) {
        toCall = std::min(toCall, options.max_reads);
    }
    if (options.resume) {
        KVX_LOG(message) << "Skipping " << summary.files_skipped << " files and " << summary.skipped
                         << " reads that the earlier run finished";
    }
    KVX_LOG(message) << "Annotating " << toCall << " reads in " << plans.size() << " files under "
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
    std::vector<std::size_t> reached(plans.size(), 0);  // reads of each plan loaded (or given up)
    std::vector<char> settled(plans.size(), 0);         // put in place, or failed as a whole
    std::size_t nextFile = 0;
    std::size_t loadingFile = 0;
    bool loading = false;  // whether open[loadingFile] still has reads to load
    std::uint64_t nextSequence = 0;
    std::uint64_t nextOutput = 0;
    std::uint64_t loadedReads = 0;
    std::uint64_t done = 0;
    std::map<std::uint64_t, Output> outputs;
    Progress progress(options.progress, toCall);
    const std::size_t queueLimit = 2 * static_cast<std::size_t>(options.workers);
    const auto stopSignal = [&]() { return options.stop ? options.stop->load() : 0; };

    const auto failAll = [&](std::size_t f, const std::string& reason) {
        for (auto& entry : outputs) {
            Output& out = entry.second;
            if (out.file == f && out.failure.empty()) {
                out.failure = failureLine(plans[f].name, out.read_id, reason);
                out.index_row.clear();
                out.fastq.clear();
            }
        }
    };
    // Once every read loaded from a file is written back (and no more are to be loaded), the copy is
    // closed and put in place; only then may the file's outputs be written.
    const auto closeIfDone = [&](std::size_t f) {
        auto it = open.find(f);
        if (it == open.end() || it->second.outstanding != 0 || (loading && loadingFile == f)) {
            return;
        }
        OpenFile& file = it->second;
        file.reads.clear();
        file.source->Close();
        try {
            file.copy->Commit();
            KVX_LOG(info) << "Saved " << file.copy->Destination() << " with " << reached[f] << " reads annotated";
        } catch (const std::exception& e) {
            KVX_LOG(warning) << "Could not save the annotated copy of " << plans[f].path << ": " << e.what();
            failAll(f, std::string("Could not save the annotated file: ") + e.what());
        }
        settled[f] = 1;
        open.erase(it);
    };
    const auto fail = [&](std::size_t f, const std::string& read_id, const std::string& reason) {
        KVX_LOG(warning) << "Read " << read_id << " of " << plans[f].name << " failed: " << reason;
        Output out;
        out.file = f;
        out.read_id = read_id;
        out.failure = failureLine(plans[f].name, read_id, reason);
        outputs[nextSequence++] = std::move(out);
    };
    // Writes out, in input order, what is finished and in place: the FASTQ records first, then the
    // index rows, each flushed, so that a row never stands for a record that is not complete.
    const auto flush = [&] {
        std::string records, rows, failures;
        for (auto it = outputs.find(nextOutput); it != outputs.end(); it = outputs.find(nextOutput)) {
            const Output& out = it->second;
            if (out.file != kNoFile && !settled[out.file]) {
                break;
            }
            if (out.failure.empty()) {
                rows += out.index_row;
                records += out.fastq;
                ++summary.annotated;
                summary.bases += out.bases;
            } else {
                failures += out.failure;
                ++summary.failed;
            }
            ++done;
            outputs.erase(it);
            ++nextOutput;
        }
        for (const auto& part : {std::make_pair(fastq.get(), &records), std::make_pair(index.get(), &rows),
                                 std::make_pair(failed.get(), &failures)}) {
            if (!part.second->empty()) {
                *part.first << *part.second << std::flush;
            }
        }
        if (!*index || !*fastq || !*failed) {
            throw std::runtime_error("Writing the outputs under \"" + options.save_path + "\" failed.");
        }
    };
    const auto stopLoading = [&] {
        if (loading) {
            loading = false;
            closeIfDone(loadingFile);
        }
    };

    // Loads the next read into the queue; false when there is nothing left to load.
    const auto loadNext = [&]() -> bool {
        while (true) {
            if (options.max_reads > 0 && loadedReads >= options.max_reads) {
                stopLoading();
                return false;
            }
            if (!loading) {
                if (nextFile >= plans.size()) {
                    return false;
                }
                const std::size_t f = nextFile++;
                const FilePlan& plan = plans[f];
                // A file that cannot be opened fails as a whole, with one line.
                const auto giveUp = [&](const std::string& reason) {
                    ++loadedReads;
                    reached[f] = plan.todo.size();
                    settled[f] = 1;
                    fail(f, "*", reason);
                };
                if (!plan.open_error.empty()) {
                    giveUp("Could not open the read file: " + plan.open_error);
                    continue;
                }
                OpenFile file;
                file.name = plan.name;
                try {
                    file.copy = std::make_unique<AnnotatedCopy>(plan.copy_from, plan.destination);
                } catch (const std::exception& e) {
                    giveUp(std::string("Could not copy the read file: ") + e.what());
                    continue;
                }
                try {
                    file.source =
                        std::make_unique<DataAPI::Rawh5::ReadSource>(file.copy->TemporaryPath(), H5Mode::ReadWrite);
                } catch (const std::exception& e) {
                    giveUp(std::string("Could not open the read file: ") + e.what());
                    continue;
                }
                KVX_LOG(info) << "Opened a copy of " << plan.copy_from << " with " << plan.todo.size()
                              << " reads to call";
                open[f] = std::move(file);
                loadingFile = f;
                loading = true;
            }
            OpenFile& file = open[loadingFile];
            const auto& todo = plans[loadingFile].todo;
            if (file.next >= todo.size()) {
                stopLoading();
                continue;
            }
            const std::string id = todo[file.next++];
            reached[loadingFile] = file.next;
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
                fail(loadingFile, id, std::string("Could not load the read: ") + e.what());
            }
            return true;
        }
    };

    const auto writeBack = [&](Result& result) {
        OpenFile& file = open.at(result.file);
        Output out;
        out.file = result.file;
        const std::string& id = result.info.read_id;
        out.read_id = id;
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
        if (more && stopSignal() != 0) {
            KVX_LOG(warning) << "Stopping on " << signalName(stopSignal())
                             << ": finishing the reads in hand (a second signal ends the program at once)";
            more = false;
            stopLoading();
        }
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

    for (std::size_t f = 0; f < plans.size(); ++f) {
        const std::size_t left = plans[f].todo.size() - reached[f];
        summary.left += left;
        summary.files_left += left > 0 ? 1 : 0;
        summary.files_done += left == 0 && settled[f] ? 1 : 0;
    }
    summary.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    KVX_LOG(message) << "Annotated " << summary.annotated << " reads (" << summary.bases << " bases), " << summary.failed
                     << " failed, in " << summary.seconds << " s";
    if (summary.left > 0 && stopSignal() != 0) {
        summary.stopped_by = stopSignal();
        KVX_LOG(warning) << "Stopped by " << signalName(summary.stopped_by) << ": " << summary.files_done
                         << " files done, " << summary.files_left << " files (" << summary.left
                         << " reads) left. Everything done is saved; run again with --resume to finish.";
    } else if (summary.left > 0) {
        KVX_LOG(message) << summary.left << " reads in " << summary.files_left
                         << " files were not reached (max_reads); --resume goes on with them";
    }
    return summary;
}

}  // namespace TestBed
