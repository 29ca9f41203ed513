#include "async_caller/file_data_handler_md.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem/path.hpp>

#include "async_caller/read_holder_md.h"
#include "common/logger.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "data_api/read_data.h"

namespace AsyncCaller {

namespace {

// "File pair (F1 id1, F2 id2)": file names without their directories, quoted with '&' as escape.
std::string pairText(const ReadMeta& m1, const ReadMeta& m2) {
    std::ostringstream os;
    os << "File pair (" << std::quoted(boost::filesystem::path(m1.filename).filename().string(), '"', '&') << " "
       << m1.read_id << ", " << std::quoted(boost::filesystem::path(m2.filename).filename().string(), '"', '&')
       << " " << m2.read_id << ")";
    return os.str();
}

char complement(char base) {
    switch (base) {
        case 'A': return 'T';
        case 'C': return 'G';
        case 'G': return 'C';
        case 'T': return 'A';
        default: return base;
    }
}

// The analysis of the given kind with the greatest three-character number, or null.
const DataAPI::NamePath* latestAnalysis(const std::vector<DataAPI::NamePath>& analyses, const std::string& prefix) {
    const DataAPI::NamePath* best = nullptr;
    // "///" sorts below any digits, so any numbered analysis beats the starting value.
    std::string bestSuffix = "///";
    for (const DataAPI::NamePath& a : analyses) {
        if (a.name.compare(0, prefix.size(), prefix) != 0) {
            continue;
        }
        const std::string suffix = a.name.substr(prefix.size(), 3);
        if (suffix > bestSuffix) {
            bestSuffix = suffix;
            best = &a;
        }
    }
    return best;
}

// 3-mer to label, first base most significant: the same table as the handler's GetKmerIndex(3),
// built once here so that the label functions need no handler.
const std::map<std::string, int>& labelIndex() {
    static const std::map<std::string, int> index = [] {
        std::map<std::string, int> out;
        for (int u = 0; u < 64; ++u) {
            out.emplace(std::string{"ACGT"[u >> 4], "ACGT"[(u >> 2) & 3], "ACGT"[u & 3]}, u);
        }
        return out;
    }();
    return index;
}

}  // namespace

FileDataHandlerMD::FileDataHandlerMD(std::uint64_t stride_, const PriorAligner& aligner, int workers,
                                     FileProcessor* processor_, std::uint32_t flags, TelemetryReport telemetry_)
    : FileDataHandler(stride_, processor_, 1, flags, 20),
      aligners(static_cast<std::size_t>(std::max(workers, 0)), aligner),
      telemetry(std::move(telemetry_)) {
    if (stride == 0) {
        throw std::runtime_error("The model's stride must be at least 1.");
    }
    startWorker();
}

FileDataHandlerMD::~FileDataHandlerMD() {
    // First of all: no loading thread may run while the members go.
    JoinWorkerThread();
}

bool FileDataHandlerMD::IsActive() {
    if (!active) {
        return false;
    }
    if (worker_error) {
        std::lock_guard<std::mutex> lock(queue_mutex);
        return !loaded.empty();
    }
    return true;
}

bool FileDataHandlerMD::NoMoreData() { return no_more_data.exchange(true); }

std::uint64_t FileDataHandlerMD::PendingCount() {
    std::lock_guard<std::mutex> lock(queue_mutex);
    return pending.size();
}

std::uint64_t FileDataHandlerMD::LoadedCount() {
    std::lock_guard<std::mutex> lock(queue_mutex);
    return loaded.size();
}

void FileDataHandlerMD::SubmitFilePair(const ReadPair& pair) {
    std::lock_guard<std::mutex> lock(queue_mutex);
    if (no_more_data) {
        throw std::runtime_error("Attempted to submit a file pair after calling NoMoreData().");
    }
    pending.push_back(pair);
}

void FileDataHandlerMD::Stop() {
    std::lock_guard<std::mutex> lock(queue_mutex);
    no_more_data = true;
    stopped = true;
    pairs_left += pending.size() + loaded.size();
    pending.clear();
    loaded.clear();
}

bool FileDataHandlerMD::loadRead() {
    ReadPair pair;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        if (no_more_data && pending.empty() && loaded.empty()) {
            active = false;
            keep_running = false;
            return false;
        }
        if (loaded.size() >= kMaxLoaded || pending.empty()) {
            return false;
        }
        pair = pending.front();
        pending.pop_front();
    }
    try {
        auto entry = std::make_unique<LoadedPair>();
        DataAPI::Rawh5::ReadSource source1(pair.filename1, DataAPI::H5Wrapper::H5Mode::ReadOnly);
        DataAPI::Rawh5::ReadSource source2(pair.filename2, DataAPI::H5Wrapper::H5Mode::ReadOnly);
        std::shared_ptr<DataAPI::ReadData> read1 = source1.GetRead(pair.read_id1);
        std::shared_ptr<DataAPI::ReadData> read2 = source2.GetRead(pair.read_id2);
        // Both strands always, so that each one's reasons are in the log.
        const bool ok1 = loadReadAndLabels(read1, entry->read1, entry->info1, false);
        const bool ok2 = loadReadAndLabels(read2, entry->read2, entry->info2, true);
        entry->read1.read.filename = source1.Path();
        entry->read2.read.filename = source2.Path();
        if (!ok1 || !ok2) {
            KVX_LOG(info) << "Could not load read pair (" << pair.read_id1 << ", " << pair.read_id2 << ").";
            return true;
        }
        if (telemetry) {
            const ReadMeta& m = entry->read1.read;
            telemetry(m.sampling_rate, read1->Metadata(), m.duration, m.start_time);
        }
        std::lock_guard<std::mutex> lock(queue_mutex);
        if (stopped) {
            ++pairs_left;  // loaded while the run was being stopped
            return true;
        }
        loaded.push_back(std::move(entry));
    } catch (const std::exception& e) {
        KVX_LOG(info) << "Error loading read pair (" << pair.read_id1 << ", " << pair.read_id2 << "): " << e.what();
    } catch (...) {
        KVX_LOG(info) << "Unknown error loading read pair (" << pair.read_id1 << ", " << pair.read_id2 << ").";
    }
    return true;
}

