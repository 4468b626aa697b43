// The WebSocket server transport, driven as the host drives it: an upgrade answered with a
// socket, frames fed in one at a time, frames written out recorded.

#include <gtest/gtest.h>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class WebSocketTransport : public TransportFixture {
protected:
    // Handshakes on `socket` and returns the client id it was given.
    static std::string handshake(Socket& socket) {
        socket.send(R"({"channel":"/meta/handshake","id":"h"})");
        return clientIdIn(socket.written->seen().back());
    }
    // The frames written to `socket` since `from`, with the client id `id` as `name`.
    static Texts framesSince(Socket& socket, std::size_t from, const std::string& id, const std::string& name) {
        Texts frames = socket.written->seen();
        frames.erase(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(std::min(from, frames.size())));
        for (std::string& frame : frames) {
            frame = named(frame, id, name);
        }
        return frames;
    }
};

TEST_F(WebSocketTransport, EachReplyIsItsOwnFrameAndTheClientIdIsFilledInAfterTheHandshake) {
    Socket socket = upgrade();
    const std::string me = handshake(socket);
    ASSERT_EQ(me.size(), 16u);
    const std::pair<std::string, Texts> cases[] = {  // a frame in, the frames it adds, client id as ME
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
    for (const auto& [frame, written] : cases) {
        SCOPED_TRACE(frame);
        const std::size_t before = socket.written->size();
        socket.send(frame);
        EXPECT_EQ(framesSince(socket, before, me, "ME"), written);
    }
    EXPECT_EQ(socket.written->errorCount(), 0);
}

TEST_F(WebSocketTransport, ConnectHoldsFourteenSecondsByDefaultAndKeepsTheClientsOwnTimeout) {
    const std::pair<std::string, std::chrono::milliseconds> cases[] = {  // advice, held for
        {"", 14000ms}, {R"(,"advice":{"interval":0})", 14000ms}, {R"(,"advice":{"timeout":3000})", 3000ms},
        {R"(,"advice":{"timeout":0})", 0ms}};
    for (const auto& [advice, heldFor] : cases) {
        SCOPED_TRACE(advice);
        Socket socket = upgrade();
        const std::string me = handshake(socket);
        // The connection type is forced to websocket whatever the client says.
        socket.send(R"({"channel":"/meta/connect","id":"c","connectionType":"long-polling")" + advice + "}");
        EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), heldFor > 0ms);
        if (heldFor > 0ms) {
            clock->advance(heldFor - 100ms);
            EXPECT_EQ(socket.written->size(), 1u) << "still held";
            clock->advance(100ms);
        }
        EXPECT_EQ(framesSince(socket, 1, me, "ME"),
                  Texts{R"([{"channel":"/meta/connect","id":"c","clientId":"ME","successful":true}])"});
        socket.send(R"({"channel":"/meta/disconnect"})");
    }
}

