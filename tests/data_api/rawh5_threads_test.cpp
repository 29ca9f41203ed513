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
using kvx_test::Scratch;

namespace {

// Everything a loader thread takes from one multi-read file, folded into one number.
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
                if (ds.name == "Move") sum += analysis->GetDataSet(ds)->ReadVector<std::uint8_t>().size();
                if (ds.name == "Fastq") sum += long(analysis->GetDataSet(ds)->ReadString().size());
                if (ds.name == "Events") sum += long(analysis->GetDataSet(ds)->ReadTable().Rows());
            }
        }
    }
    return sum;
}

// A thread that writes while the others read, then reads its file back.
long writeAndReadBack(const std::string& path) {
    {
        Rawh5::ReadSource source(path, H5Mode::CreateTruncate);
        for (unsigned int r = 0; r < 3; ++r) {
            auto read = source.AddRead("w" + std::to_string(r));
            read->SetMetadata(kvx_test::MetadataFor("w" + std::to_string(r), 3000 + r, 1));
            read->SetRawData(std::vector<std::int16_t>(3000 + r, std::int16_t(r + 1)));
        }
    }
    return digest(path);
}

}  // namespace

TEST(Rawh5Threads, ReadersAndAWriterOfDifferentFilesRunTogether) {
    constexpr int kThreads = 4;
    std::vector<std::string> copies;
    for (int t = 0; t < kThreads; ++t) {
        copies.push_back(Scratch("thread_copy_" + std::to_string(t) + ".rawh5"));
        std::filesystem::copy_file(kvx_test::Fixture("multi.rawh5"), copies.back(),
                                   std::filesystem::copy_options::overwrite_existing);
    }
    const long expected = digest(copies[0]);
    const long written = writeAndReadBack(Scratch("thread_written_0.rawh5"));
    ASSERT_NE(expected, 0);
    std::atomic<int> mismatches{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t <= kThreads; ++t) {
        threads.emplace_back([&, t] {
            try {
                for (int round = 0; round < 6; ++round) {
                    if (t == kThreads ? writeAndReadBack(Scratch("thread_written.rawh5")) != written
                                      : digest(copies[t]) != expected)
                        ++mismatches;
                }
            } catch (...) {
                ++failures;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mismatches.load(), 0);
}
