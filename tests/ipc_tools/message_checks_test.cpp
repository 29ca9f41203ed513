// Damaged frames as a receiver meets them: every check with its own message, and the frame freed
// or left with its owner as promised. Run under the AddressSanitizer build to catch leaks.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <zmq.h>

#include "../common/test_support.h"
#include "ipc_tools/message.h"

using namespace IpcTools;
using TestSupport::ErrorOf;

namespace {
using Bytes = std::vector<unsigned char>;

void putU32(Bytes& frame, std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) frame[offset + i] = static_cast<unsigned char>(value >> (8 * i));
}

Bytes bytesOf(const Message& message) { return Bytes(message.Data(), message.Data() + message.Size()); }

Bytes simpleFrame() { return bytesOf(Message::BuildSimple(1, "ping")); }
Bytes generalFrame(std::uint32_t size) { return bytesOf(Message::BuildGeneral(1, "blob", size)); }
Bytes rawFrame() { return bytesOf(Message::BuildRawRead(1, "call", "r", 0, 0, 3)); }
Bytes calledFrame() { return bytesOf(Message::BuildCalledRead(1, "done", "r", 0, 0, 2, 3, true)); }

// Receives `frame` as a Message: the error text ("<no error>" when accepted) and the bytes left in the source.
std::pair<std::string, std::size_t> receive(const Bytes& frame) {
    zmq_msg_t source;
    zmq_msg_init_size(&source, frame.size());
    if (!frame.empty()) std::memcpy(zmq_msg_data(&source), frame.data(), frame.size());
    const std::string error = ErrorOf([&] { Message message(&source); });
    const std::size_t left = zmq_msg_size(&source);
    zmq_msg_close(&source);
    return {error, left};
}

const std::string kAccepted = "<no error>";
const std::string kTooLarge = "Excessively large buffer size of 600000001 indicated. This is probably a garbage value.";
const std::string kCalledSize = "Incorrect buffer size for called read message data.";
}  // namespace