bool FileDataHandlerMD::loadReadAndLabels(std::shared_ptr<DataAPI::ReadData>& read, RawRead& raw,
                                          PriorReadInfo& info, bool second_strand) {
    if (!loadRawRead(read, raw)) {
        return false;
    }
    try {
        const std::vector<DataAPI::NamePath> analyses = read->GetAnalyses();
        const DataAPI::NamePath* segmentation = latestAnalysis(analyses, "Segmentation_");
        if (segmentation == nullptr) {
            KVX_LOG(info) << "Missing information about segmentation in read file.";
            return false;
        }
        const auto segAnalysis = read->GetAnalysis(*segmentation);
        const DataAPI::AttributeMap& seg = segAnalysis->Summary().at("segmentation");
        // The segmentation must lie inside the samples just loaded: everything after this point
        // (label strides, the prior map, the copy of the aligned stretch) is sized and bounded by it.
        const auto samples = static_cast<std::int64_t>(raw.raw_data.size());
        info.first_sample = static_cast<std::uint64_t>(
            CheckedInteger(seg.at("first_sample_template"), "first_sample_template", 0, samples));
        info.duration = static_cast<std::uint64_t>(CheckedInteger(
            seg.at("duration_template"), "duration_template", 0, samples - static_cast<std::int64_t>(info.first_sample)));

        const DataAPI::NamePath* basecall = latestAnalysis(analyses, "Basecall_1D_");
        if (basecall == nullptr) {
            KVX_LOG(info) << "Missing information about 1d basecall in read file.";
            return false;
        }
        const auto analysis = read->GetAnalysis(*basecall);
        const DataAPI::AttributeMap& tmpl = analysis->Summary().at("basecall_1d_template");
        info.stride = 0;
        // Bounded by the segmentation here; whether the blocks fit in it is checked once their
        // number is known, below.
        const auto maxStride = static_cast<std::int64_t>(std::max<std::uint64_t>(info.duration, 1));
        if (tmpl.count("block_stride") != 0) {
            info.stride = static_cast<std::uint64_t>(CheckedInteger(tmpl.at("block_stride"), "block_stride", 0, maxStride));
        } else if (tmpl.count("event_stride") != 0) {
            info.stride = static_cast<std::uint64_t>(CheckedInteger(tmpl.at("event_stride"), "event_stride", 0, maxStride));
        }

        // In the analysis's own order: an "Events" met before "Move" leaves the name of "Move" with
        // the events mark still set.
        const DataAPI::NamePath* data = nullptr;
        const DataAPI::NamePath* fastq = nullptr;
        bool eventsForm = false;
        for (const DataAPI::NamePath& ds : analysis->Datasets()) {
            if (ds.name == "Events") {
                data = &ds;
                eventsForm = true;
            } else if (ds.name == "Move") {
                data = &ds;
            } else if (ds.name == "Fastq") {
                fastq = &ds;
            }
        }
        if (data == nullptr) {
            KVX_LOG(info) << "Missing 'Move' dataset for 1d basecall.";
            return false;
        }
        if (fastq == nullptr && !eventsForm) {
            KVX_LOG(info) << "Missing 'Fastq' dataset for 1d basecall.";
            return false;
        }
        if (eventsForm) {
            LabelsFromEvents(analysis->GetDataSet(*data)->ReadTable(), second_strand, info.labels);
        } else {
            const std::vector<std::uint8_t> moves = analysis->GetDataSet(*data)->ReadVector<std::uint8_t>();
            const std::string text = analysis->GetDataSet(*fastq)->ReadString();
            if (!LabelsFromMoves(moves, text, second_strand, info.labels)) {
                return false;
            }
        }
        const std::uint64_t blocks = info.labels.size();
        if (info.stride == 0) {
            info.stride = info.duration / blocks;
        }
        // The 1D call covers the segmented stretch with its blocks, the last one possibly cut short.
        // More blocks than that means a damaged stride or segmentation, and would size the prior
        // map and the aligned stretch beyond the signal.
        if (info.stride == 0 || blocks - 1 > info.duration / info.stride) {
            KVX_LOG(info) << "1d basecall of " << blocks << " blocks of " << info.stride
                          << " samples does not fit the segmented signal of " << info.duration << " samples.";
            return false;
        }
    } catch (const std::exception& e) {
        KVX_LOG(info) << "Exception thrown extracting 1d read data: " << e.what();
        return false;
    } catch (...) {
        KVX_LOG(info) << "Unknown exception thrown extracting 1d read data.";
        return false;
    }
    return true;
}

