// Damaged frames as a receiver meets them: every check with its own message, and the frame freed
// or left with its owner as promised. Run under the AddressSanitizer build to catch leaks.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <zmq.h>

#include "ipc_tools/message.h"

using IpcTools::CalledReadMessageData;
using IpcTools::GeneralMessageData;
using IpcTools::Message;
using IpcTools::MessageData;
using IpcTools::RawReadMessageData;
using IpcTools::SimpleMessageData;

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

template <typename F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

// Receives `frame` as a Message. Gives the error text ("" when accepted) and what was left in the
// source ZeroMQ message.
struct Received {
    std::string error;
    std::size_t left_in_source;
};

Received receive(const Bytes& frame) {
    zmq_msg_t source;
    zmq_msg_init_size(&source, frame.size());
    if (!frame.empty()) std::memcpy(zmq_msg_data(&source), frame.data(), frame.size());
    Received result;
    result.error = errorOf([&] { Message message(&source); });
    result.left_in_source = zmq_msg_size(&source);
    zmq_msg_close(&source);
    return result;
}

std::string receiveError(const Bytes& frame) { return receive(frame).error; }
}  // namespace

TEST(MessageChecks, SmallestValidFrames) {
    EXPECT_EQ(receiveError(simpleFrame()), "");
    EXPECT_EQ(receiveError(generalFrame(0)), "");  // type 2 with an empty body
    EXPECT_EQ(receiveError(rawFrame()), "");
    EXPECT_EQ(receiveError(calledFrame()), "");
    EXPECT_EQ(receiveError(bytesOf(Message::BuildCalledRead(0, "", "", 0, 0, 0, 0, false))), "");
}

TEST(MessageChecks, FramesRefusedBeforeTheyAreTakenOverStayWithTheirOwner) {
    Bytes frame = simpleFrame();
    frame.resize(83);
    Received short_frame = receive(frame);
    EXPECT_EQ(short_frame.error, "Cannot construct Message from invalid zmq message object.");
    EXPECT_EQ(short_frame.left_in_source, 83u);
    EXPECT_EQ(receiveError(Bytes()), "Cannot construct Message from invalid zmq message object.");

    frame = simpleFrame();
    putU32(frame, 8, 3);
    Received old_protocol = receive(frame);
    EXPECT_EQ(old_protocol.error, "Message with protocol version 3 received, but 4 expected.");
    EXPECT_EQ(old_protocol.left_in_source, 84u);
}

TEST(MessageChecks, HeaderChecksInTheirOrder) {
    // Excessive size wins over every other fault, and the body is never touched.
    Bytes frame = generalFrame(0);
    putU32(frame, 80, 600000001);
    putU32(frame, 0, 9);
    Received huge = receive(frame);
    EXPECT_EQ(huge.error, "Excessively large buffer size of 600000001 indicated. This is probably a garbage value.");
    EXPECT_EQ(huge.left_in_source, 0u);  // taken over, then freed

    frame = generalFrame(4);
    putU32(frame, 76, 84);
    EXPECT_EQ(receiveError(frame), "Message data buffer is incorrectly initialized.");

    for (std::uint32_t type : {0u, 5u, 0xFFFFFFFFu}) {
        frame = simpleFrame();
        putU32(frame, 0, type);
        frame[75] = 'x';  // also unterminated: the type is reported first
        EXPECT_EQ(receiveError(frame), "Unrecognized message type specified.") << type;
    }

    frame = simpleFrame();
    frame[75] = 'x';
    EXPECT_EQ(receiveError(frame), "Command string is not null terminated.");

    // The frame must hold what its header says, or the views would read past it.
    frame = generalFrame(16);
    frame.resize(84);
    EXPECT_EQ(receiveError(frame), "Message frame of 84 bytes does not match its indicated total size of 100 bytes.");
    frame = simpleFrame();
    frame.push_back(0);
    EXPECT_EQ(receiveError(frame), "Message frame of 85 bytes does not match its indicated total size of 84 bytes.");
}

