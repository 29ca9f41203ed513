#pragma once
// Client side of the remote basecall service: one ZeroMQ request socket to one server.
//
// What a server has to do: bind a ZeroMQ reply socket at the endpoint, answer every frame with
// exactly one frame of protocol 4 (see message_data.h), and answer within four times `timeout`
// milliseconds, or the client gives up on that request.
//
// A client belongs to one thread: ZeroMQ sockets are not to be shared, and there is no lock here.

#include <cstdint>
#include <string>

#include "ipc_tools/message.h"
#include "ipc_tools/zmq_handles.h"

namespace IpcTools {

class ClientBase {
public:
    // Polls made for one reply, each of `timeout` milliseconds.
    static constexpr int kReplyPolls = 4;
    // Attempts made while ZeroMQ answers EAGAIN, 1 ms apart.
    static constexpr int kEagainAttempts = 4;

    // `address` is a port ("5555") or host and port ("host:5555"), see FormatAddress. Connects at
    // once; a ZeroMQ failure throws ZmqError.
    ClientBase(const std::string& address, std::int32_t timeout);

    // Fills `reply` with a general message (client 0, command "bad_reply") whose body is `text` and
    // its terminator; handed back in place of a reply that cannot be used.
    virtual void MakeBadReply(const std::string& text, Message& reply);
    virtual ~ClientBase();

    ClientBase(const ClientBase&) = delete;
    ClientBase& operator=(const ClientBase&) = delete;

    // Sends `request` (left empty afterwards) and waits for the answer. Returns false for an empty
    // request, and when no answer came within the polls: the socket can then send nothing more
    // until Reconnect. Everything else throws; after an exception, Reconnect too.
    bool Send(Message& request, Message& reply);

    // Replaces the socket with a newly connected one; the old one is closed, dropping what it held.
    void Reconnect();

    // The endpoint for an address text: "host:port" becomes "tcp://host:port", anything else is
    // taken for a port on this machine, "tcp://localhost:<text>".
    static std::string FormatAddress(const std::string& text);

    const std::string& Address() const { return address; }
    std::int32_t Timeout() const { return timeout; }

protected:
    ZmqContext context;
    ZmqSocket socket;  // declared after the context: it must be closed before the context ends
    std::string address;
    std::int32_t timeout;
};

}  // namespace IpcTools