bool LabelsFromMoves(const std::vector<std::uint8_t>& moves, const std::string& fastq, bool second_strand,
                     std::vector<std::int32_t>& labels) {
    const std::size_t firstNewline = fastq.find('\n');
    const std::size_t secondNewline = firstNewline == std::string::npos ? std::string::npos
                                                                        : fastq.find('\n', firstNewline + 1);
    if (secondNewline == std::string::npos) {
        KVX_LOG(info) << "Invalid Fastq dataset.";
        return false;
    }
    const std::string sequence = fastq.substr(firstNewline + 1, secondNewline - firstNewline - 1);
    const auto L = static_cast<std::int64_t>(sequence.size());
    const std::uint64_t B = moves.size();
    std::int64_t S = 0;
    for (const std::uint8_t m : moves) {
        S += m;
    }
    // The k-mer length of the 1D model: its first block brings k bases, every move one more.
    const std::int64_t k = L + 1 - S;
    if (k != 1 && k != 3 && k != 4 && k != 5) {
        KVX_LOG(info) << "Move dataset is inconsistent with Fastq dataset.";
        return false;
    }
    if (B == 0) {
        throw std::runtime_error("Move dataset is empty.");
    }
    const std::map<std::string, int>& index = labelIndex();
    labels.assign(B, 0);
    // The central 3-mer of each k-mer; for k = 1 the 3-mer around the base, held inside the sequence
    // at both ends. A position past the sequence makes substr or the look-up throw.
    std::int64_t position = k == 1 ? -1 : (k == 5 ? 1 : 0);
    for (std::uint64_t e = 0; e < B; ++e) {
        std::string bases;
        if (position == -1) {
            bases = sequence.substr(0, 3);
        } else if (k == 1 && position == S - 2) {
            bases = sequence.substr(static_cast<std::size_t>(L - 3), 3);
        } else {
            bases = sequence.substr(static_cast<std::size_t>(position), 3);
        }
        if (!second_strand) {
            labels[e] = index.at(bases);
        } else {
            std::string rc(bases.rbegin(), bases.rend());
            std::transform(rc.begin(), rc.end(), rc.begin(), complement);
            labels[B - 1 - e] = index.at(rc);
        }
        if (e + 1 < B) {
            position += moves[e + 1];
        }
    }
    return true;
}

