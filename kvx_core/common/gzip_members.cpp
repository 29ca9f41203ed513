#include "common/gzip_members.h"

#include <algorithm>
#include <stdexcept>

#include <zlib.h>

namespace Common {

namespace {

// zlib counts its input and output in 32-bit units: larger texts go through in slices.
constexpr std::size_t kSlice = std::size_t(1) << 30;
// windowBits of the largest window, plus 16: a gzip wrapper rather than a zlib one.
constexpr int kGzipWindowBits = 15 + 16;

// Gives zlib the next slice of `data` once it has used up the one before; `fed` counts what it was given.
void feedSlice(z_stream& z, const std::string& data, std::size_t& fed) {
    if (z.avail_in == 0 && fed < data.size()) {
        const std::size_t n = std::min(data.size() - fed, kSlice);
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data() + fed));
        z.avail_in = static_cast<uInt>(n);
        fed += n;
    }
}

}  // namespace

struct GzipMemberWriter::State {
    z_stream stream{};
};

GzipMemberWriter::GzipMemberWriter(int level) : state(std::make_unique<State>()) {
    if (deflateInit2(&state->stream, level, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("Could not set up gzip compression (zlib level " + std::to_string(level) + ").");
    }
}

GzipMemberWriter::~GzipMemberWriter() { deflateEnd(&state->stream); }

const std::string& GzipMemberWriter::Member(const std::string& text) {
    z_stream& z = state->stream;
    if (deflateReset(&z) != Z_OK) {
        throw std::runtime_error("Could not start a gzip member.");
    }
    member.clear();
    std::size_t fed = 0;
    char buffer[1 << 16];
    int rc = Z_OK;
    do {
        feedSlice(z, text, fed);
        z.next_out = reinterpret_cast<Bytef*>(buffer);
        z.avail_out = sizeof(buffer);
        rc = deflate(&z, fed < text.size() ? Z_NO_FLUSH : Z_FINISH);
        member.append(buffer, sizeof(buffer) - z.avail_out);
    } while (rc == Z_OK);
    if (rc != Z_STREAM_END) {
        throw std::runtime_error("Could not compress a text of " + std::to_string(text.size()) +
                                 " bytes into a gzip member (zlib error " + std::to_string(rc) + ").");
    }
    return member;
}

GzipMembers ReadGzipMembers(const std::string& bytes) {
    GzipMembers found;
    z_stream z{};
    if (inflateInit2(&z, kGzipWindowBits) != Z_OK) {
        throw std::runtime_error("Could not set up gzip decompression.");
    }
    char buffer[1 << 16];
    std::size_t at = 0;
    while (at < bytes.size()) {
        inflateReset(&z);
        z.avail_in = 0;
        std::size_t fed = at;
        const std::size_t text_start = found.text.size();
        int rc = Z_OK;
        while (true) {
            feedSlice(z, bytes, fed);
            z.next_out = reinterpret_cast<Bytef*>(buffer);
            z.avail_out = sizeof(buffer);
            rc = inflate(&z, Z_NO_FLUSH);
            found.text.append(buffer, sizeof(buffer) - z.avail_out);
            // Z_BUF_ERROR only means "no progress": go on while there is input left to give.
            const bool more = rc == Z_OK || (rc == Z_BUF_ERROR && z.avail_in == 0 && fed < bytes.size());
            if (!more) {
                break;
            }
        }
        if (rc != Z_STREAM_END) {
            // Cut, damaged, or not gzip at all: the complete members end before it.
            found.text.resize(text_start);
            found.complete = false;
            break;
        }
        at += static_cast<std::size_t>(z.total_in);
        found.member_ends.push_back(at);
        found.text_ends.push_back(found.text.size());
    }
    inflateEnd(&z);
    return found;
}

}  // namespace Common
