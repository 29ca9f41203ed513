// Frames checked byte by byte against the wire layout (offsets written out on purpose: they are the
// protocol), then damaged frames as a receiver meets them. Run under AddressSanitizer to catch leaks.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <zmq.h>

#include "../common/test_support.h"
#include "ipc_tools/message.h"

using namespace IpcTools;
using TestSupport::ErrorOf;

namespace {
using Bytes = std::vector<unsigned char>;

// Little-endian unsigned of `width` bytes at `offset`.
std::uint64_t uintAt(const Bytes& frame, std::size_t offset, int width) {
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = value << 8 | frame.at(offset + i);
    return value;
}

void putU32(Bytes& frame, std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) frame[offset + i] = static_cast<unsigned char>(value >> (8 * i));
}

Bytes bytesOf(const Message& message) { return Bytes(message.Data(), message.Data() + message.Size()); }

// Sends a message into a ZeroMQ message and receives it back, as a server would see it.
Message throughZmq(Message& message) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    message.Send(&frame);
    Message received(&frame);
    zmq_msg_close(&frame);
    return received;
}

// A field of `width` bytes (1, 4 or 8), or with width 0 a terminated text.
struct Field { std::size_t offset; int width; std::uint64_t value; std::string text = ""; };

Message rawRead() {
    Message raw = Message::BuildRawRead(3, "call", "read_1", 0x1122334455667788ull, 0xA1B2C3D4u, 3);
    auto view = raw.RawReadData();
    view.samples.Set(0, 0x01020304u);
    view.samples.Set(1, 0xFFFFFFFFu);
    view.samples.Set(2, 7u);
    return raw;
}

// n = 2 events, L = 3 bases, with the extra array when asked.
Message calledRead(bool extra) {
    Message called = Message::BuildCalledRead(5, "done", "r2", 42, 43, 2, 3, extra);
    auto view = called.CalledReadData();
    for (int i = 0; i < 2; ++i) {
        view.first_array.Set(i, 11 + i), view.second_array.Set(i, 21 + i), view.third_array.Set(i, 31 + i);
    }
    std::copy_n("ACG", 3, view.sequence);
    std::copy_n("!#%", 3, view.quality);
    if (extra) {
        view.extra_array.Set(0, 0x0102030405060708ull);
        view.extra_array.Set(1, 9);
    }
    return called;
}
Bytes simpleFrame() { return bytesOf(Message::BuildSimple(1, "ping")); }
Bytes generalFrame(std::uint32_t size) { return bytesOf(Message::BuildGeneral(1, "blob", size)); }
Bytes rawFrame() { return bytesOf(rawRead()); }
Bytes calledFrame() { return bytesOf(calledRead(true)); }

// Receives `frame` as a Message: the error text ("<no error>" when accepted) and the bytes left behind.
std::pair<std::string, std::size_t> receive(const Bytes& frame) {
    zmq_msg_t source;
    zmq_msg_init_size(&source, frame.size());
    std::memcpy(zmq_msg_data(&source), frame.data(), frame.size());
    const std::string error = ErrorOf([&] { Message message(&source); });
    const std::size_t left = zmq_msg_size(&source);
    zmq_msg_close(&source);
    return {error, left};
}

const std::string kTooLarge =
    "Excessively large buffer size of 600000001 indicated. This is probably a garbage value.";
const std::string kCalledSize = "Incorrect buffer size for called read message data.";
const std::string kRawSize = "Incorrect buffer size for raw read message data.";
const std::string kBadType = "Unrecognized message type specified.";
}  // namespace

