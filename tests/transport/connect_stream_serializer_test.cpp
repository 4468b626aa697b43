#include <gtest/gtest.h>

#include "korvane/transport/connect_stream_serializer.h"
#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

using MessageFeed = reactive_streams::CachedValuePublisher<std::unique_ptr<Message>, std::function<void()>>;

std::unique_ptr<Message> reply(const std::string& id) {
    auto response = std::make_unique<ConnectResponse>();
    response->id = id;
    response->successful = true;
    return response;
}

std::unique_ptr<Message> message(const std::string& data) {
    std::unique_ptr<PublishRequest> request = makePublish("/chat", data, "");
    return request;
}

TEST(ConnectStreamSerializer, WritesOneChunkPerMessageWithTheArrayClosedByTheConnectResponse) {
    struct Case {
        std::string name;
        std::function<void(MessageFeed&)> feed;
        std::vector<std::string> chunks;
    };
    const std::vector<Case> cases = {
        {"two messages then the reply",
         [](MessageFeed& feed) {
             feed.publish(message("1"));
             feed.publish(message("2"));
             feed.publish(reply("c"));
             feed.finish();
         },
         {R"([{"channel":"/chat","clientId":null,"data":1},)", R"({"channel":"/chat","clientId":null,"data":2},)",
          R"({"channel":"/meta/connect","id":"c","clientId":null,"successful":true}])"}},
        {"the reply alone", [](MessageFeed& feed) { feed.publish(reply("c")), feed.finish(); },
         {R"([{"channel":"/meta/connect","id":"c","clientId":null,"successful":true}])"}},
        {"nothing at all", [](MessageFeed& feed) { feed.finish(); }, {}},
        {"cut off before the reply", [](MessageFeed& feed) { feed.publish(message("1")), feed.finish(); },
         {R"([{"channel":"/chat","clientId":null,"data":1},)"}},
        {"a message after the reply opens a new array",
         [](MessageFeed& feed) {
             feed.publish(reply("c"));
             feed.publish(message("1"));
             feed.finish();
         },
         {R"([{"channel":"/meta/connect","id":"c","clientId":null,"successful":true}])", R"([{"channel":"/chat","clientId":null,"data":1},)"}},
        {"a message that cannot be written leaves a gap, not an end",
         [](MessageFeed& feed) {
             feed.publish(std::make_unique<BayeuxContainer>());
             feed.publish(reply("c"));
             feed.finish();
         },
         {"[,", R"({"channel":"/meta/connect","id":"c","clientId":null,"successful":true}])"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        auto feed = std::make_shared<MessageFeed>(nullptr);
        auto serializer = std::make_shared<ConnectStreamSerializer>();
        feed->subscribe(serializer);
        test.feed(*feed);
        auto body = std::make_shared<BodyRecorder>(1, 1);
        serializer->subscribe(body);
        EXPECT_EQ(body->seen(), test.chunks);
        EXPECT_EQ(body->completionCount(), 1);
    }
}

TEST(ConnectStreamSerializer, TakesNothingFromTheStreamUntilTheBodyAsksAndPassesAnErrorOn) {
    auto feed = std::make_shared<MessageFeed>(nullptr);
    auto serializer = std::make_shared<ConnectStreamSerializer>();
    feed->subscribe(serializer);
    feed->publish(message("1"));
    feed->publish(message("2"));

    auto body = std::make_shared<BodyRecorder>(1);
    serializer->subscribe(body);
    EXPECT_EQ(body->seen(), std::vector<std::string>{R"([{"channel":"/chat","clientId":null,"data":1},)"})
        << "one chunk per request: the second message waits upstream";
    body->request(1);
    EXPECT_EQ(body->seen().size(), 2u);

    // An error upstream reaches the body as it is: the array stays open.
    feed->setError(std::make_exception_ptr(std::runtime_error("gone")));
    EXPECT_EQ(body->errorCount(), 1);
    EXPECT_EQ(body->completionCount(), 0);
}

}  // namespace
}  // namespace korvane::bayeux::testing