// Each frame is received whole; `left` is what stays in the source message (-1: not checked).
// A frame refused before it is taken over stays with its owner; one taken over is freed.
TEST(MessageChecks, EveryDamageIsRefusedWithItsMessage) {
    const struct {
        const char* name;
        Bytes frame;
        std::function<void(Bytes&)> damage;
        std::string error;
        long left;
    } cases[] = {
        {"simple", simpleFrame(), [](Bytes&) {}, kAccepted, 0},
        {"general with an empty body", generalFrame(0), [](Bytes&) {}, kAccepted, 0},
        {"raw read", rawFrame(), [](Bytes&) {}, kAccepted, 0},
        {"called read", calledFrame(), [](Bytes&) {}, kAccepted, 0},
        {"empty called read", bytesOf(Message::BuildCalledRead(0, "", "", 0, 0, 0, 0, false)), [](Bytes&) {}, kAccepted, 0},
        {"short frame", simpleFrame(), [](Bytes& f) { f.resize(83); },
         "Cannot construct Message from invalid zmq message object.", 83},
        {"no frame", Bytes(), [](Bytes&) {}, "Cannot construct Message from invalid zmq message object.", -1},
        {"old protocol", simpleFrame(), [](Bytes& f) { putU32(f, 8, 3); },
         "Message with protocol version 3 received, but 4 expected.", 84},
        // Excessive size wins over every other fault, and the body is never touched.
        {"huge body and bad type", generalFrame(0), [](Bytes& f) { putU32(f, 80, 600000001), putU32(f, 0, 9); },
         kTooLarge, 0},
        {"total size disagrees", generalFrame(4), [](Bytes& f) { putU32(f, 76, 84); },
         "Message data buffer is incorrectly initialized.", -1},
        // Also unterminated: the type is reported first.
        {"type 0", simpleFrame(), [](Bytes& f) { putU32(f, 0, 0), f[75] = 'x'; }, "Unrecognized message type specified.", -1},
        {"type 5", simpleFrame(), [](Bytes& f) { putU32(f, 0, 5), f[75] = 'x'; }, "Unrecognized message type specified.", -1},
        {"type max", simpleFrame(), [](Bytes& f) { putU32(f, 0, 0xFFFFFFFFu), f[75] = 'x'; },
         "Unrecognized message type specified.", -1},
        {"unterminated command", simpleFrame(), [](Bytes& f) { f[75] = 'x'; }, "Command string is not null terminated.", -1},
        // The frame must hold what its header says, or the views would read past it.
        {"frame shorter than its header says", generalFrame(16), [](Bytes& f) { f.resize(84); },
         "Message frame of 84 bytes does not match its indicated total size of 100 bytes.", -1},
        {"frame longer than its header says", simpleFrame(), [](Bytes& f) { f.push_back(0); },
         "Message frame of 85 bytes does not match its indicated total size of 84 bytes.", -1},
        {"simple with a body", simpleFrame(), [](Bytes& f) { f.resize(88), putU32(f, 76, 88), putU32(f, 80, 4); },
         "DataSize field should be zero for a simple message.", -1},
        {"raw read too small", generalFrame(143), [](Bytes& f) { putU32(f, 0, 3); },
         "Not enough size reserved for raw read message type.", -1},
        {"one sample more", rawFrame(), [](Bytes& f) { putU32(f, 84, 4); },
         "Incorrect buffer size for raw read message data.", -1},
        // 4 * num_samples wraps 32 bits to 12: must still be refused.
        {"sample count wraps", rawFrame(), [](Bytes& f) { putU32(f, 84, 0x40000003); },
         "Incorrect buffer size for raw read message data.", -1},
        {"called read too small", generalFrame(183), [](Bytes& f) { putU32(f, 0, 4); },
         "Not enough size reserved for called read message data.", -1},
        {"extra array claimed but dropped", calledFrame(), [](Bytes& f) { putU32(f, 264, 0); }, kCalledSize, -1},
        {"one event more", calledFrame(), [](Bytes& f) { putU32(f, 228, 3); }, kCalledSize, -1},
        {"one base fewer", calledFrame(), [](Bytes& f) { putU32(f, 232, 2); }, kCalledSize, -1},
        {"event count wraps", calledFrame(), [](Bytes& f) { putU32(f, 228, 0xFFFFFFFFu); }, kCalledSize, -1},
        {"any non-zero has_extra counts as set", calledFrame(), [](Bytes& f) { putU32(f, 264, 7); }, kAccepted, 0},
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

TEST(MessageChecks, ViewsCheckTheirOwnType) {
    // A bare header claiming 600000000 body bytes: the header checks accept it without reading on.
    Bytes header = generalFrame(0);
    putU32(header, 80, 600000000);
    putU32(header, 76, 600000084);
    EXPECT_EQ(ErrorOf([&] { GeneralMessageData view(header.data()); }), kAccepted);
    putU32(header, 80, 600000001);
    putU32(header, 76, 600000085);
    EXPECT_EQ(ErrorOf([&] { MessageData::CheckHeader(header.data()); }), kTooLarge);
    Bytes frame = simpleFrame();
    putU32(frame, 8, 5);
    EXPECT_EQ(ErrorOf([&] { SimpleMessageData view(frame.data()); }), "Message with protocol 5 received, but 4 expected.");

    Bytes general = generalFrame(200), simple = simpleFrame();
    EXPECT_EQ(ErrorOf([&] { SimpleMessageData view(general.data()); }),
              "Message type mismatch in SimpleMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { GeneralMessageData view(simple.data()); }),
              "Message type mismatch in GeneralMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { RawReadMessageData view(general.data()); }),
              "Message type mismatch in RawReadMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { CalledReadMessageData view(general.data()); }),
              "Message type mismatch in CalledReadMessageData constructor.");

    Message simple_message = Message::BuildSimple(1, "ping");
    Message called = Message::BuildCalledRead(1, "done", "r", 0, 0, 0, 0, false);
    Message empty;
    EXPECT_EQ(ErrorOf([&] { called.SimpleData(); }), "Type mismatch in SimpleMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { simple_message.GeneralData(); }), "Type mismatch in GeneralMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { simple_message.RawReadData(); }), "Type mismatch in RawReadMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { simple_message.CalledReadData(); }), "Type mismatch in CalledReadMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { empty.CalledReadData(); }), "Type mismatch in CalledReadMessageData constructor.");
    EXPECT_EQ(ErrorOf([&] { empty.HeaderData(); }), "Cannot read the header of an empty message.");
    EXPECT_EQ(ErrorOf([&] { called.CalledReadData(); }), kAccepted);
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