// Every byte not named by a field is zero; every frame survives the trip through ZeroMQ unchanged.
TEST(MessageLayout, EveryKindAtItsOffsetsAndThroughZmq) {
    const struct {
        const char* name;
        std::function<Message()> build;
        std::size_t size;
        std::vector<Field> fields;
    } kinds[] = {
        {"simple", [] { return Message::BuildSimple(0x0A0B0C0D, "ping"); }, 84,
         {{0, 4, 1}, {4, 4, 0x0A0B0C0D}, {8, 4, 4}, {12, 0, 0, "ping"}, {76, 4, 84}}},
        {"general", [] { return Message::BuildGeneral(7, "blob", 5); }, 89,
         {{0, 4, 2}, {4, 4, 7}, {8, 4, 4}, {12, 0, 0, "blob"}, {76, 4, 89}, {80, 4, 5}}},
        {"raw read", rawRead, 240,
         {{0, 4, 3}, {4, 4, 3}, {8, 4, 4}, {12, 0, 0, "call"}, {76, 4, 240},
          {80, 4, 156},  // 144 + 4 * num_samples
          {84, 4, 3}, {88, 4, 0xA1B2C3D4u}, {92, 8, 0x1122334455667788ull}, {100, 0, 0, "read_1"},
          {228, 4, 0x01020304u}, {232, 4, 0xFFFFFFFFu}, {236, 4, 7}}},
        {"called read with extra", [] { return calledRead(true); }, 84 + 186 + 18 + 6 + 16,
         {{0, 4, 4}, {4, 4, 5}, {8, 4, 4}, {12, 0, 0, "done"}, {76, 4, 310}, {80, 4, 226},
          {88, 4, 43}, {92, 8, 42}, {100, 0, 0, "r2"}, {228, 4, 2}, {232, 4, 3}, {264, 4, 1},
          {268, 4, 11}, {272, 4, 12}, {276, 4, 21}, {280, 4, 22},  // 268, 268 + 4n
          {284, 1, 31}, {285, 1, 32}, {286, 0, 0, "ACG"}, {290, 0, 0, "!#%"},  // 268 + 8n, + 9n, + L + 1
          {294, 8, 0x0102030405060708ull}, {302, 8, 9}}},                      // 270 + 9n + 2L
        // With the extra flag and no events the size does not change.
        {"called read without events or bases",
         [] { return Message::BuildCalledRead(0, "d", "", 0, 0, 0, 0, true); }, 84 + 186,
         {{0, 4, 4}, {8, 4, 4}, {12, 0, 0, "d"}, {76, 4, 270}, {80, 4, 186}, {264, 4, 1}}},
    };
    for (const auto& kind : kinds) {
        SCOPED_TRACE(kind.name);
        Message message = kind.build();
        const Bytes sent = bytesOf(message);
        ASSERT_EQ(sent.size(), kind.size);
        std::vector<bool> named(sent.size(), false);
        for (const Field& f : kind.fields) {
            const std::size_t width = f.width > 0 ? f.width : f.text.size() + 1;
            if (f.width > 0) {
                EXPECT_EQ(uintAt(sent, f.offset, f.width), f.value) << "at " << f.offset;
            } else {
                EXPECT_EQ(reinterpret_cast<const char*>(sent.data() + f.offset), f.text) << "at " << f.offset;
            }
            std::fill(named.begin() + f.offset, named.begin() + f.offset + width, true);
        }
        for (std::size_t i = 0; i < sent.size(); ++i)
            EXPECT_TRUE(named[i] || sent[i] == 0) << "stray byte at " << i;
        Message received = throughZmq(message);
        EXPECT_TRUE(message.Empty());
        EXPECT_EQ(bytesOf(received), sent);
    }
}

TEST(MessageLayout, LengthAndSizeLimits) {
    // The longest command and read id fit with their terminators.
    const std::string command63(63, 'c'), id127(127, 'r');
    EXPECT_EQ(Message::BuildSimple(0, command63).SimpleData().Command(), command63);
    EXPECT_EQ(Message::BuildRawRead(0, command63, id127, 0, 0, 0).RawReadData().ReadId(), id127);
    const struct { std::function<void()> build; std::string error; } cases[] = {
        {[] { Message::BuildGeneral(0, std::string(64, 'c'), 1); },
         "Command string maximum length is 63 characters."},
        {[] { Message::BuildCalledRead(0, "c", std::string(128, 'r'), 0, 0, 1, 1, true); },
         "Read id string maximum length is 127 characters."},
        {[] { Message::BuildGeneral(0, "big", 600000001); },
         "Excessively large buffer size of 600000001 indicated. This is probably a garbage value."},
        // 144 + 4 * 0xFFFFFFFF: the 64-bit size is reported, not a wrapped one.
        {[] { Message::BuildRawRead(0, "big", "r", 0, 0, 0xFFFFFFFFu); },
         "Excessively large buffer size of 17179869324 indicated. This is probably a garbage value."},
    };
    for (const auto& c : cases) EXPECT_EQ(ErrorOf(c.build), c.error);
    // Without the extra array its flag stays clear; an empty message cannot be sent.
    EXPECT_EQ(uintAt(bytesOf(calledRead(false)), 264, 4), 0u);
    Message nothing;
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    EXPECT_EQ(ErrorOf([&] { nothing.Send(&frame); }), "Cannot send an empty message.");
    zmq_msg_close(&frame);
}

