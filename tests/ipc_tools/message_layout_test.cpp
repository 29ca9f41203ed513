// Frames built here, checked byte by byte against the wire layout, and carried through a ZeroMQ
// message and back. Offsets and sizes are written out as numbers on purpose: they are the protocol.

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <zmq.h>

#include "../common/test_support.h"
#include "ipc_tools/message.h"

using IpcTools::CalledReadMessageData;
using IpcTools::GeneralMessageData;
using IpcTools::Message;
using IpcTools::RawReadMessageData;
using TestSupport::ErrorOf;

namespace {
std::uint32_t u32At(const unsigned char* frame, std::size_t offset) {
    return std::uint32_t(frame[offset]) | std::uint32_t(frame[offset + 1]) << 8 |
           std::uint32_t(frame[offset + 2]) << 16 | std::uint32_t(frame[offset + 3]) << 24;
}

std::uint64_t u64At(const unsigned char* frame, std::size_t offset) {
    return std::uint64_t(u32At(frame, offset)) | std::uint64_t(u32At(frame, offset + 4)) << 32;
}

bool allZero(const unsigned char* frame, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (frame[i] != 0) return false;
    }
    return true;
}

std::string textAt(const unsigned char* frame, std::size_t offset) {
    return std::string(reinterpret_cast<const char*>(frame + offset));
}

// Sends a message into a ZeroMQ message and receives it back, as a server would see it.
Message throughZmq(Message& message) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    message.Send(&frame);
    Message received(&frame);
    zmq_msg_close(&frame);
    return received;
}
}  // namespace

TEST(MessageLayout, HeaderOfSimpleAndGeneralMessages) {
    Message simple = Message::BuildSimple(0x0A0B0C0D, "ping");
    ASSERT_EQ(simple.Size(), 84u);
    const unsigned char* f = simple.Data();
    EXPECT_EQ(u32At(f, 0), 1u);
    EXPECT_EQ(f[4], 0x0D);  // little-endian client id
    EXPECT_EQ(f[7], 0x0A);
    EXPECT_EQ(u32At(f, 8), 4u);
    EXPECT_EQ(textAt(f, 12), "ping");
    EXPECT_TRUE(allZero(f, 16, 76));
    EXPECT_EQ(u32At(f, 76), 84u);
    EXPECT_EQ(u32At(f, 80), 0u);
    EXPECT_EQ(simple.SimpleData().Command(), "ping");
    EXPECT_EQ(simple.SimpleData().ClientId(), 0x0A0B0C0Du);

    Message general = Message::BuildGeneral(7, "blob", 5);
    ASSERT_EQ(general.Size(), 89u);
    f = general.Data();
    EXPECT_EQ(u32At(f, 0), 2u);
    EXPECT_EQ(u32At(f, 4), 7u);
    EXPECT_EQ(u32At(f, 76), 89u);
    EXPECT_EQ(u32At(f, 80), 5u);
    EXPECT_TRUE(allZero(f, 84, 89));
    EXPECT_EQ(general.GeneralData().data, f + 84);
}

TEST(MessageLayout, RawReadFieldsSitAtTheirOffsets) {
    Message raw = Message::BuildRawRead(3, "call", "read_1", 0x1122334455667788ull, 0xA1B2C3D4u, 3);
    ASSERT_EQ(raw.Size(), 84u + 144u + 12u);
    RawReadMessageData view = raw.RawReadData();
    view.samples.Set(0, 0x01020304u);
    view.samples.Set(1, 0xFFFFFFFFu);
    view.samples.Set(2, 7u);

    const unsigned char* f = raw.Data();
    EXPECT_EQ(u32At(f, 0), 3u);
    EXPECT_EQ(u32At(f, 76), 240u);
    EXPECT_EQ(u32At(f, 80), 156u);  // 144 + 4 * num_samples
    EXPECT_EQ(u32At(f, 84), 3u);
    EXPECT_EQ(u32At(f, 88), 0xA1B2C3D4u);
    EXPECT_EQ(f[92], 0x88);
    EXPECT_EQ(u64At(f, 92), 0x1122334455667788ull);
    EXPECT_EQ(textAt(f, 100), "read_1");
    EXPECT_TRUE(allZero(f, 106, 228));
    EXPECT_EQ(f[228], 0x04);
    EXPECT_EQ(u32At(f, 228), 0x01020304u);
    EXPECT_EQ(u32At(f, 232), 0xFFFFFFFFu);
    EXPECT_EQ(u32At(f, 236), 7u);

    EXPECT_EQ(view.ReadId(), "read_1");
    EXPECT_EQ(view.read_quad.Get(), 0x1122334455667788ull);
    EXPECT_EQ(view.read_word.Get(), 0xA1B2C3D4u);
}

