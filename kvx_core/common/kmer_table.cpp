#include "common/kmer_table.h"

#include <cstdint>
#include <stdexcept>

#include "common/logger.h"
#include "common/table_reader.h"

namespace Common {

namespace {

const char* const kColumns[] = {"level_mean", "level_stdv", "sd_mean", "sd_stdv"};

// Index of a k-mer written in "ACGT", or -1 if it has another length or letter.
std::int64_t kmerIndex(const std::string& kmer, int kmerLength) {
    if (kmer.size() != static_cast<std::size_t>(kmerLength)) {
        return -1;
    }
    std::int64_t index = 0;
    for (char c : kmer) {
        int digit;
        switch (c) {
            case 'A': digit = 0; break;
            case 'C': digit = 1; break;
            case 'G': digit = 2; break;
            case 'T': digit = 3; break;
            default: return -1;
        }
        index = index * 4 + digit;
    }
    return index;
}

}  // namespace

void KmerTable::Read(const std::string& path, int kmerLength) {
    TableReader table;
    table.Read(path);

    std::vector<std::vector<double>> values(4);
    for (int c = 0; c < 4; ++c) {
        const int index = table.ColumnIndex(kColumns[c]);
        if (index < 0) {
            throw std::runtime_error(std::string("Required column \"") + kColumns[c] +
                                     "\" not found in k-mer table: " + path);
        }
        table.GetColumn(index, values[c], 0.0);
    }

    const std::size_t rows = table.RowCount();
    std::size_t expected = 1;
    for (int i = 0; kmerLength > 0 && i < kmerLength && expected <= rows; ++i) {
        expected *= 4;
    }
    if (kmerLength <= 0 || rows != expected) {
        throw std::runtime_error("Invalid model length.");
    }

    std::vector<std::int64_t> order(rows);
    const int kmerColumn = table.ColumnIndex("kmer");
    if (kmerColumn >= 0) {
        std::vector<std::string> kmers;
        table.GetColumn(kmerColumn, kmers, std::string());
        std::vector<bool> seen(rows, false);
        for (std::size_t r = 0; r < rows; ++r) {
            const std::int64_t k = kmerIndex(kmers[r], kmerLength);
            if (k < 0 || seen[static_cast<std::size_t>(k)]) {
                throw std::runtime_error("Invalid or repeated k-mer \"" + kmers[r] + "\" in line " +
                                         std::to_string(r + 2) + " of k-mer table: " + path);
            }
            seen[static_cast<std::size_t>(k)] = true;
            order[r] = k;
        }
    } else {
        for (std::size_t r = 0; r < rows; ++r) {
            order[r] = static_cast<std::int64_t>(r);
        }
    }

    std::vector<float>* outs[] = {&level_mean, &level_stdv, &sd_mean, &sd_stdv};
    for (int c = 0; c < 4; ++c) {
        outs[c]->assign(rows, 0.0f);
        for (std::size_t r = 0; r < rows; ++r) {
            (*outs[c])[static_cast<std::size_t>(order[r])] = static_cast<float>(values[c][r]);
        }
    }
    KVX_LOG(verbose) << "Read k-mer table of " << rows << " rows from " << path;
}

}  // namespace Common
