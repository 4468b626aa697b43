// The WebSocket server transport, driven as the host drives it: an upgrade answered
// with a socket, frames fed in one at a time, frames written out recorded.

#include <gtest/gtest.h>

#include <regex>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class WebSocketTransport : public TransportFixture {
protected:
    // Handshakes on `socket` and returns the client id it was given.
    std::string handshake(Socket& socket) {
        socket.send(R"({"channel":"/meta/handshake","id":"h"})");
        const std::string frame = socket.written->seen().back();
        std::smatch id;
        EXPECT_TRUE(std::regex_search(frame, id, std::regex(R"("clientId":"([^"]+)\")"))) << frame;
        return id[1];
    }
    static std::vector<std::string> named(std::vector<std::string> frames, const std::string& id,
                                          const std::string& name) {
        for (std::string& frame : frames) {
            frame = std::regex_replace(frame, std::regex(id), name);
        }
        return frames;
    }
};

TEST_F(WebSocketTransport, EachReplyIsItsOwnFrameAndTheClientIdIsFilledInAfterTheHandshake) {
    Socket socket = upgrade();
    const std::string me = handshake(socket);
    ASSERT_EQ(me.size(), 16u);
    struct Case {
        std::string frame;
        std::vector<std::string> written;  // the frames this one adds, client id as ME
    };
    const std::vector<Case> cases = {
        {R"({"channel":"/meta/subscribe","id":"1","subscription":"/a"})",
         {R"([{"channel":"/meta/subscribe","id":"1","clientId":"ME","successful":true,"subscription":"/a"}])"}},
        {R"([{"channel":"/meta/subscribe","subscription":"/b"},{"channel":"/b","id":"2","data":[1]}])",
         {R"([{"channel":"/meta/subscribe","clientId":"ME","successful":true,"subscription":"/b"}])",
          R"([{"channel":"/b","id":"2","clientId":"ME","successful":true}])"}},
        {"", {}},
        {R"({"channel":"/meta/subscribe","clientId":"other-client-123","subscription":"/c"})",
         {R"([{"channel":"/meta/subscribe","clientId":"other-client-123","successful":false,)"
          R"("error":"No such clientId.","subscription":"/c"}])"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.frame);
        const std::size_t before = socket.written->seen().size();
        socket.send(test.frame);
        std::vector<std::string> added = named(socket.written->seen(), me, "ME");
        added.erase(added.begin(), added.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(added, test.written);
    }
    EXPECT_EQ(socket.written->errorCount(), 0);
}

TEST_F(WebSocketTransport, ConnectHoldsFourteenSecondsByDefaultAndKeepsTheClientsOwnTimeout) {
    struct Case {
        std::string advice;
        std::chrono::milliseconds quietUntil;
    };
    const std::vector<Case> cases = {
        {"", 14000ms},
        {R"(,"advice":{"interval":0})", 14000ms},
        {R"(,"advice":{"timeout":3000})", 3000ms},
        {R"(,"advice":{"timeout":0})", 0ms},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.advice);
        Socket socket = upgrade();
        const std::string me = handshake(socket);
        // The connection type is forced to websocket whatever the client says.
        socket.send(R"({"channel":"/meta/connect","id":"c","connectionType":"long-polling")" + test.advice + "}");
        EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), test.quietUntil > 0ms);
        if (test.quietUntil > 0ms) {
            clock->advance(test.quietUntil - 100ms);
            EXPECT_EQ(socket.written->seen().size(), 1u) << "still held";
            clock->advance(100ms);
        }
        EXPECT_EQ(named(socket.written->seen(), me, "ME").back(),
                  R"([{"channel":"/meta/connect","id":"c","clientId":"ME","successful":true}])");
        socket.send(R"({"channel":"/meta/disconnect"})");
    }
}

