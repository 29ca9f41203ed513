#pragma once
// FASTQ records: a validated title line, sequence and quality string, the text they make in a
// file, and a walk over a stream of such records.

#include <chrono>
#include <cstdint>
#include <istream>
#include <string>

namespace Common {

// What the title line of a called read is made of.
struct FastQHeaderFields {
    std::string read_id;
    std::string run_id;
    std::string sample_id;
    std::string start_time;  // wall-clock text of the read's start
    std::uint32_t channel = 0;
    std::uint32_t read_number = 0;
};

class FastQRecord {
public:
    FastQRecord() = default;
    // Stores and validates; see Set.
    FastQRecord(const std::string& header, const std::string& sequence, const std::string& qstring);
    virtual ~FastQRecord() = default;

    // Stores the three parts, then validates them: equal lengths, bases from "ACGTU" (upper case
    // only), quality characters from '!' to '~'. Failures are std::runtime_error. An all-empty
    // record is valid.
    void Set(const std::string& header, const std::string& sequence, const std::string& qstring);

    // The record as it stands in a file: header, sequence, "+", qualities, one per line.
    std::string ToString() const;
    // Three labelled lines for messages.
    std::string Print() const;

    // The read id: the title from after the '@' up to the first blank. A title of nothing but
    // '@' logs a warning and gives "[invalid read id]"; an empty header throws.
    std::string GetReadId() const;
    // The value of the "runid=" field, up to the next blank. Without one, a warning is logged and
    // the result is "[invalid run id]"; an empty header throws.
    std::string GetRunId() const;
    // The header extended by " key=value"; the record itself is unchanged.
    std::string AddHeaderField(const std::string& key, const std::string& value) const;

    // "@<read_id> runid=<run_id> sampleid=<sample_id> read=<n> ch=<n> start_time=<text>".
    static std::string MakeHeader(const FastQHeaderFields& fields);

    const std::string& Header() const { return header; }
    const std::string& Sequence() const { return sequence; }
    const std::string& Qstring() const { return qstring; }

protected:
    void validate() const;

    std::string header;
    std::string sequence;
    std::string qstring;
};

// Walks a stream of FASTQ text; the current record is the object itself.
//
//   Common::FastQIterable records(stream);
//   for (records.begin(); !records.AtEnd(); records.Increment()) use(records.Sequence());
//
// A record that fails validation, or a failing stream, ends the walk (with a logged message), as
// does the end of the stream. The line after the sequence is read and not checked.
class FastQIterable : public FastQRecord {
public:
    static constexpr std::int32_t kRunning = 0;
    static constexpr std::int32_t kEnd = 2;

    explicit FastQIterable(std::istream& stream);

    // Reads the first record. Fails with "Cannot start FastQ iteration twice" once the walk has
    // ended.
    FastQIterable& begin();
    // Reads the next record, or ends the walk.
    void Increment();
    bool AtEnd() const { return state == kEnd; }
    std::int32_t State() const { return state; }

private:
    std::int32_t state = kRunning;
    std::istream* stream;
};

}  // namespace Common
