#include "ipc_tools/zmq_handles.h"

#include <cerrno>
#include <utility>

#include <zmq.h>

namespace IpcTools {

ZmqError::ZmqError(const std::string& call, int errnum)
    : std::runtime_error(call + " failed: " + zmq_strerror(errnum)), m_errnum(errnum) {}

ZmqError::ZmqError(const std::string& call) : ZmqError(call, zmq_errno()) {}

ZmqContext::ZmqContext() {
    m_context = zmq_ctx_new();
    if (m_context == nullptr) {
        throw ZmqError("zmq_ctx_new");
    }
    if (zmq_ctx_set(m_context, ZMQ_IO_THREADS, 1) != 0) {
        const int err = zmq_errno();
        zmq_ctx_destroy(m_context);
        throw ZmqError("zmq_ctx_set", err);
    }
}

ZmqContext::~ZmqContext() {
    // Termination can be interrupted by a signal; it has to be repeated, or the I/O thread stays.
    while (zmq_ctx_destroy(m_context) != 0 && zmq_errno() == EINTR) {
    }
}

ZmqSocket::ZmqSocket(void* context, const std::string& endpoint) : m_context(context) {
    m_socket = zmq_socket(context, ZMQ_REQ);
    if (m_socket == nullptr) {
        throw ZmqError("zmq_socket");
    }
    const int linger = 0;
    if (zmq_setsockopt(m_socket, ZMQ_LINGER, &linger, sizeof(linger)) != 0) {
        const int err = zmq_errno();
        close();
        throw ZmqError("zmq_setsockopt", err);
    }
    if (zmq_connect(m_socket, endpoint.c_str()) != 0) {
        const int err = zmq_errno();
        close();
        throw ZmqError("zmq_connect to " + endpoint, err);
    }
}

ZmqSocket::~ZmqSocket() { close(); }

ZmqSocket::ZmqSocket(ZmqSocket&& other) noexcept
    : m_context(std::exchange(other.m_context, nullptr)), m_socket(std::exchange(other.m_socket, nullptr)) {}

ZmqSocket& ZmqSocket::operator=(ZmqSocket&& other) noexcept {
    if (this != &other) {
        close();
        m_context = std::exchange(other.m_context, nullptr);
        m_socket = std::exchange(other.m_socket, nullptr);
    }
    return *this;
}

void ZmqSocket::close() {
    if (m_socket != nullptr) {
        zmq_close(m_socket);
        m_socket = nullptr;
    }
}

}  // namespace IpcTools
