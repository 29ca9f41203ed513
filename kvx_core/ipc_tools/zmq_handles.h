#pragma once
// Owning wrappers of the ZeroMQ handles the service client uses, and the exception that carries a
// ZeroMQ error number.

#include <stdexcept>
#include <string>

namespace IpcTools {

// A failed ZeroMQ call. what() names the call and gives ZeroMQ's text; Num() is zmq_errno() at the
// time of the failure.
class ZmqError : public std::runtime_error {
public:
    ZmqError(const std::string& call, int errnum);
    // Takes the number from zmq_errno().
    explicit ZmqError(const std::string& call);

    int Num() const { return m_errnum; }

private:
    int m_errnum;
};

// One ZeroMQ context with a single I/O thread: a client talks to one server, one socket at a time.
class ZmqContext {
public:
    ZmqContext();
    ~ZmqContext();
    ZmqContext(const ZmqContext&) = delete;
    ZmqContext& operator=(const ZmqContext&) = delete;

    void* Handle() const { return m_context; }

private:
    void* m_context = nullptr;
};

// A request socket connected to one endpoint, with the context it was made in. Linger is 0 so that
// closing never waits on a server that has gone away: unsent requests are dropped.
class ZmqSocket {
public:
    ZmqSocket() = default;
    ZmqSocket(void* context, const std::string& endpoint);
    ~ZmqSocket();
    ZmqSocket(ZmqSocket&& other) noexcept;
    ZmqSocket& operator=(ZmqSocket&& other) noexcept;
    ZmqSocket(const ZmqSocket&) = delete;
    ZmqSocket& operator=(const ZmqSocket&) = delete;

    void* Handle() const { return m_socket; }
    void* Context() const { return m_context; }

private:
    void close();

    void* m_context = nullptr;
    void* m_socket = nullptr;
};

}  // namespace IpcTools
