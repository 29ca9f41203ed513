#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "common/gzip_members.h"

using Common::GzipMembers;
using Common::GzipMemberWriter;
using Common::ReadGzipMembers;

namespace {

// A FASTQ-like text of `bases` bases, long enough to need several output buffers when inflated.
std::string RecordText(std::size_t bases, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::string sequence, qualities;
    for (std::size_t i = 0; i < bases; ++i) {
        sequence += "ACGT"[random() % 4];
        qualities += static_cast<char>('!' + random() % 40);
    }
    return "@read" + std::to_string(seed) + " runid=r\n" + sequence + "\n+\n" + qualities + "\n";
}

}  // namespace

// Every prefix of a file of members, as a kill can leave it: the complete members of the prefix are
// found, with their texts, and the file counts as complete only when it ends on a member's end.
TEST(GzipMembers, EveryCutFindsTheMembersBeforeIt) {
    const std::vector<std::string> texts = {"@a\nAC\n+\n!!\n", "", RecordText(50000, 1), "@z\nT\n+\n~\n"};
    GzipMemberWriter writer;
    std::string bytes;
    std::vector<std::size_t> ends;
    for (const std::string& text : texts) {
        bytes += writer.Member(text);
        ends.push_back(bytes.size());
    }
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        // Every cut near a member's edge, and a sample of those inside the long member.
        bool near_edge = cut < 40 || bytes.size() - cut < 40;
        for (const std::size_t end : ends) {
            near_edge = near_edge || (cut + 40 > end && cut < end + 40);
        }
        if (!near_edge && cut % 97 != 0) {
            continue;
        }
        GzipMembers expected;
        for (std::size_t i = 0; i < ends.size() && ends[i] <= cut; ++i) {
            expected.member_ends.push_back(ends[i]);
            expected.text += texts[i];
            expected.text_ends.push_back(expected.text.size());
        }
        expected.complete = cut == 0 || (!expected.member_ends.empty() && expected.member_ends.back() == cut);
        const GzipMembers found = ReadGzipMembers(bytes.substr(0, cut));
        ASSERT_EQ(found.member_ends, expected.member_ends) << "cut at " << cut;
        ASSERT_EQ(found.text_ends, expected.text_ends) << "cut at " << cut;
        ASSERT_EQ(found.text, expected.text) << "cut at " << cut;
        ASSERT_EQ(found.complete, expected.complete) << "cut at " << cut;
    }
}

// What is not a whole, valid member ends the reading there.
TEST(GzipMembers, DamageEndsTheCompleteMembers) {
    GzipMemberWriter writer;
    const std::string first = writer.Member("first\n");
    const std::string second = writer.Member("second\n");
    std::string bad_checksum = second;
    bad_checksum[bad_checksum.size() - 6] ^= 0x01;  // the CRC-32 in the member's trailer
    std::string bad_length = second;
    bad_length[bad_length.size() - 1] ^= 0x01;  // the length in the trailer
    const struct {
        const char* name;
        std::string bytes;
        std::size_t members;
    } cases[] = {
        {"two members", first + second, 2},
        {"bad checksum", first + bad_checksum + second, 1},
        {"bad length", first + bad_length, 1},
        {"text after the members", first + second + "@plain\n", 2},
        {"zero bytes after the members", first + std::string(16, '\0'), 1},
        {"a zlib stream, not gzip", std::string("\x78\x9c\x03\x00\x00\x00\x00\x01", 8), 0},
    };
    for (const auto& c : cases) {
        const GzipMembers found = ReadGzipMembers(c.bytes);
        EXPECT_EQ(found.member_ends.size(), c.members) << c.name;
        EXPECT_EQ(found.complete, c.members == 2 && c.bytes.size() == first.size() + second.size()) << c.name;
        EXPECT_EQ(found.text, std::string("first\nsecond\n").substr(0, c.members == 0 ? 0 : c.members == 1 ? 6 : 13))
            << c.name;
    }
}
