#pragma once
// Small read files for the loading tests, written with the storage layer's write half.

#include "test_util.h"

#include "data_api/analysis_data.h"
#include "data_api/data_table.h"
#include "data_api/data_view.h"
#include "data_api/h5_object.h"
#include "data_api/rawh5_read_source.h"
#include "data_api/read_data.h"
#include "async_caller/prior_aligner.h"
#include "async_caller/read_pair.h"

namespace TestSupport {

// A path in a scratch folder that goes away with the test program.
inline std::string ScratchFile(const std::string& name) {
    static const TempDir dir;
    return (dir.path / name).string();
}

// A prior aligner over labels that score 100 when they match and `mismatch` otherwise.
struct LabelAligner {
    explicit LabelAligner(int mismatch = -100) : scores(64 * 64, mismatch) {}
    std::vector<int> scores;
    const bool diagonal = [this] {  // before the aligner takes the table
        for (int i = 0; i < 64; ++i) scores[i * 64 + i] = 100;
        return true;
    }();
    AsyncCaller::PriorAligner aligner{Common::MatView<const int>(scores.data(), 64, 64, 64, 1), 500, 300, 1000};
};

// What one read of a file holds. The defaults make a read that loads: one block of 10 samples per
// move, a segmentation covering all blocks after `first_sample`.
struct ReadRecipe {
    std::string id;
    std::vector<std::int16_t> samples;
    // Signed, so that damaged files can be written too.
    std::int64_t first_sample = 0;
    std::int64_t duration_template = 0;  // 0: 10 samples per block
    std::vector<std::uint8_t> moves;
    std::string sequence;                 // the Fastq record's bases
    std::string fastq_text;               // non-empty: the whole Fastq data set, as written
    bool segmentation = true;
    bool basecall = true;
    bool move = true;
    bool fastq = true;
    bool block_stride = true;             // write "block_stride" = 10
    std::int64_t block_stride_value = 10;
    std::vector<std::string> model_states;  // non-empty: write an "Events" table of these
    boost::any channel_number = std::string("12");
};

inline DataAPI::ReadMetadata readMetadata(const ReadRecipe& recipe) {
    return {{"raw_data",
             {{"read_id", recipe.id}, {"duration", static_cast<unsigned int>(recipe.samples.size())},
              {"read_number", 17u}, {"start_time", 4000ul},
              {"start_mux", 1u}, {"median_before", 220.0}}},
            {"channel_id",
             {{"digitisation", 8192.0}, {"offset", 10.0}, {"range", 1400.0}, {"sampling_rate", 4000.0},
              {"channel_number", recipe.channel_number}}},
            {"tracking_id",
             {{"run_id", std::string("run-1")}, {"flow_cell_id", std::string("FC-1")},
              {"sample_id", std::string("sample-1")}, {"exp_start_time", std::string("2017-06-01T10:00:00Z")}}}};
}

inline void writeRead(DataAPI::Rawh5::ReadSource& source, const ReadRecipe& recipe) {
    auto read = source.AddRead(recipe.id);
    read->SetMetadata(readMetadata(recipe));
    read->SetRawData(recipe.samples);
    const std::uint64_t blocks = recipe.model_states.empty() ? recipe.moves.size() : recipe.model_states.size();
    if (recipe.segmentation) {
        auto seg = read->CreateAnalysis("Segmentation", {});
        seg->SetSummary(DataAPI::ReturnStatus::Successful,
                        {{"segmentation",
                          {{"first_sample_template", static_cast<long>(recipe.first_sample)},
                           {"duration_template",
                            static_cast<long>(recipe.duration_template ? recipe.duration_template
                                                                      : static_cast<std::int64_t>(blocks * 10))}}}});
    }
    if (!recipe.basecall) return;
    auto analysis = read->CreateAnalysis("Basecall_1D", {});
    if (recipe.move) analysis->CreateDataSet("BaseCalled_template/Move", DataAPI::DataView::Of(recipe.moves), {});
    if (recipe.fastq) {
        const std::string text = !recipe.fastq_text.empty() ? recipe.fastq_text
                                                            : "@" + recipe.id + "\n" + recipe.sequence + "\n+\n" +
                                                                  std::string(recipe.sequence.size(), '+') + "\n";
        analysis->CreateDataSet("BaseCalled_template/Fastq", DataAPI::DataView::OfString(text), {});
    }
    if (!recipe.model_states.empty()) {
        DataAPI::DataTable events;
        events.AddField("start", DataAPI::DataType::Int64);
        events.AddField("model_state", DataAPI::DataType::FixedString, 5);
        events.Resize(recipe.model_states.size());
        for (std::size_t r = 0; r < recipe.model_states.size(); ++r) {
            events.Set<std::int64_t>(r, "start", static_cast<std::int64_t>(r * 10));
            events.SetString(r, "model_state", recipe.model_states[r]);
        }
        analysis->CreateDataSet("BaseCalled_template/Events", events.View(), {});
    }
    DataAPI::AttributeMap tmpl = {{"mean_qscore", 10.0f}};
    if (recipe.block_stride) tmpl["block_stride"] = static_cast<long>(recipe.block_stride_value);
    analysis->SetSummary(DataAPI::ReturnStatus::Successful, {{"basecall_1d_template", tmpl}});
}

inline std::string reverseComplement(const std::string& s) {
    std::string out(s.rbegin(), s.rend());
    for (char& c : out) c = c == 'A' ? 'T' : c == 'C' ? 'G' : c == 'G' ? 'C' : 'A';
    return out;
}

inline std::vector<std::string> randomMolecules(int count, std::size_t shortest, std::size_t longest,
                                                std::mt19937& random) {
    std::vector<std::string> out(static_cast<std::size_t>(count));
    for (std::string& bases : out) {
        bases.resize(std::uniform_int_distribution<std::size_t>(shortest, longest)(random));
        for (char& c : bases) c = "ACGT"[random() % 4];
    }
    return out;
}

// Writes a pair of reads of each molecule to a new file, named <prefix><i>_1 and _2, for a 5-mer 1D
// model: strand 1 reads the molecule, strand 2 its reverse complement, one block of 10 samples per
// base plus a few stays on strand 2, with 100 samples of lead-in before the segmentation. `damage`
// may spoil a pair before it is written.
inline std::vector<AsyncCaller::ReadPair> writePairs(
    const std::string& path, const std::string& prefix, const std::vector<std::string>& molecules,
    std::mt19937& random, const std::function<void(std::size_t, ReadRecipe&, ReadRecipe&)>& damage = {}) {
    std::uniform_int_distribution<int> noise(-40, 40);
    const auto build = [&](ReadRecipe& recipe, const std::string& id, const std::string& seq, bool stays) {
        recipe.id = id;
        recipe.sequence = seq;
        recipe.moves.assign(1, 1);
        for (std::size_t b = 5; b < seq.size(); ++b) {
            recipe.moves.push_back(1);
            if (stays && b % 37 == 0) recipe.moves.push_back(0);
        }
        recipe.first_sample = 100;
        recipe.samples.assign(100 + recipe.moves.size() * 10 + 50, 0);
        for (std::size_t i = 0; i < recipe.samples.size(); ++i) {
            recipe.samples[i] = static_cast<std::int16_t>(500 + 40 * (seq[(i / 10) % seq.size()] & 7) + noise(random));
        }
    };
    std::vector<AsyncCaller::ReadPair> pairs;
    DataAPI::Rawh5::ReadSource source(path, DataAPI::H5Wrapper::H5Mode::CreateTruncate);
    for (std::size_t i = 0; i < molecules.size(); ++i) {
        ReadRecipe one, two;
        const std::string id = prefix + std::to_string(i);
        build(one, id + "_1", molecules[i], false);
        build(two, id + "_2", reverseComplement(molecules[i]), true);
        if (damage) damage(i, one, two);
        writeRead(source, one);
        writeRead(source, two);
        pairs.push_back({path, path, one.id, two.id});
    }
    return pairs;
}

}  // namespace TestSupport
