// The shipped model, read by the program's loader and run by the program's runner, against the
// posteriors that the training framework computed for the same samples
// (tests/data/basecall_nn/export_fixture.json, written by tools/training/make_export_fixture.py).
// A difference means that the export, the loader or a layer no longer computes what was trained.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "basecall_nn/nn_caller_cblas.h"
#include "basecall_nn/nn_loader.h"
#include "basecall_nn/nn_runner.h"
#include "common/event_data.h"
#include "nn_test_util.h"

using namespace BasecallNN;

namespace {

const char* kRegenerate = "; if the shipped model changed, rerun tools/training/make_export_fixture.py";

rapidjson::Document readFixture() {
    std::ifstream in(nn_test::DataPath("export_fixture.json"));
    std::stringstream text;
    text << in.rdbuf();
    rapidjson::Document doc;
    doc.Parse(text.str().c_str());
    if (doc.HasParseError() || !doc.IsObject()) {
        throw std::runtime_error("export_fixture.json is missing or not JSON");
    }
    return doc;
}

std::vector<float> floats(const rapidjson::Value& array) {
    std::vector<float> out;
    for (const auto& v : array.GetArray()) out.push_back(static_cast<float>(v.GetDouble()));
    return out;
}

// Posteriors are compared relative to their size, with an absolute floor for the tiny ones: float
// rounding differs between torch and CBLAS, and the recurrent layers carry it along. The
// largest deviation seen, in units of the allowed one, is kept with its place, so that a failure
// says where and by how much, once.
struct Deviation {
    void add(float got, float want, const std::string& where) {
        const double units = std::fabs(static_cast<double>(got) - want) / (2e-4 * std::fabs(want) + 2e-7);
        ++compared;
        if (!(units <= worst)) {  // NaN counts as the worst
            worst = std::isnan(units) ? INFINITY : units;
            place = where + ": got " + std::to_string(got) + ", torch " + std::to_string(want);
        }
    }
    double worst = 0.0;
    std::string place;
    int compared = 0;
};

struct Loaded {
    std::shared_ptr<NNCallerCblas> caller;
    std::shared_ptr<NNRunner> runner;
};

Loaded loadShippedModel(const rapidjson::Document& fixture, int samples) {
    const std::string path = std::string(KVX_SOURCE_DIR) + "/data/" + fixture["model"].GetString();
    NNLoader loader(path);
    EXPECT_EQ(loader.GetDecodeType(), kTransducer);
    EXPECT_EQ(loader.GetEventStride(), 3u);
    EXPECT_EQ(loader.GetLablLength(), 5u);
    EXPECT_TRUE(loader.IsRawModel());
    Loaded out;
    out.caller = std::make_shared<NNCallerCblas>();
    loader.LoadInto(*out.caller);
    EXPECT_EQ(out.caller->num_states, 1025);
    EXPECT_EQ(out.caller->label_state, 1024);
    EXPECT_EQ(out.caller->feature_kind, kFeaturesRaw);
    EXPECT_EQ(out.caller->decode_type, kTransducer);
    EXPECT_EQ(out.caller->event_stride, 3);
    out.runner = out.caller->CreateRunner(out.caller, samples);
    return out;
}

}  // namespace