TEST(MessageChecks, HeaderLimitsSeenByTheViews) {
    // A bare header claiming 600000000 body bytes: the header checks accept it without reading on.
    Bytes header = generalFrame(0);
    putU32(header, 80, 600000000);
    putU32(header, 76, 600000084);
    EXPECT_EQ(errorOf([&] { GeneralMessageData view(header.data()); }), "");
    putU32(header, 80, 600000001);
    putU32(header, 76, 600000085);
    EXPECT_EQ(errorOf([&] { MessageData::CheckHeader(header.data()); }),
              "Excessively large buffer size of 600000001 indicated. This is probably a garbage value.");

    Bytes frame = simpleFrame();
    putU32(frame, 8, 5);
    EXPECT_EQ(errorOf([&] { SimpleMessageData view(frame.data()); }), "Message with protocol 5 received, but 4 expected.");
}

TEST(MessageChecks, SimpleAndGeneralViewChecks) {
    Bytes frame = bytesOf(Message::BuildSimple(1, "ping"));
    frame.resize(88);
    putU32(frame, 76, 88);
    putU32(frame, 80, 4);
    EXPECT_EQ(receiveError(frame), "DataSize field should be zero for a simple message.");

    Bytes general = generalFrame(200);
    EXPECT_EQ(errorOf([&] { SimpleMessageData view(general.data()); }),
              "Message type mismatch in SimpleMessageData constructor.");
    Bytes simple = simpleFrame();
    EXPECT_EQ(errorOf([&] { GeneralMessageData view(simple.data()); }),
              "Message type mismatch in GeneralMessageData constructor.");
}

TEST(MessageChecks, RawReadViewChecks) {
    Bytes frame = generalFrame(143);
    putU32(frame, 0, 3);
    EXPECT_EQ(receiveError(frame), "Not enough size reserved for raw read message type.");

    frame = rawFrame();
    putU32(frame, 84, 4);  // one sample more than the body holds
    EXPECT_EQ(receiveError(frame), "Incorrect buffer size for raw read message data.");
    putU32(frame, 84, 0x40000003);  // 4 * num_samples wraps 32 bits to 12: must still be refused
    EXPECT_EQ(receiveError(frame), "Incorrect buffer size for raw read message data.");

    Bytes general = generalFrame(200);
    EXPECT_EQ(errorOf([&] { RawReadMessageData view(general.data()); }),
              "Message type mismatch in RawReadMessageData constructor.");
}

TEST(MessageChecks, CalledReadViewChecks) {
    Bytes frame = generalFrame(183);
    putU32(frame, 0, 4);
    EXPECT_EQ(receiveError(frame), "Not enough size reserved for called read message data.");

    for (auto damage : {+[](Bytes& f) { putU32(f, 264, 0); },        // extra array claimed but dropped
                        +[](Bytes& f) { putU32(f, 228, 3); },        // one event more
                        +[](Bytes& f) { putU32(f, 232, 2); },        // one base fewer
                        +[](Bytes& f) { putU32(f, 228, 0xFFFFFFFFu); }}) {
        frame = calledFrame();
        damage(frame);
        EXPECT_EQ(receiveError(frame), "Incorrect buffer size for called read message data.");
    }

    // Any non-zero has_extra counts as set.
    frame = calledFrame();
    putU32(frame, 264, 7);
    EXPECT_EQ(receiveError(frame), "");

    Bytes general = generalFrame(200);
    EXPECT_EQ(errorOf([&] { CalledReadMessageData view(general.data()); }),
              "Message type mismatch in CalledReadMessageData constructor.");
}

TEST(MessageChecks, TypedAccessorsRefuseOtherTypes) {
    Message simple = Message::BuildSimple(1, "ping");
    Message called = Message::BuildCalledRead(1, "done", "r", 0, 0, 0, 0, false);
    Message empty;
    EXPECT_EQ(errorOf([&] { called.SimpleData(); }), "Type mismatch in SimpleMessageData constructor.");
    EXPECT_EQ(errorOf([&] { simple.GeneralData(); }), "Type mismatch in GeneralMessageData constructor.");
    EXPECT_EQ(errorOf([&] { simple.RawReadData(); }), "Type mismatch in RawReadMessageData constructor.");
    EXPECT_EQ(errorOf([&] { simple.CalledReadData(); }), "Type mismatch in CalledReadMessageData constructor.");
    EXPECT_EQ(errorOf([&] { empty.CalledReadData(); }), "Type mismatch in CalledReadMessageData constructor.");
    EXPECT_EQ(errorOf([&] { empty.HeaderData(); }), "Cannot read the header of an empty message.");
    EXPECT_EQ(errorOf([&] { called.CalledReadData(); }), "");
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