TEST(MessageLayout, CalledReadFieldsSitAtTheirOffsets) {
    // n = 2, L = 3, with the extra array.
    Message called = Message::BuildCalledRead(5, "done", "r2", 42, 43, 2, 3, true);
    const std::size_t data_size = 186 + 9 * 2 + 2 * 3 + 8 * 2;
    ASSERT_EQ(called.Size(), 84 + data_size);
    CalledReadMessageData view = called.CalledReadData();
    view.first_array.Set(0, 11);
    view.first_array.Set(1, 12);
    view.second_array.Set(0, 21);
    view.second_array.Set(1, 22);
    view.third_array.Set(0, 31);
    view.third_array.Set(1, 32);
    std::copy_n("ACG", 3, view.sequence);
    std::copy_n("!#%", 3, view.quality);
    view.extra_array.Set(0, 0x0102030405060708ull);
    view.extra_array.Set(1, 9);

    const unsigned char* f = called.Data();
    EXPECT_EQ(u32At(f, 0), 4u);
    EXPECT_EQ(u32At(f, 80), data_size);
    EXPECT_EQ(u32At(f, 84), 0u);  // num_samples is not used by this type
    EXPECT_EQ(u32At(f, 88), 43u);
    EXPECT_EQ(u64At(f, 92), 42u);
    EXPECT_EQ(textAt(f, 100), "r2");
    EXPECT_EQ(u32At(f, 228), 2u);
    EXPECT_EQ(u32At(f, 232), 3u);
    EXPECT_TRUE(allZero(f, 236, 264));
    EXPECT_EQ(u32At(f, 264), 1u);
    EXPECT_EQ(u32At(f, 268), 11u);
    EXPECT_EQ(u32At(f, 272), 12u);
    EXPECT_EQ(u32At(f, 276), 21u);  // 268 + 4n
    EXPECT_EQ(u32At(f, 280), 22u);
    EXPECT_EQ(f[284], 31);  // 268 + 8n
    EXPECT_EQ(f[285], 32);
    EXPECT_EQ(textAt(f, 286), "ACG");  // 268 + 9n, terminated at 289
    EXPECT_EQ(textAt(f, 290), "!#%");  // 269 + 9n + L, terminated at 293
    EXPECT_EQ(u64At(f, 294), 0x0102030405060708ull);  // 270 + 9n + 2L
    EXPECT_EQ(u64At(f, 302), 9u);
    EXPECT_EQ(view.Sequence(), "ACG");
    EXPECT_EQ(view.Quality(), "!#%");

    Message plain = Message::BuildCalledRead(5, "done", "r2", 42, 43, 2, 3, false);
    EXPECT_EQ(plain.Size(), 84u + 186u + 18u + 6u);
    EXPECT_EQ(u32At(plain.Data(), 264), 0u);
    EXPECT_EQ(plain.CalledReadData().extra_array.Size(), 0u);
}

TEST(MessageLayout, CalledReadWithoutEventsOrBases) {
    Message empty = Message::BuildCalledRead(0, "done", "", 0, 0, 0, 0, false);
    ASSERT_EQ(empty.Size(), 84u + 186u);
    EXPECT_EQ(u32At(empty.Data(), 80), 186u);
    EXPECT_EQ(empty.Data()[268], 0);  // sequence: its terminator only
    EXPECT_EQ(empty.Data()[269], 0);  // quality: its terminator only
    CalledReadMessageData view = empty.CalledReadData();
    EXPECT_EQ(view.Sequence(), "");
    EXPECT_EQ(view.Quality(), "");
    EXPECT_EQ(view.first_array.Size(), 0u);

    // With the extra flag and no events the size does not change.
    EXPECT_EQ(Message::BuildCalledRead(0, "done", "", 0, 0, 0, 0, true).Size(), 270u);
}