TEST_F(WebSocketTransport, OneConnectStreamsAnotherClientsPublishAsTwoFramesAndTheNextConnectTakesOver) {
    Socket alice = upgrade();
    const std::string aliceId = handshake(alice);
    Socket bob = upgrade(browser("browser-2"));
    handshake(bob);
    alice.send(R"({"channel":"/meta/subscribe","subscription":"/chat/**"})");
    for (const std::string id : {"c1", "c2"}) {
        SCOPED_TRACE(id);
        const std::size_t before = alice.written->seen().size();
        alice.send(R"({"channel":"/meta/connect","id":")" + id + R"("})");
        bob.send(R"({"channel":"/chat/room/1","data":")" + id + R"("})");
        clock->advance(5ms);
        std::vector<std::string> added = named(alice.written->seen(), aliceId, "ALICE");
        added.erase(added.begin(), added.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(added, (std::vector<std::string>{
                             R"([{"channel":"/chat/room/1","clientId":null,"data":")" + id + R"("}])",
                             R"([{"channel":"/meta/connect","id":")" + id +
                                 R"(","clientId":"ALICE","successful":true}])"}));
    }
    EXPECT_EQ(bob.written->seen().size(), 3u) << "bob saw his handshake and two publish replies, not his own messages";
}

TEST_F(WebSocketTransport, InvalidFrameAfterAGoodConnectFailsTheSocketWithoutAReplyAndEndsItsStream) {
    Socket bob = upgrade(browser("browser-2"));
    handshake(bob);
    for (const std::string invalid : {R"({"channel":)", "[]", "[1]", "{}", R"({"id":"1"})"}) {
        SCOPED_TRACE(invalid);
        Socket socket = upgrade();
        handshake(socket);
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/room"})");
        socket.send(R"({"channel":"/meta/connect","id":"c"})");

        socket.send(invalid);
        EXPECT_EQ(socket.written->seen().size(), 2u) << "no Bayeux reply to what cannot be read";
        EXPECT_EQ(socket.written->errorCount(), 1) << "the socket is failed, not merely the one message";
        EXPECT_TRUE(socket.writer.expired()) << "the connection let go of its frame publisher";
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/late"})");
        bob.send(R"({"channel":"/room","data":1})");
        clock->advance(14s);
        EXPECT_EQ(socket.written->seen().size(), 2u) << "nothing reaches a failed socket";
    }
}

TEST_F(WebSocketTransport, HostClosingTheSocketEndsTheConnectionAndReleasesIt) {
    Socket socket = upgrade();
    handshake(socket);
    socket.send(R"({"channel":"/meta/connect","id":"c"})");

    socket.written->cancel();
    EXPECT_EQ(socket.written->errorCount(), 0) << "a close by the host is no failure";
    EXPECT_TRUE(socket.writer.expired()) << "the connection let go of its frame publisher";
    EXPECT_FALSE(socket.reader.expired());
    socket.feed.reset();
    EXPECT_TRUE(socket.reader.expired()) << "dropping the reader's feed releases the connection";
}

TEST_F(WebSocketTransport, FrameThatIsNotUtf8FailsItsSocketWhileTheRoomKeepsReceiving) {
    Socket listener = upgrade();
    const std::string listenerId = handshake(listener);
    listener.send(R"({"channel":"/meta/subscribe","subscription":"/room"})");
    Socket talker = upgrade(browser("browser-2"));
    handshake(talker);
    for (const std::string bytes : {"\xC1\xBF", "\xED\xBF\xBF", "\xF5\x80\x80\x80", "\x80", "\xF0\x9F\x98"}) {
        SCOPED_TRACE(::testing::PrintToString(bytes));
        Socket hostile = upgrade(browser("browser-3"));
        handshake(hostile);
        hostile.send(R"({"channel":"/room","data":")" + bytes + "\"}");
        EXPECT_EQ(hostile.written->seen().size(), 1u) << "no reply but the handshake's";
        EXPECT_EQ(hostile.written->errorCount(), 1) << "the socket is failed";

        const std::size_t before = listener.written->seen().size();
        listener.send(R"({"channel":"/meta/connect","id":"c"})");
        talker.send("{\"channel\":\"/room\",\"data\":\"\xE2\x82\xAC\"}");
        clock->advance(5ms);
        std::vector<std::string> added = named(listener.written->seen(), listenerId, "LISTENER");
        added.erase(added.begin(), added.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(added, (std::vector<std::string>{
                             "[{\"channel\":\"/room\",\"clientId\":null,\"data\":\"\xE2\x82\xAC\"}]",
                             R"([{"channel":"/meta/connect","id":"c","clientId":"LISTENER","successful":true}])"}));
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
