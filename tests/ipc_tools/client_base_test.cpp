// The client against a real ZeroMQ reply socket on 127.0.0.1, at a port the system picks. Each
// request is sent from a background task while the test thread serves the socket.

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

#include <zmq.h>

#include "../common/test_support.h"
#include "ipc_tools/client_base.h"

using IpcTools::ClientBase;
using IpcTools::Message;
using IpcTools::ZmqError;
using TestSupport::ErrorOf;

namespace {
// Receives one request and answers with a general message from client 9 whose body is the request's
// command, or with ten bytes that are no frame when the command is "damage".
void serveOne(void* socket) {
    zmq_msg_t request, reply;
    zmq_msg_init(&request);
    ASSERT_GE(zmq_msg_recv(&request, socket, 0), 0);
    const std::string command = Message(&request).HeaderData().Command();
    zmq_msg_close(&request);
    Message answer = Message::BuildGeneral(9, "echo", static_cast<std::uint32_t>(command.size()));
    std::memcpy(answer.GeneralData().data, command.data(), command.size());
    zmq_msg_init(&reply);
    if (command == "damage") {
        zmq_msg_init_size(&reply, 10);
        std::memset(zmq_msg_data(&reply), 0xAB, 10);
    } else {
        answer.Send(&reply);
    }
    zmq_msg_send(&reply, socket, 0);
}

std::string bodyText(const Message& reply) {
    return std::string(reinterpret_cast<const char*>(reply.GeneralData().data),
                       reply.GeneralData().DataSize());
}
}  // namespace

TEST(ClientBase, RoundTripsBadRepliesAndSilence) {
    void* context = zmq_ctx_new();
    void* socket = zmq_socket(context, ZMQ_REP);
    const int linger = 0;  // the late answer below may still be queued for a peer that is gone
    zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof(linger));
    ASSERT_EQ(zmq_bind(socket, "tcp://127.0.0.1:*"), 0);
    char endpoint[256];
    size_t length = sizeof(endpoint);
    zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &length);
    const std::string port = std::string(endpoint).substr(std::string(endpoint).rfind(':') + 1);
    // Generous: a reply comes as soon as it is sent, so this only bounds a failing test.
    ClientBase client(port, 2000);  // a port alone means this host
    EXPECT_EQ(client.Address(), "tcp://localhost:" + port);
    EXPECT_EQ(ClientBase::FormatAddress("host:5555"), "tcp://host:5555");
    Message request, reply, unanswered;
    EXPECT_FALSE(client.Send(request, reply));  // an empty request is not sent
    const auto send = [&](ClientBase& c, const std::string& command, Message& into) {
        request = Message::BuildRawRead(3, command, "read_1", 1, 2, 100);
        return std::async(std::launch::async, [&c, &into, &request] { return c.Send(request, into); });
    };
    // The socket is ready for the next request once a reply has been taken.
    for (const char* command : {"first", "second"}) {
        auto sent = send(client, command, reply);
        serveOne(socket);
        ASSERT_TRUE(sent.get());
        EXPECT_TRUE(request.Empty());
        EXPECT_EQ(reply.HeaderData().ClientId(), 9u);
        EXPECT_EQ(bodyText(reply), command);
    }
    auto damaged = send(client, "damage", unanswered);
    serveOne(socket);
    const std::string error = ErrorOf([&] { damaged.get(); });
    EXPECT_EQ(error, "Cannot construct Message from invalid zmq message object.");
    EXPECT_TRUE(unanswered.Empty());
    client.MakeBadReply(error, reply);
    EXPECT_EQ(reply.HeaderData().Command(), "bad_reply");
    EXPECT_EQ(reply.HeaderData().ClientId(), 0u);
    EXPECT_EQ(reply.Size(), 84 + error.size() + 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(reply.GeneralData().data)), error);

    // No answer within the polls: false, and the socket can send nothing more until it reconnects.
    ClientBase impatient("127.0.0.1:" + port, 25);
    EXPECT_FALSE(send(impatient, "lost", unanswered).get());
    EXPECT_TRUE(unanswered.Empty());
    EXPECT_EQ(ErrorOf([&] { send(impatient, "too soon", unanswered).get(); }),
              ZmqError("zmq_msg_send", EFSM).what());
    serveOne(socket);  // the late answer to "lost", which must not be taken for the next one
    impatient.Reconnect();
    auto recovered = send(impatient, "after reconnect", reply);
    serveOne(socket);
    EXPECT_TRUE(recovered.get() && bodyText(reply) == "after reconnect");
    zmq_close(socket);
    zmq_ctx_destroy(context);
}
