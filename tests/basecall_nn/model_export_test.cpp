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

// Posteriors are compared relative to their size, with an absolute floor for the tiny ones: float
// rounding differs between torch and CBLAS, and the recurrent layers carry it along. The largest
// deviation, in units of the allowed one, is kept with its place, so a failure says where, once.
struct Deviation {
    void add(float got, double want, const std::string& where) {
        const double units = std::fabs(got - want) / (2e-4 * std::fabs(want) + 2e-7);
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

}  // namespace

TEST(ModelExportTest, RunnerGivesTheTrainingPosteriorsAndPath) {
    std::ifstream file(nn_test::DataPath("export_fixture.json"));
    std::stringstream text;
    text << file.rdbuf();
    rapidjson::Document fixture;
    fixture.Parse(text.str().c_str());
    ASSERT_TRUE(!fixture.HasParseError() && fixture.IsObject())
        << "export_fixture.json is missing or not JSON";
    std::vector<float> input;
    for (const auto& v : fixture["input"].GetArray()) input.push_back(static_cast<float>(v.GetDouble()));
    // ceil(samples / 3) rows: the padding of the convolution keeps every sample of a chunk.
    const int rows = static_cast<int>((input.size() + 2) / 3), cols = 1025;
    ASSERT_EQ(std::make_pair(fixture["rows"].GetInt(), fixture["cols"].GetInt()), std::make_pair(rows, cols));

    NNLoader loader(std::string(KVX_SOURCE_DIR) + "/data/" + fixture["model"].GetString());
    auto caller = std::make_shared<NNCallerCblas>();
    loader.LoadInto(*caller);
    const auto runner = caller->CreateRunner(caller, static_cast<int>(input.size()));

    Common::MatView<float> in = runner->InputView();
    for (std::size_t i = 0; i < input.size(); ++i) in(i, 0) = input[i];
    const Common::MatView<float> out = runner->Run(static_cast<int>(input.size()));
    ASSERT_EQ(std::make_pair(int(out.rows), int(out.cols)), std::make_pair(rows, cols));
    // Every column of a few rows spread over the chunk (both ends see the zero padding and the start
    // of one of the recurrent directions), then the stay and largest 5-mer columns of every row.
    Deviation dev;
    for (const auto& member : fixture["full_rows"].GetObject()) {
        const int r = std::stoi(member.name.GetString());
        double sum = 0;
        for (int c = 0; c < cols; ++c) {
            dev.add(out(r, c), member.value[c].GetDouble(),
                    "row " + std::to_string(r) + " column " + std::to_string(c));
            sum += out(r, c);
        }
        EXPECT_NEAR(sum, 1.0, 1e-4);
    }
    const auto& top = fixture["top"].GetArray();
    ASSERT_EQ(static_cast<int>(top.Size()), rows);
    for (int r = 0; r < rows; ++r) {
        const std::string where = "row " + std::to_string(r);
        dev.add(out(r, cols - 1), top[r]["stay"].GetDouble(), where + " stay");
        const auto& columns = top[r]["columns"].GetArray();
        for (rapidjson::SizeType i = 0; i < columns.Size(); ++i) {
            const int c = columns[i].GetInt();
            dev.add(out(r, c), top[r]["values"][i].GetDouble(), where + " column " + std::to_string(c));
        }
    }
    EXPECT_GT(dev.compared, 5 * cols);
    EXPECT_LE(dev.worst, 1.0) << "largest deviation at " << dev.place << kRegenerate;
    RecordProperty("worst_deviation_units", std::to_string(dev.worst));

    // The path that the runner's decoding steps, redone in numpy, find in the torch posteriors. The
    // fixture holds normalised samples, as the pair pipeline hands them over. Posteriors agree to
    // float rounding only, so a near tie could in principle flip a row; none does on this fixture.
    runner->normaliseRaw = false;
    Common::EventData<Common::Deep> events;
    events.resize(static_cast<std::size_t>(rows));
    TransProbs trans;
    runner->Call(events, Common::VecView<float>(input), 4000.0f, trans, 1e-5f, -1, -1, true, true, false);
    ASSERT_EQ(static_cast<int>(runner->states.size()), rows)
        << "the shipped model failed to decode its fixture";
    int differ = 0;
    for (int r = 0; r < rows; ++r)
        differ += runner->states[r] != fixture["decoded_states"][r].GetInt() ||
                  runner->moves[r] != fixture["decoded_moves"][r].GetInt();
    EXPECT_EQ(differ, 0) << kRegenerate;
    EXPECT_NEAR(runner->score, fixture["decoded_score"].GetDouble(), 1e-3);
    // A trained model finds bases in the signal: about one for every three rows at 9 samples a base.
    EXPECT_GT(rows - std::count(runner->moves.begin(), runner->moves.end(), 0), rows / 5);
}