TEST_F(WebSocketTransport, OneConnectStreamsAnotherClientsPublishAsTwoFramesAndTheNextConnectTakesOver) {
    Socket alice = upgrade(), bob = upgrade(browser("browser-2"));
    const std::string aliceId = handshake(alice);
    handshake(bob);
    alice.send(R"({"channel":"/meta/subscribe","subscription":"/chat/**"})");
    const std::string subscribed = R"([{"channel":"/meta/subscribe","clientId":"ALICE","successful":true,"subscription":"/x"}])";
    const std::tuple<std::string, std::string, Texts> cases[] = {  // id, the connect's frame, frames before the delivery
        {"c1", R"({"channel":"/meta/connect","id":"c1"})", {}},
        // Held inside a batch too: the subscribe is answered at once, the connect with the delivery.
        {"c2", R"([{"channel":"/meta/connect","id":"c2"},{"channel":"/meta/subscribe","subscription":"/x"}])", {subscribed}},
        {"c3", R"({"channel":"/meta/connect","id":"c3"})", {}},
    };
    for (const auto& [id, connect, first] : cases) {
        SCOPED_TRACE(id);
        const std::size_t before = alice.written->size();
        alice.send(connect);
        bob.send(R"({"channel":"/chat/room/1","data":")" + id + R"("})");
        clock->advance(5ms);
        Texts expected = first;
        expected.push_back(R"([{"channel":"/chat/room/1","clientId":null,"data":")" + id + R"("}])");
        expected.push_back(R"([{"channel":"/meta/connect","id":")" + id + R"(","clientId":"ALICE","successful":true}])");
        EXPECT_EQ(framesSince(alice, before, aliceId, "ALICE"), expected);
    }
    EXPECT_EQ(bob.written->size(), 4u) << "bob saw his handshake and three publish replies, not his own messages";
}

// A host that collects the frames (as the reference host does) gets a publish's frame as the
// bytes all its receivers share; a subscriber gets its own copy, in the frame's data.
TEST_F(WebSocketTransport, ACollectingHostGetsAPublishAsSharedBytesAndASubscriberItsOwnCopy) {
    using FrameSource = reactive_streams::Collectable<http::WebSocketFrame>;
    Socket bob = upgrade(browser("browser-2")), alice = upgrade();
    handshake(bob);
    const std::string join[] = {R"({"channel":"/meta/handshake","id":"h"})",
                                R"([{"channel":"/meta/subscribe","subscription":"/room"},{"channel":"/meta/connect","id":"c"}])"};
    for (const std::string& frame : join) {
        alice.send(frame);
    }
    std::unique_ptr<Message> collected[] = {open(), open()};
    std::shared_ptr<FrameFeed> feeds[] = {std::make_shared<FrameFeed>(nullptr), std::make_shared<FrameFeed>(nullptr)};
    for (std::size_t i = 0; i < 2; ++i) {
        dynamic_cast<FrameSource&>(*webSocketOf(collected[i]).inbound).collect([] {});
        feeds[i]->subscribe(webSocketOf(collected[i]).outbound);
        for (const std::string& frame : join) {
            feeds[i]->publish(http::WebSocketFrame(common::DataBuffer(frame), 129));
        }
    }
    bob.send(R"({"channel":"/room","data":"hi"})");
    clock->advance(5ms);
    const std::string delivered = R"([{"channel":"/room","clientId":null,"data":"hi"}])";
    EXPECT_EQ(alice.written->seen().at(2), delivered) << "the subscriber's copy is in the frame's data";
    std::vector<const common::DataBuffer*> shared;
    for (const std::unique_ptr<Message>& socket : collected) {
        common::RingQueue<http::WebSocketFrame> frames;
        dynamic_cast<FrameSource&>(*webSocketOf(socket).inbound).takeAll(frames);
        ASSERT_EQ(frames.size(), 4u) << "handshake, subscribe, the publish and the connect's reply";
        EXPECT_EQ(frames[2].bytes(), delivered);
        shared.push_back(frames[2].shared.get());
    }
    EXPECT_TRUE(shared[0] != nullptr && shared[0] == shared[1]) << "one shared buffer for every receiver";
}

TEST_F(WebSocketTransport, UnreadableFrameAfterAGoodConnectFailsTheSocketWithoutAReplyAndEndsItsStream) {
    Socket bob = upgrade(browser("browser-2"));
    handshake(bob);
    for (const std::string invalid : {R"({"channel":)", R"({"channel":"/room","data":")" "\xC1\xBF" "\"}",
                                      R"({"channel":"/room","data":")" "\xF0\x9F\x98" "\"}"}) {
        SCOPED_TRACE(::testing::PrintToString(invalid));
        Socket socket = upgrade();
        handshake(socket);
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/room"})");
        socket.send(R"({"channel":"/meta/connect","id":"c"})");
        socket.send(invalid);
        EXPECT_EQ(socket.written->size(), 2u) << "no Bayeux reply to what cannot be read";
        EXPECT_EQ(socket.written->errorCount(), 1) << "the socket is failed, not merely the one message";
        EXPECT_TRUE(socket.writer.expired()) << "the connection let go of its frame publisher";
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/late"})");
        bob.send(R"({"channel":"/room","data":1})");
        clock->advance(14s);
        EXPECT_EQ(socket.written->size(), 2u) << "nothing reaches a failed socket";
    }
}

TEST_F(WebSocketTransport, ProviderRefusesWhatIsNoUpgrade) {
    std::unique_ptr<Message> refused[] = {
        std::make_unique<http::HttpRequest>("get", "/", http::Headers{{"upgrade", "WebSocket"}}, nullptr), nullptr};
    for (auto& message : refused) {
        Answer answer = read(routes->at("websocket")->deliver(std::move(message), Address("websocket"), browser()).get());
        EXPECT_EQ(std::to_string(answer.status) + " " + answer.body->joined(), "500 Bayeux protocol error.");
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