void LabelsFromEvents(const DataAPI::DataTable& table, bool second_strand, std::vector<std::int32_t>& labels) {
    const std::uint64_t rows = table.Rows();
    if (rows == 0) {
        throw std::runtime_error("Events dataset is empty.");
    }
    const DataAPI::TableField& field = table.Field("model_state");
    const std::size_t M = table.GetString(0, "model_state").size();
    if (M < 3) {
        throw std::runtime_error("Label lookup failed, model_state table possibly corrupt.");
    }
    const std::size_t from = (M - 3) / 2;
    const std::map<std::string, int>& index = labelIndex();
    labels.assign(rows, 0);
    for (std::uint64_t e = 0; e < rows; ++e) {
        const std::uint8_t* cell = table.at(e, field) + from;
        std::string bases(reinterpret_cast<const char*>(cell), 3);
        if (bases[0] == '\0') {
            throw std::runtime_error("Label lookup failed, model_state table possibly corrupt.");
        }
        if (!second_strand) {
            labels[e] = index.at(bases);
        } else {
            std::swap(bases[0], bases[2]);
            std::transform(bases.begin(), bases.end(), bases.begin(), complement);
            labels[rows - 1 - e] = index.at(bases);
        }
    }
}

bool FileDataHandlerMD::GetRead(int priority, ReadHolder& holder, int worker) {
    reportWorkerError();
    if (priority != 0) {
        return false;
    }
    // Checked before a pair is taken, so that a bad index loses nothing.
    PriorAligner& aligner = aligners.at(static_cast<std::size_t>(worker));
    std::unique_ptr<LoadedPair> entry;
    {
        std::lock_guard<std::mutex> lock(queue_mutex);
        if (loaded.empty()) {
            return false;
        }
        entry = std::move(loaded.front());
        loaded.pop_front();
    }
    entry->read1.scaleRaw(*processor, worker);
    entry->read2.scaleRaw(*processor, worker);
    const PriorReadInfo& info1 = entry->info1;
    const PriorReadInfo& info2 = entry->info2;
    if (info1.stride != info2.stride) {
        KVX_LOG(info) << pairText(entry->read1.read, entry->read2.read)
                      << " have different event strides. Cannot continue.";
        return false;
    }

    auto& pair = dynamic_cast<ReadHolderMD&>(holder);
    pair.stride = stride;
    pair.sequence.clear();
    pair.qualities.clear();
    pair.mean_qscore = 0.0f;
    pair.strand_score = 0.0f;
    pair.passes_filtering = false;
    pair.chunks.clear();
    pair.aggregated = false;
    pair.ClearRawData();
    // Where each scaled signal starts in the file's sample numbering.
    const std::uint64_t scaled1 = entry->read1.read.trimmed_start;
    const std::uint64_t scaled2 = entry->read2.read.trimmed_start;
    pair.read1 = entry->read1.read;
    pair.read2 = entry->read2.read;
    pair.SetReadIndex(next_read_index++);
    pair.read1.trimmed_start = info1.first_sample;
    pair.read1.trimmed_duration = info1.duration;
    pair.read2.trimmed_start = info2.first_sample;
    pair.read2.trimmed_duration = info2.duration;

    if (!aligner.Compute(info1.labels, info2.labels, info1.stride)) {
        KVX_LOG(info) << pairText(pair.read1, pair.read2) << " did not produce a usable prior alignment.";
        processor->PostProcess(pair, worker);
        return false;
    }
    pair.priorStep = aligner.priorStep;
    pair.priorSamples = aligner.priorSamples;
    pair.read1.trimmed_start += aligner.start1;
    pair.read1.trimmed_duration = aligner.length1;
    pair.read2.trimmed_start += aligner.start2;
    pair.read2.trimmed_duration = aligner.length2;

    const ReadMeta& m1 = pair.read1;
    const ReadMeta& m2 = pair.read2;
    const Common::VecView<float>& signal1 = entry->read1.raw;
    const Common::VecView<float>& signal2 = entry->read2.raw;
    // A segmentation that points outside the signal cannot be called; like a failed alignment, the
    // pair still gets its summary row. Written so that no term can wrap around: the aligned stretch
    // may start after the scaled signal's start and must end within it.
    const auto inside = [](const ReadMeta& m, std::uint64_t scaledStart, std::uint64_t size) {
        if (m.trimmed_start < scaledStart || m.trimmed_start - scaledStart > size) {
            return false;
        }
        return m.trimmed_duration <= size - (m.trimmed_start - scaledStart);
    };
    if (!inside(m1, scaled1, signal1.size) || !inside(m2, scaled2, signal2.size)) {
        KVX_LOG(info) << pairText(m1, m2) << " has an aligned stretch outside its signal.";
        pair.priorSamples.clear();
        processor->PostProcess(pair, worker);
        return false;
    }
    // A flat signal (no spread to normalise by) or damaged samples scale to infinities or NaN, which
    // neither the network nor the decoder's integer scores can take.
    const auto finite = [](const Common::VecView<float>& v) {
        for (std::uint64_t i = 0; i < v.size; ++i) {
            if (!std::isfinite(v[i])) {
                return false;
            }
        }
        return true;
    };
    if (!finite(signal1) || !finite(signal2)) {
        KVX_LOG(info) << pairText(m1, m2) << " has a signal that cannot be normalised.";
        pair.priorSamples.clear();
        processor->PostProcess(pair, worker);
        return false;
    }
    float* stretch1 = new float[m1.trimmed_duration];
    float* stretch2 = new float[m2.trimmed_duration];
    std::memcpy(stretch1, signal1.data + (m1.trimmed_start - scaled1), m1.trimmed_duration * sizeof(float));
    std::memcpy(stretch2, signal2.data + (m2.trimmed_start - scaled2), m2.trimmed_duration * sizeof(float));
    pair.SetRawData(stretch1, m1.trimmed_duration, stretch2, m2.trimmed_duration, true);

    KVX_LOG(info) << pairText(m1, m2) << " has been loaded.";
    std::lock_guard<std::mutex> lock(map_mutex);
    in_flight[pair.GetReadIndex()] = std::make_pair(pair.read1, pair.read2);
    return true;
}

