#pragma once
// Typed views over one frame of the basecall service protocol (version 4).
//
// A frame is an 84-byte header followed by a body whose shape depends on the message type. All
// integers are little-endian and the structures are packed, so the views hold pointers into the
// frame (LeField / LeArray) rather than overlaying C structs. A view never owns its frame; the
// constructors check the frame and throw std::runtime_error when it cannot be what it says.
//
// Frame layout (offsets from the start of the frame):
//   header       0 type, 4 client_id, 8 protocol, 12 command[64], 76 total_size, 80 data_size
//   raw read     84 num_samples, 88 read_word, 92 read_quad, 100 read_id[128], 228 samples[num_samples]
//   called read  as raw read up to 228, then 228 num_events (n), 232 sequence_length (L),
//                236 reserved[28], 264 has_extra, 268 first[n] (u32), second[n] (u32), third[n] (u8),
//                sequence[L + 1], quality[L + 1], extra[n] (u64, only when has_extra is non-zero)

#include <cstddef>
#include <cstdint>
#include <string>

#include "ipc_tools/le_field.h"

namespace IpcTools {

namespace Wire {
constexpr std::uint32_t kProtocolVersion = 4;
constexpr std::size_t kHeaderSize = 84;
// Larger sizes are taken for garbage: no real message comes near it.
constexpr std::uint32_t kMaxDataSize = 600000000;

enum MessageType : std::uint32_t {
    kSimpleMessage = 1,
    kGeneralMessage = 2,
    kRawReadMessage = 3,
    kCalledReadMessage = 4,
};

constexpr std::size_t kTypeOffset = 0;
constexpr std::size_t kClientIdOffset = 4;
constexpr std::size_t kProtocolOffset = 8;
constexpr std::size_t kCommandOffset = 12;
constexpr std::size_t kCommandBytes = 64;
constexpr std::size_t kMaxCommandLength = kCommandBytes - 1;
constexpr std::size_t kTotalSizeOffset = 76;
constexpr std::size_t kDataSizeOffset = 80;

constexpr std::size_t kNumSamplesOffset = 84;
constexpr std::size_t kReadWordOffset = 88;
constexpr std::size_t kReadQuadOffset = 92;
constexpr std::size_t kReadIdOffset = 100;
constexpr std::size_t kReadIdBytes = 128;
constexpr std::size_t kMaxReadIdLength = kReadIdBytes - 1;
constexpr std::size_t kSamplesOffset = 228;
constexpr std::uint32_t kRawReadFixedSize = 144;

constexpr std::size_t kNumEventsOffset = 228;
constexpr std::size_t kSequenceLengthOffset = 232;
constexpr std::size_t kReservedOffset = 236;
constexpr std::size_t kReservedBytes = 28;
constexpr std::size_t kHasExtraOffset = 264;
constexpr std::size_t kEventArraysOffset = 268;
constexpr std::uint32_t kCalledReadFixedSize = 184;
}  // namespace Wire

// The header common to every frame. The constructor runs the checks of CheckHeader.
class MessageData {
public:
    explicit MessageData(unsigned char* frame);
    virtual ~MessageData() = default;
    MessageData(const MessageData&) = default;
    MessageData& operator=(const MessageData&) = default;

    // The header checks, in the order in which they are reported: size out of range, protocol,
    // sizes that disagree, unknown type, command without its terminator. Reads only the header.
    static void CheckHeader(const unsigned char* frame);

    // Writes a complete header into a frame of at least 84 bytes. The command must already be known
    // to fit; the bytes of the command field after its terminator are left as they are.
    static void WriteHeader(unsigned char* frame, Wire::MessageType type, std::uint32_t client_id,
                            const std::string& command, std::uint32_t data_size);

    std::uint32_t Type() const;
    std::uint32_t ClientId() const;
    std::uint32_t Protocol() const;
    std::string Command() const;
    std::uint32_t TotalSize() const;
    std::uint32_t DataSize() const;

    unsigned char* Header() const { return header; }
    unsigned char* Body() const { return header + Wire::kHeaderSize; }

protected:
    unsigned char* header;
};

// Type 1: a command and nothing else.
class SimpleMessageData : public MessageData {
public:
    explicit SimpleMessageData(unsigned char* frame);
};

// Type 2: a command and `data_size` bytes of free form.
class GeneralMessageData : public MessageData {
public:
    explicit GeneralMessageData(unsigned char* frame);

    unsigned char* data;
};

// Type 3: a read's identity and its raw samples.
class RawReadMessageData : public MessageData {
public:
    explicit RawReadMessageData(unsigned char* frame);

    // Body size for a given sample count, wide enough never to wrap.
    static std::uint64_t DataSizeFor(std::uint32_t num_samples);

    // The id up to its terminator, never past the 128 bytes of its field.
    std::string ReadId() const;

    LeField<std::uint32_t> num_samples;
    LeField<std::uint32_t> read_word;
    LeField<std::uint64_t> read_quad;
    char* read_id;
    LeArray<std::uint32_t> samples;
};

// Type 4: a read's identity and the results of calling it: three per-event arrays, the sequence and
// its qualities, and an optional eight-byte-per-event array.
class CalledReadMessageData : public MessageData {
public:
    explicit CalledReadMessageData(unsigned char* frame);

    // Body size for n events and a sequence of L bases, wide enough never to wrap.
    static std::uint64_t DataSizeFor(std::uint32_t num_events, std::uint32_t sequence_length, bool has_extra);

    std::string ReadId() const;
    // Sequence and quality up to their terminators, never past their L bytes.
    std::string Sequence() const;
    std::string Quality() const;
    bool HasExtra() const { return has_extra.Get() != 0; }

    LeField<std::uint32_t> num_samples;  // carried but not an array length in this type
    LeField<std::uint32_t> read_word;
    LeField<std::uint64_t> read_quad;
    char* read_id;
    LeField<std::uint32_t> num_events;
    LeField<std::uint32_t> sequence_length;
    unsigned char* reserved;
    LeField<std::uint32_t> has_extra;
    LeArray<std::uint32_t> first_array;
    LeArray<std::uint32_t> second_array;
    LeArray<std::uint8_t> third_array;
    char* sequence;
    char* quality;
    LeArray<std::uint64_t> extra_array;  // empty unless has_extra is non-zero
};

}  // namespace IpcTools
