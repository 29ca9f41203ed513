#include "ipc_tools/message.h"

#include <cstring>
#include <memory>
#include <stdexcept>

#include "ipc_tools/zmq_handles.h"

namespace IpcTools {

namespace {
void checkCommand(const std::string& command) {
    if (command.size() > Wire::kMaxCommandLength) {
        throw std::runtime_error("Command string maximum length is " + std::to_string(Wire::kMaxCommandLength) +
                                 " characters.");
    }
}

void checkReadId(const std::string& read_id) {
    if (read_id.size() > Wire::kMaxReadIdLength) {
        throw std::runtime_error("Read id string maximum length is " + std::to_string(Wire::kMaxReadIdLength) +
                                 " characters.");
    }
}

// The same limit a receiver applies: refusing here keeps a builder from allocating a frame that no
// one would accept, and from wrapping the 32-bit size fields.
void checkDataSize(std::uint64_t data_size) {
    if (data_size > Wire::kMaxDataSize) {
        throw std::runtime_error("Excessively large buffer size of " + std::to_string(data_size) +
                                 " indicated. This is probably a garbage value.");
    }
}

std::unique_ptr<unsigned char[]> newFrame(std::uint64_t data_size) {
    return std::unique_ptr<unsigned char[]>(new unsigned char[Wire::kHeaderSize + data_size]());
}

void writeReadIdentity(unsigned char* frame, const std::string& read_id, std::uint64_t read_quad,
                       std::uint32_t read_word) {
    StoreLe<std::uint32_t>(frame + Wire::kReadWordOffset, read_word);
    StoreLe<std::uint64_t>(frame + Wire::kReadQuadOffset, read_quad);
    std::memcpy(frame + Wire::kReadIdOffset, read_id.data(), read_id.size());
}

// ZeroMQ calls this once it has sent a frame that was built here.
void freeBuffer(void* buffer, void* /*hint*/) { delete[] static_cast<unsigned char*>(buffer); }
}  // namespace

Message::Message() { zmq_msg_init(&zmq_message); }

Message::Message(zmq_msg_t* frame) {
    zmq_msg_init(&zmq_message);
    const std::size_t size = zmq_msg_size(frame);
    if (size < Wire::kHeaderSize) {
        throw std::runtime_error("Cannot construct Message from invalid zmq message object.");
    }
    const std::uint32_t protocol =
        LoadLe<std::uint32_t>(static_cast<const unsigned char*>(zmq_msg_data(frame)) + Wire::kProtocolOffset);
    if (protocol != Wire::kProtocolVersion) {
        throw std::runtime_error("Message with protocol version " + std::to_string(protocol) + " received, but " +
                                 std::to_string(Wire::kProtocolVersion) + " expected.");
    }
    if (zmq_msg_move(&zmq_message, frame) != 0) {
        throw ZmqError("zmq_msg_move");
    }
    data = static_cast<unsigned char*>(zmq_msg_data(&zmq_message));
    try {
        MessageData::CheckHeader(data);
        // The views trust the header's sizes, so a frame must hold exactly what its header says.
        const std::uint32_t total_size = LoadLe<std::uint32_t>(data + Wire::kTotalSizeOffset);
        if (size != total_size) {
            throw std::runtime_error("Message frame of " + std::to_string(size) +
                                     " bytes does not match its indicated total size of " +
                                     std::to_string(total_size) + " bytes.");
        }
        // Making the view runs the checks of its type.
        switch (Type()) {
            case Wire::kSimpleMessage: static_cast<void>(SimpleMessageData(data)); break;
            case Wire::kGeneralMessage: static_cast<void>(GeneralMessageData(data)); break;
            case Wire::kRawReadMessage: static_cast<void>(RawReadMessageData(data)); break;
            default: static_cast<void>(CalledReadMessageData(data)); break;
        }
    } catch (...) {
        zmq_msg_close(&zmq_message);
        data = nullptr;
        throw;
    }
}

Message::~Message() {
    release();
    zmq_msg_close(&zmq_message);
}

Message::Message(Message&& other) noexcept {
    zmq_msg_init(&zmq_message);
    takeFrom(other);
}

Message& Message::operator=(Message&& other) noexcept {
    if (this != &other) {
        release();
        takeFrom(other);
    }
    return *this;
}

void Message::release() {
    if (owns_buffer) {
        delete[] data;
    } else if (data != nullptr) {
        zmq_msg_close(&zmq_message);
        zmq_msg_init(&zmq_message);
    }
    data = nullptr;
    owns_buffer = false;
}

// Expects this message to be empty.
void Message::takeFrom(Message& other) {
    if (other.owns_buffer) {
        data = other.data;
        owns_buffer = true;
    } else if (other.data != nullptr) {
        zmq_msg_move(&zmq_message, &other.zmq_message);
        data = static_cast<unsigned char*>(zmq_msg_data(&zmq_message));
    }
    other.data = nullptr;
    other.owns_buffer = false;
}

Message Message::fromBuffer(unsigned char* buffer) {
    Message message;
    message.data = buffer;
    message.owns_buffer = true;
    return message;
}

Message Message::BuildSimple(std::uint32_t client_id, const std::string& command) {
    checkCommand(command);
    auto frame = newFrame(0);
    MessageData::WriteHeader(frame.get(), Wire::kSimpleMessage, client_id, command, 0);
    return fromBuffer(frame.release());
}

Message Message::BuildGeneral(std::uint32_t client_id, const std::string& command, std::uint32_t data_size) {
    checkCommand(command);
    checkDataSize(data_size);
    auto frame = newFrame(data_size);
    MessageData::WriteHeader(frame.get(), Wire::kGeneralMessage, client_id, command, data_size);
    return fromBuffer(frame.release());
}

Message Message::BuildRawRead(std::uint32_t client_id, const std::string& command, const std::string& read_id,
                              std::uint64_t read_quad, std::uint32_t read_word, std::uint32_t num_samples) {
    checkCommand(command);
    checkReadId(read_id);
    const std::uint64_t data_size = RawReadMessageData::DataSizeFor(num_samples);
    checkDataSize(data_size);
    auto frame = newFrame(data_size);
    MessageData::WriteHeader(frame.get(), Wire::kRawReadMessage, client_id, command,
                             static_cast<std::uint32_t>(data_size));
    StoreLe<std::uint32_t>(frame.get() + Wire::kNumSamplesOffset, num_samples);
    writeReadIdentity(frame.get(), read_id, read_quad, read_word);
    return fromBuffer(frame.release());
}

Message Message::BuildCalledRead(std::uint32_t client_id, const std::string& command, const std::string& read_id,
                                 std::uint64_t read_quad, std::uint32_t read_word, std::uint32_t num_events,
                                 std::uint32_t sequence_length, bool has_extra) {
    checkCommand(command);
    checkReadId(read_id);
    const std::uint64_t data_size = CalledReadMessageData::DataSizeFor(num_events, sequence_length, has_extra);
    checkDataSize(data_size);
    auto frame = newFrame(data_size);
    MessageData::WriteHeader(frame.get(), Wire::kCalledReadMessage, client_id, command,
                             static_cast<std::uint32_t>(data_size));
    writeReadIdentity(frame.get(), read_id, read_quad, read_word);
    StoreLe<std::uint32_t>(frame.get() + Wire::kNumEventsOffset, num_events);
    StoreLe<std::uint32_t>(frame.get() + Wire::kSequenceLengthOffset, sequence_length);
    StoreLe<std::uint32_t>(frame.get() + Wire::kHasExtraOffset, has_extra ? 1 : 0);
    return fromBuffer(frame.release());
}

std::size_t Message::Size() const {
    if (data == nullptr) return 0;
    if (owns_buffer) return Wire::kHeaderSize + LoadLe<std::uint32_t>(data + Wire::kDataSizeOffset);
    return zmq_msg_size(&zmq_message);
}

std::uint32_t Message::Type() const {
    return data == nullptr ? 0 : LoadLe<std::uint32_t>(data + Wire::kTypeOffset);
}

MessageData Message::HeaderData() const {
    if (data == nullptr) {
        throw std::runtime_error("Cannot read the header of an empty message.");
    }
    return MessageData(data);
}

SimpleMessageData Message::SimpleData() const {
    if (Type() != Wire::kSimpleMessage) {
        throw std::runtime_error("Type mismatch in SimpleMessageData constructor.");
    }
    return SimpleMessageData(data);
}

GeneralMessageData Message::GeneralData() const {
    if (Type() != Wire::kGeneralMessage) {
        throw std::runtime_error("Type mismatch in GeneralMessageData constructor.");
    }
    return GeneralMessageData(data);
}

RawReadMessageData Message::RawReadData() const {
    if (Type() != Wire::kRawReadMessage) {
        throw std::runtime_error("Type mismatch in RawReadMessageData constructor.");
    }
    return RawReadMessageData(data);
}

CalledReadMessageData Message::CalledReadData() const {
    if (Type() != Wire::kCalledReadMessage) {
        throw std::runtime_error("Type mismatch in CalledReadMessageData constructor.");
    }
    return CalledReadMessageData(data);
}

void Message::Send(zmq_msg_t* frame) {
    if (data == nullptr) {
        throw std::runtime_error("Cannot send an empty message.");
    }
    if (owns_buffer) {
        const std::size_t size = Size();
        zmq_msg_close(frame);
        if (zmq_msg_init_data(frame, data, size, freeBuffer, nullptr) != 0) {
            const int err = zmq_errno();
            zmq_msg_init(frame);  // leave the caller a valid, empty message; the buffer stays ours
            throw ZmqError("zmq_msg_init_data", err);
        }
        owns_buffer = false;
    } else if (zmq_msg_move(frame, &zmq_message) != 0) {
        throw ZmqError("zmq_msg_move");
    }
    data = nullptr;
}

}  // namespace IpcTools
