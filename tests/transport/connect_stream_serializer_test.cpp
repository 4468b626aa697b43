#include <gtest/gtest.h>

#include "korvane/transport/connect_stream_serializer.h"
#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

using MessageFeed = reactive_streams::CachedValuePublisher<std::unique_ptr<Message>, std::function<void()>>;

// A feed into `serializer` of messages "<data>", connect replies "reply" and messages that cannot be written "bad".
std::shared_ptr<MessageFeed> feed(const std::shared_ptr<ConnectStreamSerializer>& serializer, const Texts& items) {
    auto feed = std::make_shared<MessageFeed>(nullptr);
    feed->subscribe(serializer);
    for (const std::string& item : items) {
        if (item == "reply") {
            auto response = std::make_unique<ConnectResponse>();
            response->id = "c";
            response->successful = true;
            feed->publish(std::move(response));
        } else {
            feed->publish(item == "bad" ? std::unique_ptr<Message>(std::make_unique<BayeuxContainer>())
                                        : makePublish("/chat", item, ""));
        }
    }
    return feed;
}

TEST(ConnectStreamSerializer, WritesOneChunkPerMessageWithTheArrayClosedByTheConnectResponse) {
    const std::string reply = R"({"channel":"/meta/connect","id":"c","clientId":null,"successful":true}])";
    const std::string one = R"({"channel":"/chat","clientId":null,"data":1},)";
    const std::pair<Texts, Texts> cases[] = {  // what the stream carries, the chunks written
        {{"1", "2", "reply"}, {"[" + one, R"({"channel":"/chat","clientId":null,"data":2},)", reply}},
        {{"reply"}, {"[" + reply}},
        {{}, {}},
        {{"1"}, {"[" + one}},                          // cut off before the reply
        {{"reply", "1"}, {"[" + reply, "[" + one}},    // a message after the reply opens a new array
        {{"bad", "reply"}, {"[,", reply}},             // a message that cannot be written leaves a gap
    };
    for (const auto& [items, chunks] : cases) {
        SCOPED_TRACE(::testing::PrintToString(items));
        auto serializer = std::make_shared<ConnectStreamSerializer>();
        auto upstream = feed(serializer, items);
        upstream->finish();
        auto body = std::make_shared<BodyRecorder>(1, 1);
        serializer->subscribe(body);
        EXPECT_EQ(body->seen(), chunks);
        EXPECT_EQ(body->completionCount(), 1);
    }
}

TEST(ConnectStreamSerializer, ChunksWrittenFromSharedPublishesAndReplyIdsAreThoseOfTheMessages) {
    const std::shared_ptr<const PublishRequest> published = makePublish("/chat", "{\"n\":1}", "sender");
    bool fromMessages = true, fromShared = true;
    for (int round = 0; round < 2; ++round) {  // the second round opens a new array
        for (int index = 0; index < 2; ++index) {
            EXPECT_EQ(serializePublishChunk(*published, fromShared).str(),
                      serializeConnectChunk(std::make_unique<PublishRequest>(published, PublishRequest::withoutSender),
                                            fromMessages).str());
        }
        EXPECT_EQ(serializeConnectReplyChunk("c", "me", fromShared).str(),
                  serializeConnectChunk(makeConnectReply("c", "me"), fromMessages).str());
        EXPECT_TRUE(fromShared);
    }
}

TEST(ConnectStreamSerializer, TakesNothingFromTheStreamUntilTheBodyAsksAndPassesAnErrorOn) {
    auto serializer = std::make_shared<ConnectStreamSerializer>();
    auto upstream = feed(serializer, {"1", "2"});
    auto body = std::make_shared<BodyRecorder>(1);
    serializer->subscribe(body);
    EXPECT_EQ(body->seen(), Texts{R"([{"channel":"/chat","clientId":null,"data":1},)"})
        << "one chunk per request: the second message waits upstream";
    body->request(1);
    EXPECT_EQ(body->size(), 2u);
    // An error upstream reaches the body as it is: the array stays open.
    upstream->setError(std::make_exception_ptr(std::runtime_error("gone")));
    EXPECT_EQ(body->events().back(), "error gone");
    EXPECT_EQ(body->completionCount(), 0);
}

}  // namespace
}  // namespace korvane::bayeux::testing
