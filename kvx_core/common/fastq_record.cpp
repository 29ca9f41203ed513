#include "common/fastq_record.h"

#include <stdexcept>

#include "common/logger.h"

namespace Common {

namespace {
// Where a header field ends: at a blank, or at the end of the line.
constexpr const char* kFieldEnd = " \t\r\n";
}  // namespace

FastQRecord::FastQRecord(const std::string& header_, const std::string& sequence_, const std::string& qstring_) {
    Set(header_, sequence_, qstring_);
}

void FastQRecord::Set(const std::string& header_, const std::string& sequence_, const std::string& qstring_) {
    header = header_;
    sequence = sequence_;
    qstring = qstring_;
    validate();
}

void FastQRecord::validate() const {
    if (sequence.size() != qstring.size())
        throw std::runtime_error("Sequence is not the same length as the qstring\n" + Print());
    const std::size_t bad = sequence.find_first_not_of("ACGTU");
    if (bad != std::string::npos)
        throw std::runtime_error(std::string("Sequence contained an unexpected character '") + sequence[bad] +
                                 "' at position " + std::to_string(bad) + "\n" + Print());
    for (char c : qstring) {
        if (c < 0x21 || c > 0x7E) throw std::runtime_error(std::string("Unsupported character in the Qstring: ") + c);
    }
}

std::string FastQRecord::ToString() const { return header + "\n" + sequence + "\n+\n" + qstring + "\n"; }

std::string FastQRecord::Print() const {
    return "Header: " + header + "\nSequence: " + sequence + "\nQstring: " + qstring + "\n";
}

std::string FastQRecord::GetReadId() const {
    if (header.empty()) throw std::runtime_error("Cannot get the read ID from an empty FastQ record.");
    if (header.size() == 1) {
        KVX_LOG(warning) << "Read title '" << header << "' does not have any space. Continuing with next read.";
        KVX_LOG(warning) << "Could not extract read id from fastq title. Continuing with next read.";
        return "[invalid read id]";
    }
    const std::size_t end = header.find_first_of(kFieldEnd, 1);
    return header.substr(1, end == std::string::npos ? std::string::npos : end - 1);
}

std::string FastQRecord::GetRunId() const {
    if (header.empty()) throw std::runtime_error("Cannot get the run ID from an empty FastQ record.");
    static const std::string key = "runid=";
    const std::size_t found = header.find(key, 1);
    if (found == std::string::npos) {
        KVX_LOG(warning) << "Could not find 'runid=' in the title: " << header;
        KVX_LOG(warning) << "Could not extract run id from fastq title. Continuing with next read.";
        return "[invalid run id]";
    }
    const std::size_t start = found + key.size();
    const std::size_t end = header.find_first_of(kFieldEnd, start);
    return header.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::string FastQRecord::AddHeaderField(const std::string& key, const std::string& value) const {
    return header + " " + key + "=" + value;
}

std::string FastQRecord::MakeHeader(const FastQHeaderFields& f) {
    return "@" + f.read_id + " runid=" + f.run_id + " sampleid=" + f.sample_id + " read=" +
           std::to_string(f.read_number) + " ch=" + std::to_string(f.channel) + " start_time=" + f.start_time;
}

FastQIterable::FastQIterable(std::istream& stream_) : stream(&stream_) {}

FastQIterable& FastQIterable::begin() {
    if (state != kRunning) throw std::runtime_error("Cannot start FastQ iteration twice");
    Increment();
    return *this;
}

void FastQIterable::Increment() {
    KVX_LOG(trace) << "FastQIterable::Increment()";
    try {
        std::string lines[4];
        int lines_read = 0;
        for (std::string& line : lines) {
            // A stream already at its end leaves this and the remaining lines empty.
            if (lines_read < 0 || !std::getline(*stream, line)) {
                line.clear();
                if (lines_read == 0) lines_read = -1;
                continue;
            }
            ++lines_read;
        }
        // Not even a title was left: the walk is over.
        if (lines_read < 0) {
            header.clear();
            sequence.clear();
            qstring.clear();
            state = kEnd;
            return;
        }
        KVX_LOG(trace) << "title:  " << lines[0];
        KVX_LOG(trace) << "seq:    " << lines[1];
        KVX_LOG(trace) << "plus:   " << lines[2];
        KVX_LOG(trace) << "qstring:" << lines[3];
        Set(lines[0], lines[1], lines[3]);
    } catch (const std::exception& e) {
        state = kEnd;
        KVX_LOG(message) << "Caught exception, so setting END flag. " << e.what();
    } catch (...) {
        state = kEnd;
        KVX_LOG(message) << "Caught unknown exception, so setting END flag.";
    }
}

}  // namespace Common