void FileDataHandlerMD::PassCalledRead(ReadHolder& holder, int worker) {
    auto& pair = dynamic_cast<ReadHolderMD&>(holder);
    if (pair.GetPriority() != 0) {
        throw std::runtime_error("FileDataHandler class does not support high priority reads.");
    }
    {
        std::lock_guard<std::mutex> lock(map_mutex);
        const auto found = in_flight.find(pair.GetReadIndex());
        if (found == in_flight.end()) {
            throw std::runtime_error("Passed back called read from another data handler.");
        }
        pair.read1 = found->second.first;
        pair.read2 = found->second.second;
        in_flight.erase(found);
    }
    pair.stride = stride;
    if (pair.sequence.empty() && !pair.aggregated) {
        pair.Aggregate();
    }
    if (reverse_sequence) {
        std::reverse(pair.sequence.begin(), pair.sequence.end());
        std::reverse(pair.qualities.begin(), pair.qualities.end());
    }
    if (u_substitution) {
        std::replace(pair.sequence.begin(), pair.sequence.end(), 'T', 'U');
    }
    KVX_LOG(info) << pairText(pair.read1, pair.read2) << " completed.";
    events_done += pair.GetDuration() / stride;
    processor->PostProcess(pair, worker);
    ++reads_done;
}

}  // namespace AsyncCaller
