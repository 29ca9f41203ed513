#pragma once
// One frame of the basecall service protocol, either built here or received from ZeroMQ.
//
// A built frame is a zero-filled new[] buffer with its header set (`owns_buffer`); a received one
// stays inside the ZeroMQ message it came in (`zmq_message`), so receiving copies nothing. Either way
// `data` points at the first header byte. A default-made Message is empty and owns nothing.
// Messages move but do not copy.

#include <cstddef>
#include <cstdint>
#include <string>

#include <zmq.h>

#include "ipc_tools/message_data.h"

namespace IpcTools {

class Message {
public:
    Message();
    // Takes a received frame over (zmq_msg_move) after checking it. When the frame is too short or
    // of another protocol it is left where it was; any later failure frees it before passing the
    // exception on.
    explicit Message(zmq_msg_t* frame);
    virtual ~Message();

    Message(Message&& other) noexcept;
    Message& operator=(Message&& other) noexcept;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Builders: each makes a new zero-filled frame with the header set. Commands are at most 63
    // characters, read ids at most 127.
    static Message BuildSimple(std::uint32_t client_id, const std::string& command);
    static Message BuildGeneral(std::uint32_t client_id, const std::string& command, std::uint32_t data_size);
    static Message BuildRawRead(std::uint32_t client_id, const std::string& command, const std::string& read_id,
                                std::uint64_t read_quad, std::uint32_t read_word, std::uint32_t num_samples);
    static Message BuildCalledRead(std::uint32_t client_id, const std::string& command,
                                   const std::string& read_id, std::uint64_t read_quad, std::uint32_t read_word,
                                   std::uint32_t num_events, std::uint32_t sequence_length, bool has_extra);

    bool Empty() const { return data == nullptr; }
    // Bytes of the whole frame; 0 when empty.
    std::size_t Size() const;
    const unsigned char* Data() const { return data; }
    // Message type from the header; 0 when empty.
    std::uint32_t Type() const;

    // Views of the frame. Each tests the type first and throws when the frame is of another type
    // (or the message is empty). The views point into this message: they are valid until it is
    // sent, moved or destroyed.
    MessageData HeaderData() const;
    SimpleMessageData SimpleData() const;
    GeneralMessageData GeneralData() const;
    RawReadMessageData RawReadData() const;
    CalledReadMessageData CalledReadData() const;

    // Hands the frame over to `frame` (an initialised ZeroMQ message, whose old content is released)
    // and leaves this message empty. A built buffer goes without a copy, ZeroMQ freeing it when done.
    void Send(zmq_msg_t* frame);

private:
    static Message fromBuffer(unsigned char* buffer);
    void release();
    void takeFrom(Message& other);

    unsigned char* data = nullptr;
    zmq_msg_t zmq_message;
    bool owns_buffer = false;
};

}  // namespace IpcTools
