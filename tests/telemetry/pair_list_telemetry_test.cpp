// The program's own parameter set and pair list feeding the telemetry.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "basecall_1d2_params.h"
#include "pair_list.h"
#include "telemetry/telemetry_aggregator.h"
#include "telemetry_test_util.h"

using namespace telemetry_test;

namespace {

std::unique_ptr<Marlo::Basecall1D2Params> ProgramParams(std::vector<std::string> args) {
    args.insert(args.begin(), "prog");
    std::vector<const char*> argv;
    for (const auto& arg : args) {
        argv.push_back(arg.c_str());
    }
    auto params = std::make_unique<Marlo::Basecall1D2Params>();
    std::istringstream config("");
    const auto flags = params->ParseArguments(&config, "", static_cast<int>(argv.size()), argv.data(), "");
    if (flags != 0) {
        throw std::runtime_error("parameters did not parse: " + params->ErrorText());
    }
    return params;
}

}  // namespace

TEST(TelemetryPairList, CandidatesOfTheIndexReachTheTelemetry) {
    TempDir dir;
    const fs::path reads = dir.path / "reads";
    fs::create_directories(reads);
    for (const char* name : {"a.rawh5", "b.rawh5", "c.rawh5", "d.rawh5"}) {
        std::ofstream((reads / name).string());  // listed by name only; never opened
    }
    const std::string index = (dir.path / "index.txt").string();
    std::ofstream(index) << "filename\tread_id\trun_id\tchannel\tstart_time\tduration\tsequence_length_template\n"
                         << "a.rawh5\tra\trun7\t5\t10.0\t20.0\t1000\n"
                         << "b.rawh5\trb\trun7\t5\t30.2\t20.0\t1100\n"   // pairs with ra: gap 0.2
                         << "c.rawh5\trc\trun7\t5\t125.0\t10.0\t500\n"  // candidate rb-rc only
                         << "d.rawh5\trd\trun7\t9\t1.0\t1.0\t100\n";    // alone on its channel

    auto params = ProgramParams({"-f", index, "-s", dir.Str(), "-i", reads.string(), "-m", "/opt/models/m.json",
                                 "--ping_segment_duration", "1"});
    TelemetryAggregator telemetry("9.9", *params, params->save_path, true);
    const auto pairs = Marlo::GetFileList(index, reads.string(), false, &telemetry);
    ASSERT_EQ(pairs.size(), 1u);
    telemetry.Finish();

    rapidjson::Document docs;
    docs.Parse(ReadText(telemetry.TelemetryFile()).c_str());
    ASSERT_TRUE(docs.IsArray());
    // Candidates ra-rb (ends 30 s: segment 1) and rb-rc (ends 50.2 s: segment 1), both of run7.
    ASSERT_EQ(docs.Size(), 2u);
    const auto& call = docs[0]["basecall_1d2"];
    EXPECT_EQ(call["potential_candidate_pairs_count"].GetUint64(), 2u);
    ASSERT_EQ(call["seq_len_ratio_bases_dist"].Size(), 2u);
    EXPECT_DOUBLE_EQ(call["seq_len_ratio_bases_dist"][0]["ratio"].GetDouble(), 0.9);  // 1000 / 1100
    EXPECT_DOUBLE_EQ(call["seq_len_ratio_bases_dist"][1]["ratio"].GetDouble(), 2.2);  // 1100 / 500
    EXPECT_DOUBLE_EQ(call["open_pore_length_seconds_dist"][0]["length"].GetDouble(), 0.2);

    // The real option set: paths and workflow lists stay out, file options keep their names only.
    const auto& opts = docs[0]["opts"];
    for (const char* left_out : {"compatible_flowcells", "compatible_kits", "compatible_kits_with_barcoding",
                                 "input_path", "save_path"}) {
        EXPECT_FALSE(opts.HasMember(left_out)) << left_out;
    }
    EXPECT_STREQ(opts["model_file"].GetString(), "m.json");
    EXPECT_STREQ(opts["index_file"].GetString(), "index.txt");
    EXPECT_STREQ(opts["ping_segment_duration"].GetString(), "1");
    EXPECT_STREQ(opts["band_size"].GetString(), "5");
    const auto names = MemberNames(opts);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(names.size(), params->OptionNames().size() - 5);
}
