// The client against a real ZeroMQ reply socket that the test runs on 127.0.0.1, on a port the
// system picks.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include <zmq.h>

#include "ipc_tools/client_base.h"

using IpcTools::ClientBase;
using IpcTools::Message;
using IpcTools::ZmqError;

namespace {
// Fills `reply` for one received `request`.
using Handler = std::function<void(zmq_msg_t* request, zmq_msg_t* reply)>;

// Answers with a general message from client 9 whose body is the request's command.
void echoCommand(zmq_msg_t* request, zmq_msg_t* reply) {
    Message received(request);
    const std::string command = received.HeaderData().Command();
    Message answer = Message::BuildGeneral(9, "echo", static_cast<std::uint32_t>(command.size()));
    std::memcpy(answer.GeneralData().data, command.data(), command.size());
    answer.Send(reply);
}

std::string bodyText(const Message& reply) {
    auto view = reply.GeneralData();
    return std::string(reinterpret_cast<const char*>(view.data), view.DataSize());
}

// A reply socket served by its own thread. While `silent` is set, a received request waits
// unanswered; clearing it lets the answer go (to a peer that may be gone by then).
class ReplyServer {
public:
    explicit ReplyServer(Handler handler) : m_handler(std::move(handler)) {
        m_context = zmq_ctx_new();
        m_socket = zmq_socket(m_context, ZMQ_REP);
        const int linger = 0;
        zmq_setsockopt(m_socket, ZMQ_LINGER, &linger, sizeof(linger));
        if (zmq_bind(m_socket, "tcp://127.0.0.1:*") != 0) {
            throw std::runtime_error(std::string("test server cannot bind: ") + zmq_strerror(zmq_errno()));
        }
        char endpoint[256];
        size_t length = sizeof(endpoint);
        zmq_getsockopt(m_socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
        const std::string text(endpoint);
        m_port = text.substr(text.rfind(':') + 1);
        m_thread = std::thread([this] { serve(); });
    }

    ~ReplyServer() {
        m_stop = true;
        m_thread.join();
        zmq_close(m_socket);
        zmq_ctx_destroy(m_context);
    }

    const std::string& Port() const { return m_port; }
    int Received() const { return m_received; }
    std::string Error() const { return m_error_set ? m_error : std::string(); }

    std::atomic<bool> silent{false};

private:
    void serve() {
        while (!m_stop) {
            zmq_pollitem_t item{m_socket, 0, ZMQ_POLLIN, 0};
            if (zmq_poll(&item, 1, 5) <= 0) continue;
            zmq_msg_t request;
            zmq_msg_t reply;
            zmq_msg_init(&request);
            zmq_msg_init(&reply);
            if (zmq_msg_recv(&request, m_socket, 0) >= 0) {
                ++m_received;
                while (silent && !m_stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                try {
                    m_handler(&request, &reply);
                    zmq_msg_send(&reply, m_socket, 0);
                } catch (const std::exception& e) {
                    m_error = e.what();
                    m_error_set = true;
                }
            }
            zmq_msg_close(&reply);
            zmq_msg_close(&request);
        }
    }

    Handler m_handler;
    void* m_context = nullptr;
    void* m_socket = nullptr;
    std::string m_port;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_received{0};
    std::string m_error;
    std::atomic<bool> m_error_set{false};
};

// Generous: a reply comes as soon as it is sent, so this only bounds a failing test.
constexpr std::int32_t kPatientTimeout = 2000;
}  // namespace

TEST(ClientBase, AddressForms) {
    EXPECT_EQ(ClientBase::FormatAddress("5555"), "tcp://localhost:5555");
    EXPECT_EQ(ClientBase::FormatAddress("host:5555"), "tcp://host:5555");
    EXPECT_EQ(ClientBase::FormatAddress("127.0.0.1:80"), "tcp://127.0.0.1:80");
}

TEST(ClientBase, RoundTripsWithHostAndPortOrPortOnly) {
    ReplyServer server(echoCommand);
    ClientBase client("127.0.0.1:" + server.Port(), kPatientTimeout);
    EXPECT_EQ(client.Address(), "tcp://127.0.0.1:" + server.Port());

    Message request = Message::BuildRawRead(3, "first", "read_1", 1, 2, 100);
    Message reply;
    ASSERT_TRUE(client.Send(request, reply));
    EXPECT_TRUE(request.Empty());
    EXPECT_EQ(reply.HeaderData().ClientId(), 9u);
    EXPECT_EQ(bodyText(reply), "first");

    // The socket is ready for the next request once a reply has been taken.
    request = Message::BuildSimple(3, "second");
    ASSERT_TRUE(client.Send(request, reply));
    EXPECT_EQ(bodyText(reply), "second");

    // A port alone means this host.
    ClientBase local(server.Port(), kPatientTimeout);
    EXPECT_EQ(local.Address(), "tcp://localhost:" + server.Port());
    request = Message::BuildSimple(0, "local");
    ASSERT_TRUE(local.Send(request, reply));
    EXPECT_EQ(bodyText(reply), "local");
    EXPECT_EQ(server.Received(), 3);
    EXPECT_EQ(server.Error(), "");
}

TEST(ClientBase, SilentServerGivesFalseThenReconnectRecovers) {
    ReplyServer server(echoCommand);
    server.silent = true;
    const std::int32_t timeout = 25;
    ClientBase client("127.0.0.1:" + server.Port(), timeout);

    Message request = Message::BuildSimple(1, "lost");
    Message reply;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(client.Send(request, reply));
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    // Four polls of 25 ms; a few ms of slack for the poll clock's coarseness.
    EXPECT_GE(waited.count(), 4 * timeout - 8);
    EXPECT_TRUE(reply.Empty());
    EXPECT_EQ(server.Received(), 1);

    // A request socket that is still waiting for its reply cannot send.
    request = Message::BuildSimple(1, "too soon");
    try {
        client.Send(request, reply);
        FAIL() << "sending twice without a reply should fail";
    } catch (const ZmqError& e) {
        EXPECT_EQ(e.Num(), EFSM);
    }

    // The late answer to "lost" must not be taken for the answer to the next request.
    server.silent = false;
    client.Reconnect();
    request = Message::BuildSimple(1, "after reconnect");
    ASSERT_TRUE(client.Send(request, reply));
    EXPECT_EQ(bodyText(reply), "after reconnect");
    EXPECT_EQ(server.Received(), 2);
}

TEST(ClientBase, DamagedReplyThrowsAndBadReplyStandsIn) {
    ReplyServer server([](zmq_msg_t*, zmq_msg_t* reply) {
        zmq_msg_init_size(reply, 10);
        std::memset(zmq_msg_data(reply), 0xAB, 10);
    });
    ClientBase client("127.0.0.1:" + server.Port(), kPatientTimeout);
    Message request = Message::BuildSimple(1, "ask");
    Message reply;
    std::string error;
    try {
        client.Send(request, reply);
    } catch (const std::runtime_error& e) {
        error = e.what();
    }
    EXPECT_EQ(error, "Cannot construct Message from invalid zmq message object.");
    EXPECT_TRUE(reply.Empty());

    client.MakeBadReply(error, reply);
    EXPECT_EQ(reply.HeaderData().Command(), "bad_reply");
    EXPECT_EQ(reply.HeaderData().ClientId(), 0u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.GeneralData().data)), error);

    client.MakeBadReply("x", reply);
    ASSERT_EQ(reply.Size(), 86u);
    EXPECT_EQ(reply.Data()[84], 'x');
    EXPECT_EQ(reply.Data()[85], 0);
}

TEST(ClientBase, EmptyRequestAndBadAddress) {
    ReplyServer server(echoCommand);
    ClientBase client("127.0.0.1:" + server.Port(), kPatientTimeout);
    Message empty;
    Message reply;
    EXPECT_FALSE(client.Send(empty, reply));
    EXPECT_EQ(server.Received(), 0);

    try {
        ClientBase broken("127.0.0.1:port", 10);
        FAIL() << "a port that is not a number cannot be connected to";
    } catch (const ZmqError& e) {
        EXPECT_EQ(e.Num(), EINVAL);
        EXPECT_NE(std::string(e.what()).find("tcp://127.0.0.1:port"), std::string::npos) << e.what();
    }
}