TEST(MessageLayout, CommandAndReadIdLengthLimits) {
    const std::string command63(63, 'c');
    const std::string command64(64, 'c');
    const std::string id127(127, 'r');
    const std::string id128(128, 'r');

    Message simple = Message::BuildSimple(0, command63);
    EXPECT_EQ(simple.SimpleData().Command(), command63);
    EXPECT_EQ(simple.Data()[75], 0);
    Message raw = Message::BuildRawRead(0, command63, id127, 0, 0, 0);
    EXPECT_EQ(raw.RawReadData().ReadId(), id127);
    EXPECT_EQ(raw.Data()[227], 0);
    EXPECT_EQ(Message::BuildCalledRead(0, command63, id127, 0, 0, 0, 0, false).CalledReadData().ReadId(), id127);

    const std::string command_error = "Command string maximum length is 63 characters.";
    EXPECT_EQ(ErrorOf([&] { Message::BuildSimple(0, command64); }), command_error);
    EXPECT_EQ(ErrorOf([&] { Message::BuildGeneral(0, command64, 1); }), command_error);
    EXPECT_EQ(ErrorOf([&] { Message::BuildRawRead(0, command64, "r", 0, 0, 1); }), command_error);
    EXPECT_EQ(ErrorOf([&] { Message::BuildCalledRead(0, command64, "r", 0, 0, 1, 1, false); }), command_error);

    const std::string id_error = "Read id string maximum length is 127 characters.";
    EXPECT_EQ(ErrorOf([&] { Message::BuildRawRead(0, "c", id128, 0, 0, 1); }), id_error);
    EXPECT_EQ(ErrorOf([&] { Message::BuildCalledRead(0, "c", id128, 0, 0, 1, 1, true); }), id_error);
}

TEST(MessageLayout, BuildersRefuseBodiesAboveTheLimit) {
    EXPECT_EQ(ErrorOf([] { Message::BuildGeneral(0, "big", 600000001); }),
              "Excessively large buffer size of 600000001 indicated. This is probably a garbage value.");
    // 144 + 4 * 149999965 = 600000004: the 64-bit size is reported, not a wrapped one.
    EXPECT_EQ(ErrorOf([] { Message::BuildRawRead(0, "big", "r", 0, 0, 149999965); }),
              "Excessively large buffer size of 600000004 indicated. This is probably a garbage value.");
    EXPECT_EQ(ErrorOf([] { Message::BuildRawRead(0, "big", "r", 0, 0, 0xFFFFFFFFu); }),
              "Excessively large buffer size of 17179869324 indicated. This is probably a garbage value.");
    EXPECT_EQ(ErrorOf([] { Message::BuildCalledRead(0, "big", "r", 0, 0, 0xFFFFFFFFu, 0, true); }),
              "Excessively large buffer size of 73014444201 indicated. This is probably a garbage value.");
}

TEST(MessageLayout, FramesSurviveTheTripThroughZmq) {
    Message raw = Message::BuildRawRead(17, "call", "read_9", 0xDEADBEEFCAFEull, 99, 2);
    raw.RawReadData().samples.Set(1, 123456u);
    const std::vector<unsigned char> sent(raw.Data(), raw.Data() + raw.Size());

    Message received = throughZmq(raw);
    EXPECT_TRUE(raw.Empty());
    EXPECT_EQ(raw.Size(), 0u);
    ASSERT_EQ(received.Size(), sent.size());
    EXPECT_EQ(std::vector<unsigned char>(received.Data(), received.Data() + received.Size()), sent);

    // A received frame moves between messages without copying, and sends on again.
    const unsigned char* where = received.Data();
    Message moved = std::move(received);
    EXPECT_TRUE(received.Empty());
    EXPECT_EQ(moved.Data(), where);
    RawReadMessageData view = moved.RawReadData();
    EXPECT_EQ(view.ReadId(), "read_9");
    EXPECT_EQ(view.samples.Get(1), 123456u);
    EXPECT_EQ(view.ClientId(), 17u);

    Message again = throughZmq(moved);
    EXPECT_TRUE(moved.Empty());
    EXPECT_EQ(again.RawReadData().read_quad.Get(), 0xDEADBEEFCAFEull);

    // Assigning over a message releases what it held (checked by the leak checker).
    again = Message::BuildSimple(1, "next");
    EXPECT_EQ(again.Type(), 1u);

    Message nothing;
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    EXPECT_EQ(ErrorOf([&] { nothing.Send(&frame); }), "Cannot send an empty message.");
    zmq_msg_close(&frame);
}
