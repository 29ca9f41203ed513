#include "ipc_tools/client_base.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "common/logger.h"

namespace IpcTools {

namespace {
// Closes a ZeroMQ message on every way out of Send.
class MsgGuard {
public:
    MsgGuard() { zmq_msg_init(&m_msg); }
    ~MsgGuard() { zmq_msg_close(&m_msg); }
    MsgGuard(const MsgGuard&) = delete;
    MsgGuard& operator=(const MsgGuard&) = delete;
    zmq_msg_t* Get() { return &m_msg; }

private:
    zmq_msg_t m_msg;
};

void pauseBeforeRetry() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }
}  // namespace

ClientBase::ClientBase(const std::string& address_text, std::int32_t timeout_ms)
    : address(FormatAddress(address_text)), timeout(timeout_ms) {
    socket = ZmqSocket(context.Handle(), address);
}

ClientBase::~ClientBase() = default;

std::string ClientBase::FormatAddress(const std::string& text) {
    if (text.find(':') != std::string::npos) {
        return "tcp://" + text;
    }
    return "tcp://localhost:" + text;
}

void ClientBase::Reconnect() {
    KVX_LOG_CH(verbose, "ipc") << "Reconnecting to " << address;
    socket = ZmqSocket(context.Handle(), address);
}

bool ClientBase::Send(Message& request, Message& reply) {
    MsgGuard outgoing;
    if (request.Empty()) {
        return false;
    }
    request.Send(outgoing.Get());

    for (int failures = 0;;) {
        if (zmq_msg_send(outgoing.Get(), socket.Handle(), 0) >= 0) {
            break;
        }
        const int err = zmq_errno();
        if (err != EAGAIN) {
            throw ZmqError("zmq_msg_send", err);
        }
        if (++failures == kEagainAttempts) {
            throw std::runtime_error("Client zmq_msg_send failed with EAGAIN");
        }
        pauseBeforeRetry();
    }

    zmq_pollitem_t item;
    std::memset(&item, 0, sizeof(item));
    item.socket = socket.Handle();
    item.events = ZMQ_POLLIN;
    bool ready = false;
    for (int poll = 0; poll < kReplyPolls && !ready; ++poll) {
        item.revents = 0;
        if (zmq_poll(&item, 1, timeout) < 0) {
            throw ZmqError("zmq_poll");
        }
        ready = (item.revents & ZMQ_POLLIN) != 0;
    }
    if (!ready) {
        KVX_LOG_CH(verbose, "ipc") << "No reply from " << address << " after " << kReplyPolls << " polls of "
                                   << timeout << " ms";
        return false;
    }

    MsgGuard incoming;
    for (int failures = 0;;) {
        if (zmq_msg_recv(incoming.Get(), socket.Handle(), ZMQ_DONTWAIT) >= 0) {
            break;
        }
        const int err = zmq_errno();
        if (err != EAGAIN) {
            throw ZmqError("zmq_msg_recv", err);
        }
        if (++failures == kEagainAttempts) {
            throw std::runtime_error("Client zmq_msg_recv failed with EAGAIN");
        }
        pauseBeforeRetry();
    }
    reply = Message(incoming.Get());
    return true;
}

void ClientBase::MakeBadReply(const std::string& text, Message& reply) {
    // Checked here, before the size is narrowed to the 32 bits of the header.
    if (text.size() >= Wire::kMaxDataSize) {
        throw std::runtime_error("Bad reply text of " + std::to_string(text.size()) +
                                 " characters is too long for one message.");
    }
    Message bad = Message::BuildGeneral(0, "bad_reply", static_cast<std::uint32_t>(text.size() + 1));
    // The frame is zero-filled, so the copied text is already terminated.
    std::memcpy(bad.GeneralData().data, text.data(), text.size());
    reply = std::move(bad);
}

}  // namespace IpcTools
