#pragma once
// Accuracy yardstick of the test bed: aligns called reads to their true sequences and summarises the
// identities per set of calls.

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace TestBed {

struct SequenceRecord {
    std::string id;        // first word of the title
    std::string sequence;
    std::string quality;   // FASTQ quality characters; empty for FASTA
};

// Reads FASTA or FASTQ (told apart by the first character); gzip is not supported.
std::vector<SequenceRecord> ReadSequences(const std::string& path);

struct AlignmentCounts {
    std::size_t matches = 0;
    std::size_t mismatches = 0;
    std::size_t insertions = 0;  // bases of the call that the truth does not have
    std::size_t deletions = 0;   // bases of the truth that the call misses
    // Identity over the aligned columns: matches / (matches + mismatches + insertions + deletions).
    double Identity() const;
};

// Counts the columns of the best infix alignment of the call within the truth (free truth ends, so a
// call trimmed at either end is not punished for what it did not attempt). Both orientations of the
// call are tried and the one with the lower edit distance kept (forward on a tie).
AlignmentCounts AlignToTruth(const std::string& call, const std::string& truth);

// The same alignment, with its errors laid on the call's bases so that they can be set against the
// printed qualities: a substitution or an inserted call base charges 1 to that base; a truth base the
// call misses charges 1/2 to each of the two call bases beside it, or 1 to the only neighbour at an
// end. The charges add up to mismatches + insertions + deletions.
struct BaseCharges {
    AlignmentCounts counts;
    bool reverse = false;          // the reverse complement of the call aligned better
    std::vector<double> charges;   // one per call base, in the call's own order (not the aligned one)
};
BaseCharges ChargeBases(const std::string& call, const std::string& truth);

// Errors -> Q: -10 log10(errors / total), capped at 60 (also for zero errors).
double PhredOf(double errors, double total);

// Bases binned by printed quality (the FASTQ character - 33), one bin per value.
struct QualityBins {
    std::vector<std::size_t> bases;
    std::vector<double> errors;
    // False, adding nothing, when the quality string does not match the charges in length.
    bool Add(const std::string& quality, const std::vector<double>& charges);
};

struct SetSummary {
    std::string name;
    std::size_t count = 0;
    double median = 0, mean = 0, p10 = 0;
    double median_qscore = 0;  // -10 log10 of the median error rate, capped at 60
};

SetSummary Summarise(const std::string& name, std::vector<double> identities);

// Table with one row per set, and the same as a JSON document.
std::string FormatTable(const std::vector<SetSummary>& sets);
std::string FormatJson(const std::vector<SetSummary>& sets);

}  // namespace TestBed