TEST(ModelExportTest, RunnerGivesTheTrainingPosteriors) {
    const rapidjson::Document fixture = readFixture();
    const std::vector<float> input = floats(fixture["input"]);
    const int rows = fixture["rows"].GetInt();
    const int cols = fixture["cols"].GetInt();
    ASSERT_EQ(cols, 1025);
    // ceil(samples / 3) rows: the padding of the convolution keeps every sample of a chunk.
    ASSERT_EQ(rows, static_cast<int>((input.size() + 2) / 3));

    Loaded m = loadShippedModel(fixture, static_cast<int>(input.size()));
    Common::MatView<float> in = m.runner->InputView();
    ASSERT_GE(in.rows, input.size());
    for (std::size_t i = 0; i < input.size(); ++i) in(i, 0) = input[i];
    const Common::MatView<float> out = m.runner->Run(static_cast<int>(input.size()));
    ASSERT_EQ(static_cast<int>(out.rows), rows);
    ASSERT_EQ(static_cast<int>(out.cols), cols);

    // Every column of a few rows spread over the chunk (both ends see the zero padding and the
    // start of one of the recurrent directions).
    Deviation dev;
    int fullRows = 0;
    for (const auto& member : fixture["full_rows"].GetObject()) {
        const int r = std::stoi(member.name.GetString());
        const std::vector<float> want = floats(member.value);
        ASSERT_EQ(static_cast<int>(want.size()), cols);
        double sum = 0;
        for (int c = 0; c < cols; ++c) {
            dev.add(out(r, c), want[c], "row " + std::to_string(r) + " column " + std::to_string(c));
            sum += out(r, c);
        }
        EXPECT_NEAR(sum, 1.0, 1e-4);
        ++fullRows;
    }
    EXPECT_GE(fullRows, 5);

    // The stay column and the largest 5-mer columns of every row.
    const auto& top = fixture["top"].GetArray();
    ASSERT_EQ(static_cast<int>(top.Size()), rows);
    for (int r = 0; r < rows; ++r) {
        const std::string where = "row " + std::to_string(r);
        dev.add(out(r, cols - 1), static_cast<float>(top[r]["stay"].GetDouble()), where + " stay");
        const auto& columns = top[r]["columns"].GetArray();
        const auto& values = top[r]["values"].GetArray();
        for (rapidjson::SizeType i = 0; i < columns.Size(); ++i) {
            dev.add(out(r, columns[i].GetInt()), static_cast<float>(values[i].GetDouble()),
                    where + " column " + std::to_string(columns[i].GetInt()));
        }
    }
    EXPECT_GT(dev.compared, 5 * cols);
    EXPECT_LE(dev.worst, 1.0) << "largest deviation at " << dev.place << kRegenerate;
    RecordProperty("worst_deviation_units", std::to_string(dev.worst));
}

TEST(ModelExportTest, TransducerCallFollowsTheTrainingPath) {
    const rapidjson::Document fixture = readFixture();
    std::vector<float> input = floats(fixture["input"]);
    const int rows = fixture["rows"].GetInt();
    Loaded m = loadShippedModel(fixture, static_cast<int>(input.size()));
    // The fixture holds normalised samples, as the pair pipeline hands them over.
    m.runner->normaliseRaw = false;

    Common::EventData<Common::Deep> events;
    events.resize(static_cast<std::size_t>(rows));
    TransProbs trans;
    m.runner->Call(events, Common::VecView<float>(input.data(), input.size(), 1), 4000.0f, trans, 1e-5f, -1, -1,
                   true, true, false);
    ASSERT_TRUE(std::isfinite(m.runner->score)) << "the shipped model failed to decode its fixture";
    ASSERT_EQ(static_cast<int>(m.runner->states.size()), rows);

    // The path found in the torch posteriors by the decoding steps of the runner, redone in numpy.
    // Posteriors agree to float rounding only, so a near tie could in principle flip a row; none
    // does on this fixture.
    const auto& wantStates = fixture["decoded_states"].GetArray();
    const auto& wantMoves = fixture["decoded_moves"].GetArray();
    int differ = 0;
    for (int r = 0; r < rows; ++r) {
        differ += m.runner->states[r] != wantStates[r].GetInt() || m.runner->moves[r] != wantMoves[r].GetInt();
    }
    EXPECT_EQ(differ, 0) << kRegenerate;
    EXPECT_NEAR(m.runner->score, fixture["decoded_score"].GetDouble(), 1e-3);
    // A trained model finds bases in the signal: about one for every three rows at 9 samples a base.
    const std::size_t bases = std::count_if(m.runner->moves.begin(), m.runner->moves.end(),
                                            [](signed char mv) { return mv > 0; });
    EXPECT_GT(bases, static_cast<std::size_t>(rows) / 5);
}
