#include "ipc_tools/message_data.h"

#include <cstring>
#include <stdexcept>

namespace IpcTools {

namespace {
std::uint32_t headerField(const unsigned char* frame, std::size_t offset) {
    return LoadLe<std::uint32_t>(frame + offset);
}

// Length of a zero-terminated text in a field of `bytes` bytes, stopping at the field's end when
// the terminator is missing.
std::size_t boundedLength(const char* text, std::size_t bytes) {
    const void* end = std::memchr(text, 0, bytes);
    return end == nullptr ? bytes : static_cast<std::size_t>(static_cast<const char*>(end) - text);
}
}  // namespace

// ---------------------------------------------------------------------------------------------
// MessageData

MessageData::MessageData(unsigned char* frame) : header(frame) { CheckHeader(frame); }

void MessageData::CheckHeader(const unsigned char* frame) {
    const std::uint32_t data_size = headerField(frame, Wire::kDataSizeOffset);
    if (data_size > Wire::kMaxDataSize) {
        throw std::runtime_error("Excessively large buffer size of " + std::to_string(data_size) +
                                 " indicated. This is probably a garbage value.");
    }
    const std::uint32_t protocol = headerField(frame, Wire::kProtocolOffset);
    if (protocol != Wire::kProtocolVersion) {
        throw std::runtime_error("Message with protocol " + std::to_string(protocol) + " received, but " +
                                 std::to_string(Wire::kProtocolVersion) + " expected.");
    }
    // data_size is at most 600000000 here, so the sum cannot wrap.
    if (headerField(frame, Wire::kTotalSizeOffset) != data_size + Wire::kHeaderSize) {
        throw std::runtime_error("Message data buffer is incorrectly initialized.");
    }
    const std::uint32_t type = headerField(frame, Wire::kTypeOffset);
    if (type == 0 || type > Wire::kCalledReadMessage) {
        throw std::runtime_error("Unrecognized message type specified.");
    }
    if (frame[Wire::kCommandOffset + Wire::kMaxCommandLength] != 0) {
        throw std::runtime_error("Command string is not null terminated.");
    }
}

void MessageData::WriteHeader(unsigned char* frame, Wire::MessageType type, std::uint32_t client_id,
                              const std::string& command, std::uint32_t data_size) {
    StoreLe<std::uint32_t>(frame + Wire::kTypeOffset, type);
    StoreLe<std::uint32_t>(frame + Wire::kClientIdOffset, client_id);
    StoreLe<std::uint32_t>(frame + Wire::kProtocolOffset, Wire::kProtocolVersion);
    std::memcpy(frame + Wire::kCommandOffset, command.data(), command.size());
    frame[Wire::kCommandOffset + command.size()] = 0;
    StoreLe<std::uint32_t>(frame + Wire::kTotalSizeOffset,
                           static_cast<std::uint32_t>(data_size + Wire::kHeaderSize));
    StoreLe<std::uint32_t>(frame + Wire::kDataSizeOffset, data_size);
}

std::uint32_t MessageData::Type() const { return headerField(header, Wire::kTypeOffset); }
std::uint32_t MessageData::ClientId() const { return headerField(header, Wire::kClientIdOffset); }
std::uint32_t MessageData::Protocol() const { return headerField(header, Wire::kProtocolOffset); }
std::uint32_t MessageData::TotalSize() const { return headerField(header, Wire::kTotalSizeOffset); }
std::uint32_t MessageData::DataSize() const { return headerField(header, Wire::kDataSizeOffset); }

std::string MessageData::Command() const {
    const char* text = reinterpret_cast<const char*>(header + Wire::kCommandOffset);
    return std::string(text, boundedLength(text, Wire::kCommandBytes));
}

// ---------------------------------------------------------------------------------------------
// SimpleMessageData

SimpleMessageData::SimpleMessageData(unsigned char* frame) : MessageData(frame) {
    if (Type() != Wire::kSimpleMessage) {
        throw std::runtime_error("Message type mismatch in SimpleMessageData constructor.");
    }
    if (DataSize() != 0) {
        throw std::runtime_error("DataSize field should be zero for a simple message.");
    }
    if (TotalSize() != Wire::kHeaderSize) {
        throw std::runtime_error("Message data buffer is incorrectly initialized.");
    }
}

// ---------------------------------------------------------------------------------------------
// GeneralMessageData

GeneralMessageData::GeneralMessageData(unsigned char* frame) : MessageData(frame), data(Body()) {
    if (Type() != Wire::kGeneralMessage) {
        throw std::runtime_error("Message type mismatch in GeneralMessageData constructor.");
    }
    if (TotalSize() != DataSize() + Wire::kHeaderSize) {
        throw std::runtime_error("Message data buffer is incorrectly initialized.");
    }
}

// ---------------------------------------------------------------------------------------------
// RawReadMessageData

std::uint64_t RawReadMessageData::DataSizeFor(std::uint32_t num_samples) {
    return Wire::kRawReadFixedSize + 4ull * num_samples;
}

// Body fields are read only after the size checks: below 144 body bytes they may lie past the frame.
RawReadMessageData::RawReadMessageData(unsigned char* frame) : MessageData(frame) {
    if (DataSize() < Wire::kRawReadFixedSize) {
        throw std::runtime_error("Not enough size reserved for raw read message type.");
    }
    if (Type() != Wire::kRawReadMessage) {
        throw std::runtime_error("Message type mismatch in RawReadMessageData constructor.");
    }
    num_samples = LeField<std::uint32_t>(frame + Wire::kNumSamplesOffset);
    if (DataSize() != DataSizeFor(num_samples.Get())) {
        throw std::runtime_error("Incorrect buffer size for raw read message data.");
    }
    read_word = LeField<std::uint32_t>(frame + Wire::kReadWordOffset);
    read_quad = LeField<std::uint64_t>(frame + Wire::kReadQuadOffset);
    read_id = reinterpret_cast<char*>(frame + Wire::kReadIdOffset);
    samples = LeArray<std::uint32_t>(frame + Wire::kSamplesOffset, num_samples.Get());
}

std::string RawReadMessageData::ReadId() const { return std::string(read_id, boundedLength(read_id, Wire::kReadIdBytes)); }

// ---------------------------------------------------------------------------------------------
// CalledReadMessageData

std::uint64_t CalledReadMessageData::DataSizeFor(std::uint32_t num_events, std::uint32_t sequence_length,
                                                 bool has_extra) {
    const std::uint64_t n = num_events;
    const std::uint64_t length = sequence_length;
    // Fixed part, 4 + 4 + 1 bytes per event, and two texts of L bytes each with their terminators.
    return Wire::kCalledReadFixedSize + 9 * n + 2 * (length + 1) + (has_extra ? 8 * n : 0);
}

CalledReadMessageData::CalledReadMessageData(unsigned char* frame) : MessageData(frame) {
    if (DataSize() < Wire::kCalledReadFixedSize) {
        throw std::runtime_error("Not enough size reserved for called read message data.");
    }
    if (Type() != Wire::kCalledReadMessage) {
        throw std::runtime_error("Message type mismatch in CalledReadMessageData constructor.");
    }
    num_events = LeField<std::uint32_t>(frame + Wire::kNumEventsOffset);
    sequence_length = LeField<std::uint32_t>(frame + Wire::kSequenceLengthOffset);
    has_extra = LeField<std::uint32_t>(frame + Wire::kHasExtraOffset);
    const std::size_t n = num_events.Get();
    const std::size_t length = sequence_length.Get();
    if (DataSize() != DataSizeFor(num_events.Get(), sequence_length.Get(), HasExtra())) {
        throw std::runtime_error("Incorrect buffer size for called read message data.");
    }
    num_samples = LeField<std::uint32_t>(frame + Wire::kNumSamplesOffset);
    read_word = LeField<std::uint32_t>(frame + Wire::kReadWordOffset);
    read_quad = LeField<std::uint64_t>(frame + Wire::kReadQuadOffset);
    read_id = reinterpret_cast<char*>(frame + Wire::kReadIdOffset);
    reserved = frame + Wire::kReservedOffset;

    unsigned char* at = frame + Wire::kEventArraysOffset;
    first_array = LeArray<std::uint32_t>(at, n);
    at += 4 * n;
    second_array = LeArray<std::uint32_t>(at, n);
    at += 4 * n;
    third_array = LeArray<std::uint8_t>(at, n);
    at += n;
    sequence = reinterpret_cast<char*>(at);
    at += length + 1;
    quality = reinterpret_cast<char*>(at);
    at += length + 1;
    extra_array = LeArray<std::uint64_t>(at, HasExtra() ? n : 0);
}

std::string CalledReadMessageData::ReadId() const {
    return std::string(read_id, boundedLength(read_id, Wire::kReadIdBytes));
}

std::string CalledReadMessageData::Sequence() const {
    return std::string(sequence, boundedLength(sequence, sequence_length.Get()));
}

std::string CalledReadMessageData::Quality() const {
    return std::string(quality, boundedLength(quality, sequence_length.Get()));
}

}  // namespace IpcTools