// `left`: what stays in the source message (-1: not checked); a frame refused before it is taken
// over stays with its owner, one taken over is freed.
TEST(MessageChecks, EveryDamageIsRefusedWithItsMessage) {
    const struct {
        const char* name;
        Bytes frame;
        std::function<void(Bytes&)> damage;
        std::string error;
        long left;
    } cases[] = {
        {"short frame", simpleFrame(), [](Bytes& f) { f.resize(83); },
         "Cannot construct Message from invalid zmq message object.", 83},
        {"old protocol", simpleFrame(), [](Bytes& f) { putU32(f, 8, 3); },
         "Message with protocol version 3 received, but 4 expected.", 84},
        // Excessive size wins over every other fault, and the body is never touched.
        {"huge body and bad type", generalFrame(0),
         [](Bytes& f) { putU32(f, 80, 600000001), putU32(f, 0, 9); }, kTooLarge, 0},
        {"total size disagrees", generalFrame(4), [](Bytes& f) { putU32(f, 76, 84); },
         "Message data buffer is incorrectly initialized.", -1},
        // Also unterminated: the type is reported first.
        {"type 0", simpleFrame(), [](Bytes& f) { putU32(f, 0, 0), f[75] = 'x'; }, kBadType, -1},
        {"type 5", simpleFrame(), [](Bytes& f) { putU32(f, 0, 5), f[75] = 'x'; }, kBadType, -1},
        {"unterminated command", simpleFrame(), [](Bytes& f) { f[75] = 'x'; },
         "Command string is not null terminated.", -1},
        // The frame must hold what its header says, or the views would read past it.
        {"frame shorter than its header says", generalFrame(16), [](Bytes& f) { f.resize(84); },
         "Message frame of 84 bytes does not match its indicated total size of 100 bytes.", -1},
        {"simple with a body", simpleFrame(),
         [](Bytes& f) { f.resize(88), putU32(f, 76, 88), putU32(f, 80, 4); },
         "DataSize field should be zero for a simple message.", -1},
        {"raw read too small", generalFrame(143), [](Bytes& f) { putU32(f, 0, 3); },
         "Not enough size reserved for raw read message type.", -1},
        {"one sample fewer", rawFrame(), [](Bytes& f) { putU32(f, 84, 2); }, kRawSize, -1},
        // 4 * num_samples wraps 32 bits to 12: must still be refused.
        {"sample count wraps", rawFrame(), [](Bytes& f) { putU32(f, 84, 0x40000003); }, kRawSize, -1},
        {"called read too small", generalFrame(183), [](Bytes& f) { putU32(f, 0, 4); },
         "Not enough size reserved for called read message data.", -1},
        {"extra array claimed but dropped", calledFrame(), [](Bytes& f) { putU32(f, 264, 0); }, kCalledSize,
         -1},
        {"one event more", calledFrame(), [](Bytes& f) { putU32(f, 228, 3); }, kCalledSize, -1},
        {"event count wraps", calledFrame(), [](Bytes& f) { putU32(f, 228, 0xFFFFFFFFu); }, kCalledSize, -1},
        {"any non-zero has_extra counts as set", calledFrame(), [](Bytes& f) { putU32(f, 264, 7); },
         "<no error>", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes frame = c.frame;
        c.damage(frame);
        const auto [error, left] = receive(frame);
        EXPECT_EQ(error, c.error);
        if (c.left >= 0) {
            EXPECT_EQ(left, static_cast<std::size_t>(c.left));
        }
    }
}

TEST(MessageChecks, UnterminatedTextsAreReadOnlyWithinTheirFields) {
    Bytes frame = calledFrame();
    std::memset(frame.data() + 100, 'r', 128);  // read id without a terminator
    std::memset(frame.data() + 286, 'A', 4);    // sequence runs over its terminator
    std::memset(frame.data() + 290, 'I', 4);
    CalledReadMessageData view(frame.data());
    EXPECT_EQ(view.ReadId(), std::string(128, 'r'));
    EXPECT_EQ(view.Sequence(), "AAA");
    EXPECT_EQ(view.Quality(), "III");
}
