#pragma once
// Gzip files made of many members.
//
// A compressed FASTQ file is written one gzip member per record: every member is a complete gzip
// stream of its own, so a record is readable as soon as its member is on disk, and a file cut by a
// kill is its complete members plus one cut member at the end. Any gzip reader takes the members of
// a file one after the other as one text.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace Common {

// Turns texts into gzip members, reusing one compressor (its state is a few hundred kilobytes; one
// per open file rather than one per record).
class GzipMemberWriter {
public:
    // `level` is zlib's compression level, 0 to 9, or -1 for zlib's default.
    explicit GzipMemberWriter(int level = -1);
    ~GzipMemberWriter();
    GzipMemberWriter(const GzipMemberWriter&) = delete;
    GzipMemberWriter& operator=(const GzipMemberWriter&) = delete;

    // One complete gzip member holding `text`. The result is valid until the next call.
    const std::string& Member(const std::string& text);

private:
    struct State;
    std::unique_ptr<State> state;
    std::string member;
};

// The complete members at the start of a gzip file's bytes.
struct GzipMembers {
    std::string text;                      // the inflated text of all complete members, in order
    std::vector<std::size_t> member_ends;  // per complete member: where it ends in the bytes
    std::vector<std::size_t> text_ends;    // per complete member: where its text ends in `text`
    // True when the bytes are complete members and nothing else. False when they end with a cut
    // member or anything that is not a gzip member, which starts at member_ends.back() (or 0).
    bool complete = true;
};

// Reads member after member until the bytes end or something is not a whole, valid member (cut,
// damaged, or failing its checksum): that and everything after it is left out.
GzipMembers ReadGzipMembers(const std::string& bytes);

}  // namespace Common
