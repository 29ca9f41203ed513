// Several threads using different read files at once: every HDF5 call goes through the one
// process mutex, so this must be clean under ThreadSanitizer and give the single-thread results.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <numeric>
#include <thread>

#include "data_api/rawh5_read_source.h"
#include "test_files.h"

using namespace DataAPI;
using H5Wrapper::H5Mode;
using kvx_test::Fixture;
using kvx_test::Scratch;

namespace {

// Everything a loader thread takes from one multi-read fixture, folded into one number.
long digest(const std::string& path) {
    Rawh5::ReadSource source(path, H5Mode::ReadOnly);
    long sum = 0;
    for (const std::string& id : source.GetReadIds()) {
        auto read = source.GetRead(id);
        const std::vector<std::int16_t> samples = read->GetRawData();
        sum += std::accumulate(samples.begin(), samples.end(), 0l) + long(read->Metadata().size());
        for (const NamePath& name : read->GetAnalyses()) {
            auto analysis = read->GetAnalysis(name);
            for (const NamePath& ds : analysis->Datasets()) {
                if (ds.name == "Move") {
                    for (std::uint8_t m : analysis->GetDataSet(ds)->ReadVector<std::uint8_t>()) sum += m;
                } else if (ds.name == "Fastq") {
                    sum += long(analysis->GetDataSet(ds)->ReadString().size());
                } else if (ds.name == "Events") {
                    sum += long(analysis->GetDataSet(ds)->ReadTable().Rows());
                }
            }
        }
    }
    return sum;
}

// A thread that writes while the others read.
long writeAndReadBack(const std::string& path, int seed) {
    {
        Rawh5::ReadSource source(path, H5Mode::CreateTruncate);
        for (int r = 0; r < 3; ++r) {
            auto read = source.AddRead("w" + std::to_string(r));
            const unsigned int n = 3000 + r;
            read->SetMetadata(kvx_test::MetadataFor("w" + std::to_string(r), n, 1));
            std::vector<std::int16_t> samples(n);
            for (unsigned int i = 0; i < n; ++i) samples[i] = std::int16_t((i * (seed + 3)) % 2000);
            read->SetRawData(samples);
        }
    }
    Rawh5::ReadSource source(path, H5Mode::ReadOnly);
    long sum = 0;
    for (const std::string& id : source.GetReadIds()) {
        const std::vector<std::int16_t> samples = source.GetRead(id)->GetRawData();
        sum += std::accumulate(samples.begin(), samples.end(), 0l);
    }
    return sum;
}

}  // namespace

TEST(Rawh5Threads, ReadersOfDifferentFilesRunTogether) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 6;
    std::vector<std::string> copies;
    for (int t = 0; t < kThreads; ++t) {
        copies.push_back(Scratch().File("thread_copy_" + std::to_string(t) + ".rawh5"));
        std::filesystem::copy_file(Fixture("multi.rawh5"), copies.back(),
                                   std::filesystem::copy_options::overwrite_existing);
    }
    const long expected = digest(Fixture("multi.rawh5"));
    ASSERT_NE(expected, 0);

    std::atomic<int> mismatches{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            try {
                for (int round = 0; round < kRounds; ++round)
                    if (digest(copies[t]) != expected) ++mismatches;
            } catch (...) {
                ++failures;
            }
        });
    }
    long written_once = 0;
    std::thread writer([&] {
        try {
            written_once = writeAndReadBack(Scratch().File("thread_written.rawh5"), 1);
            for (int round = 0; round < 2; ++round)
                if (writeAndReadBack(Scratch().File("thread_written.rawh5"), 1) != written_once) ++mismatches;
        } catch (...) {
            ++failures;
        }
    });
    for (auto& thread : threads) thread.join();
    writer.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_NE(written_once, 0);
}
