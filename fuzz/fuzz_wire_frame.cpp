// One received frame of the basecall service protocol: taken over from its ZeroMQ message with the
// header and type checks, then read through the view of its type, every field and array of it, and
// handed on to another ZeroMQ message as a send does.

#include <zmq.h>

#include "fuzz_support.h"
#include "ipc_tools/message.h"

namespace {

// Sums what a client would read of a frame, so that every byte a view points at is touched.
std::uint64_t readAll(const IpcTools::Message& message) {
    using namespace IpcTools;
    const MessageData header = message.HeaderData();
    std::uint64_t sum = header.Type() + header.ClientId() + header.Protocol() + header.Command().size() +
                        header.TotalSize() + header.DataSize();
    switch (message.Type()) {
        case Wire::kSimpleMessage: static_cast<void>(message.SimpleData()); break;
        case Wire::kGeneralMessage: {
            const GeneralMessageData general = message.GeneralData();
            for (std::uint32_t i = 0; i < general.DataSize(); ++i) sum += general.data[i];
            break;
        }
        case Wire::kRawReadMessage: {
            const RawReadMessageData raw = message.RawReadData();
            sum += raw.num_samples.Get() + raw.read_word.Get() + raw.read_quad.Get() + raw.ReadId().size();
            for (std::size_t i = 0; i < raw.samples.Size(); ++i) sum += raw.samples.Get(i);
            break;
        }
        default: {
            const CalledReadMessageData called = message.CalledReadData();
            sum += called.num_samples.Get() + called.read_word.Get() + called.read_quad.Get() +
                   called.ReadId().size() + called.Sequence().size() + called.Quality().size();
            for (std::size_t i = 0; i < Wire::kReservedBytes; ++i) sum += called.reserved[i];
            for (std::size_t i = 0; i < called.first_array.Size(); ++i) {
                sum += called.first_array.Get(i) + called.second_array.Get(i) + called.third_array.Get(i);
            }
            for (std::size_t i = 0; i < called.extra_array.Size(); ++i) sum += called.extra_array.Get(i);
            break;
        }
    }
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zmq_msg_t frame;
    fuzz::Check(zmq_msg_init_size(&frame, size) == 0, "a frame buffer of the input's size");
    if (size > 0) {
        std::memcpy(zmq_msg_data(&frame), data, size);
    }
    fuzz::Try([&] {
        IpcTools::Message message(&frame);
        fuzz::Check(message.Size() == size, "a received message keeps its frame's size");
        readAll(message);
        zmq_msg_t sent;
        zmq_msg_init(&sent);
        message.Send(&sent);
        fuzz::Check(message.Empty() && zmq_msg_size(&sent) == size, "a send hands the whole frame on");
        zmq_msg_close(&sent);
    });
    zmq_msg_close(&frame);
    return 0;
}
