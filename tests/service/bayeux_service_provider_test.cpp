#include <cstdlib>
#include <functional>
#include <optional>
#include <stdexcept>

#include "service/provider_test_support.h"
#include "korvane/session/long_poll_session.h"

namespace korvane::bayeux::testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* forceIdClearVariable = "TORVEX_KORVANE_BAYEUX_FORCE_ID_CLEAR";

// Sets or clears the id-clearing variable for one scope.
class ForceIdClearEnvironment {
public:
    explicit ForceIdClearEnvironment(const std::optional<std::string>& value) {
        if (value) {
            setenv(forceIdClearVariable, value->c_str(), 1);
        } else {
            unsetenv(forceIdClearVariable);
        }
    }
    ~ForceIdClearEnvironment() { unsetenv(forceIdClearVariable); }
};

// A receiver whose every delivery throws, to see how a publish failure is reported.
class ThrowingSession : public BayeuxSession {
public:
    explicit ThrowingSession(std::function<void()> thrower) : thrower(std::move(thrower)) {}
    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return "throwing-receiver"; }
    void deliver(const std::vector<std::string>&, const std::shared_ptr<const PublishRequest>&) override { thrower(); }
    void deliver(const std::shared_ptr<const SubscribeRequest>&) override {}
    void deliver(const std::shared_ptr<const UnsubscribeRequest>&) override {}

private:
    std::function<void()> thrower;
};

class BayeuxServiceProviderTest : public ProviderFixture {
protected:
    std::shared_ptr<Context> browser = std::make_shared<TestContext>("browser-1");

    // A held connect whose stream has carried nothing yet.
    static bool isHeld(RecordingSubscriber& recorder) { return !recorder.isCompleted() && recorder.count() == 0; }

    // A connect answered at once, by a response that sends the client back after 200 ms.
    static bool isShortPollAnswer(RecordingSubscriber& recorder) {
        const auto* response = recorder.at<ConnectResponse>(recorder.count() - 1);
        return recorder.isCompleted() && response != nullptr && response->successful && response->advice &&
               response->advice->reconnect == Advice::Retry && response->advice->interval == 200;
    }

    // Publishes `id` on `channel` to a receiver of everything and returns the id the
    // receiver got, after checking that the acknowledgement kept the client's id.
    std::string deliveredId(const std::string& channel, const std::string& id) {
        std::string receiver = handshake(browser);
        std::string sender = handshake(browser);
        EXPECT_TRUE(subscribe(receiver, "/**", browser)->successful);
        auto recorder = connectRecorded(receiver, browser);
        auto acknowledgement = publish(sender, channel, id, browser);
        EXPECT_TRUE(acknowledgement->successful) << channel;
        EXPECT_EQ(acknowledgement->id, id) << channel;
        clock->advance(5ms);
        const auto* delivered = recorder->at<PublishRequest>(0);
        if (delivered == nullptr) {
            ADD_FAILURE() << "nothing delivered on " << channel;
            return "<none>";
        }
        EXPECT_EQ(delivered->channel, channel);
        EXPECT_TRUE(delivered->clientId.empty());
        return delivered->id;
    }
};

TEST_F(BayeuxServiceProviderTest, HandshakeAnswersWithTheOfferAndANewClientId) {
    auto request = std::make_unique<HandshakeRequest>();
    request->id = "1";
    request->clientId = "forged-client-id";
    request->version = "0.1";
    auto response = ask<HandshakeResponse>(std::move(request), browser);

    ASSERT_TRUE(response);
    EXPECT_TRUE(response->successful);
    EXPECT_EQ(response->channel, "/meta/handshake");
    EXPECT_EQ(response->id, "1");
    EXPECT_EQ(response->clientId.size(), 16u);
    EXPECT_NE(response->clientId, "forged-client-id");
    EXPECT_EQ(response->version, "1.0");
    EXPECT_EQ(response->minimumVersion, "1.0");
    EXPECT_EQ(response->supportedConnectionTypes, (std::vector<std::string>{"long-polling", "websocket"}));
    EXPECT_FALSE(response->advice);
    EXPECT_TRUE(response->error.empty());
}

TEST_F(BayeuxServiceProviderTest, ClientsAreCountedByTheHostSessionOfTheirHandshake) {
    std::string first = handshake(browser);
    std::string second = handshake(browser);
    EXPECT_NE(first, second);
    auto anonymousContext = std::make_shared<TestContext>();
    std::string anonymous = handshake(anonymousContext);

    auto firstStream = connectRecorded(first, browser, "websocket");
    auto secondStream = connectRecorded(second, browser, "websocket");
    auto anonymousStream = connectRecorded(anonymous, anonymousContext, "");
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), 2u);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("", "long-polling"), 1u);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 0u);

    // A request that names no connection type leaves the stored one alone.
    EXPECT_TRUE(subscribe(first, "/a", browser)->successful);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), 2u);
}

TEST_F(BayeuxServiceProviderTest, HandshakeWithASessionIdOfAnotherTypeThrowsToTheCaller) {
    auto context = std::make_shared<TestContext>();
    context->set("sessionId", boost::any(42));
    EXPECT_THROW(provider->deliver(std::make_unique<HandshakeRequest>(), Address("bayeux"), context),
                 boost::bad_any_cast);
}

TEST_F(BayeuxServiceProviderTest, AClientLivesFromHandshakeToDisconnect) {
    std::string receiver = handshake(browser);
    auto subscribed = subscribe(receiver, "/chat/**", browser);
    EXPECT_TRUE(subscribed->successful);
    EXPECT_EQ(subscribed->subscription, "/chat/**");
    EXPECT_EQ(subscribed->clientId, receiver);

    auto held = connect(receiver, browser);
    ASSERT_TRUE(held->successful);
    EXPECT_EQ(held->id, "c-" + receiver);
    EXPECT_EQ(held->clientId, receiver);
    ASSERT_TRUE(held->stream);
    auto recorder = std::make_shared<RecordingSubscriber>();
    held->stream->subscribe(recorder);
    EXPECT_TRUE(isHeld(*recorder));

    std::string sender = handshake(browser);
    auto acknowledgement = publish(sender, "/chat/room", "7", browser);
    EXPECT_TRUE(acknowledgement->successful);
    EXPECT_EQ(acknowledgement->channel, "/chat/room");
    EXPECT_EQ(acknowledgement->id, "7");
    EXPECT_EQ(acknowledgement->clientId, sender);
    EXPECT_TRUE(isHeld(*recorder)) << "the batch waits for its 5 ms";

    clock->advance(5ms);
    ASSERT_EQ(recorder->count(), 2u);
    const auto* message = recorder->at<PublishRequest>(0);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->channel, "/chat/room");
    EXPECT_EQ(message->data->str(), "{\"text\":\"hi\"}");
    const auto* closing = recorder->at<ConnectResponse>(1);
    ASSERT_NE(closing, nullptr);
    EXPECT_TRUE(closing->successful);
    EXPECT_EQ(closing->id, "c-" + receiver);
    EXPECT_TRUE(recorder->isCompleted());

    auto gone = disconnect(receiver, browser);
    EXPECT_TRUE(gone->successful);
    EXPECT_EQ(gone->clientId, receiver);
    EXPECT_TRUE(gone->error.empty());
    auto again = disconnect(receiver, browser);
    EXPECT_FALSE(again->successful);
    EXPECT_EQ(again->error, "No such clientId.");
}

struct Outcome {
    bool successful = true;
    std::string error;
    std::shared_ptr<BayeuxAdvice> advice;
};

template <class Response>
Outcome outcomeOf(const std::unique_ptr<Response>& response) {
    if (!response) {
        return Outcome{true, "<no reply>", nullptr};
    }
    return Outcome{response->successful, response->error, nullptr};
}

template <class Response>
Outcome outcomeWithAdvice(const std::unique_ptr<Response>& response) {
    Outcome outcome = outcomeOf(response);
    if (response) {
        outcome.advice = response->advice;
    }
    return outcome;
}

TEST_F(BayeuxServiceProviderTest, EveryRefusalCarriesItsTextAndAdvice) {
    std::string client = handshake(browser);
    auto badSessionId = std::make_shared<TestContext>();
    badSessionId->set("sessionId", boost::any(42));

    struct Row {
        const char* name;
        std::function<Outcome()> send;
        std::string error;
        bool handshakeAdvice;
    };
    const std::vector<Row> rows = {
        {"connect, unknown client", [&] { return outcomeWithAdvice(connect("unknown", browser)); },
         "No such clientId.", true},
        {"connect, internal exception", [&] { return outcomeWithAdvice(connect(client, badSessionId)); },
         "Error while processing connect request", true},
        {"ConnectRequest",
         [&] {
             auto request = std::make_unique<ConnectRequest>();
             request->clientId = client;
             return outcomeWithAdvice(ask<ConnectResponse>(std::move(request), browser));
         },
         "ConnectRequest isn't supported anymore.", false},
        {"disconnect, unknown client", [&] { return outcomeOf(disconnect("unknown", browser)); },
         "No such clientId.", false},
        {"subscribe, unknown client", [&] { return outcomeWithAdvice(subscribe("unknown", "/a", browser)); },
         "No such clientId.", false},
        {"unsubscribe, unknown client",
         [&] {
             return outcomeWithAdvice(
                 ask<UnsubscribeResponse>(std::make_unique<UnsubscribeRequest>("/a", "unknown"), browser));
         },
         "No such clientId.", false},
        {"publish, unknown client", [&] { return outcomeOf(publish("unknown", "/a", "", browser)); },
         "No such clientId.", false},
        {"subscribe refused", [&] { return outcomeWithAdvice(subscribe(client, "/a/*/b", browser)); }, "", false},
        {"unsubscribe of a pattern not held",
         [&] {
             return outcomeWithAdvice(
                 ask<UnsubscribeResponse>(std::make_unique<UnsubscribeRequest>("/not/held", client), browser));
         },
         "No such subscription.", false},
        {"publish refused by the routing core",
         [&] {
             auto request = std::make_unique<PublishRequest>("/a");
             request->clientId = client;
             return outcomeOf(ask<PublishResponse>(std::move(request), browser));
         },
         "Unable to publish. Unknown error", false},
    };
    for (const Row& row : rows) {
        Outcome outcome = row.send();
        EXPECT_FALSE(outcome.successful) << row.name;
        EXPECT_EQ(outcome.error, row.error) << row.name;
        if (row.handshakeAdvice) {
            ASSERT_TRUE(outcome.advice) << row.name;
            EXPECT_EQ(outcome.advice->reconnect, Advice::Handshake) << row.name;
        } else {
            EXPECT_FALSE(outcome.advice) << row.name;
        }
    }
    // None of the refusals took the client away.
    EXPECT_TRUE(subscribe(client, "/a", browser)->successful);
    EXPECT_TRUE(ask<UnsubscribeResponse>(std::make_unique<UnsubscribeRequest>("/a", client), browser)->successful);
}

TEST_F(BayeuxServiceProviderTest, APublishThatThrowsIsReportedWithTheExceptionText) {
    std::string sender = handshake(browser);
    auto standardThrower =
        std::make_shared<ThrowingSession>([] { throw std::runtime_error("receiver exploded"); });
    server->addSession(standardThrower);
    auto refused = publish(sender, "/a", "9", browser);
    EXPECT_FALSE(refused->successful);
    EXPECT_EQ(refused->id, "9");
    EXPECT_EQ(refused->error, "Unable to publish. receiver exploded");

    standardThrower.reset();
    auto otherThrower = std::make_shared<ThrowingSession>([] { throw 42; });
    server->addSession(otherThrower);
    auto unknown = publish(sender, "/a", "", browser);
    EXPECT_FALSE(unknown->successful);
    EXPECT_EQ(unknown->error, "Unable to publish. Unknown error");
}

TEST_F(BayeuxServiceProviderTest, ConnectHoldTimeFollowsTheClientsAdvice) {
    struct Row {
        std::optional<long long> adviceTimeout;
        long long holdTicks;
    };
    for (const Row& row : {Row{std::nullopt, 600}, Row{-1, 600}, Row{30000, 300}, Row{150, 1}, Row{99, 0},
                           Row{0, 0}}) {
        std::string client = handshake(browser);
        auto recorder = connectRecorded(client, browser, "long-polling", row.adviceTimeout);
        std::string name = "advice timeout " + (row.adviceTimeout ? std::to_string(*row.adviceTimeout) : "none");
        if (row.holdTicks > 0) {
            EXPECT_TRUE(isHeld(*recorder)) << name;
            clock->advanceTicks(row.holdTicks - 1);
            EXPECT_TRUE(isHeld(*recorder)) << name;
            clock->advanceTicks(1);
        }
        ASSERT_TRUE(recorder->isCompleted()) << name;
        const auto* response = recorder->at<ConnectResponse>(0);
        ASSERT_NE(response, nullptr) << name;
        EXPECT_TRUE(response->successful) << name;
        EXPECT_FALSE(response->advice) << name;
        EXPECT_TRUE(disconnect(client, browser)->successful) << name;
    }
}

TEST_F(BayeuxServiceProviderTest, ConnectsBeyondTheLimitOfAHostSessionBecomeShortPolls) {
    EXPECT_EQ(provider->getActiveConnectCountLimit("long-polling"), 4u);
    EXPECT_EQ(provider->getActiveConnectCountLimit("websocket"), 20u);
    EXPECT_EQ(provider->getActiveConnectCountLimit("short-polling"), 0u);
    EXPECT_EQ(provider->getActiveConnectCountLimit("carrier-pigeon"), 0u);

    std::vector<std::string> longPollers;
    std::vector<std::shared_ptr<RecordingSubscriber>> longPolls;
    for (int i = 0; i < 5; ++i) {
        longPollers.push_back(handshake(browser));
        // An empty connection type counts as "long-polling".
        longPolls.push_back(connectRecorded(longPollers.back(), browser, i % 2 == 0 ? "" : "long-polling"));
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(isHeld(*longPolls[i])) << "long poll " << i;
    }
    EXPECT_TRUE(isShortPollAnswer(*longPolls[4]));
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 4u);

    std::vector<std::shared_ptr<RecordingSubscriber>> websockets;
    for (int i = 0; i < 21; ++i) {
        websockets.push_back(connectRecorded(handshake(browser), browser, "websocket"));
    }
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(isHeld(*websockets[i])) << "websocket " << i;
    }
    EXPECT_TRUE(isShortPollAnswer(*websockets[20]));
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), 20u);

    // Another host session has limits of its own; unadvertised and unknown types never hold.
    auto otherBrowser = std::make_shared<TestContext>("browser-2");
    EXPECT_TRUE(isHeld(*connectRecorded(handshake(otherBrowser), otherBrowser)));
    EXPECT_TRUE(isShortPollAnswer(*connectRecorded(handshake(otherBrowser), otherBrowser, "short-polling")));
    EXPECT_TRUE(isShortPollAnswer(*connectRecorded(handshake(otherBrowser), otherBrowser, "carrier-pigeon")));

    // A client's own open connect counts: its reconnect is a short poll, which answers the open one.
    auto reconnect = connectRecorded(longPollers[0], browser);
    EXPECT_TRUE(isShortPollAnswer(*reconnect));
    ASSERT_TRUE(longPolls[0]->isCompleted());
    const auto* answered = longPolls[0]->at<ConnectResponse>(0);
    ASSERT_NE(answered, nullptr);
    EXPECT_EQ(answered->id, "c-" + longPollers[0]);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 3u);
}

TEST_F(BayeuxServiceProviderTest, PublishedIdsAreClearedOnlyBelowTheBrowserChannels) {
    ForceIdClearEnvironment unset(std::nullopt);
    provider = makeProvider();
    EXPECT_EQ(deliveredId("/torvex/client/abc", "11"), "");
    EXPECT_EQ(deliveredId("/torvex/Venthra", "12"), "");
    EXPECT_EQ(deliveredId("/torvex/Venthra2/x", "13"), "");
    EXPECT_EQ(deliveredId("/torvex/clientele", "14"), "14");
    EXPECT_EQ(deliveredId("/chat/room", "15"), "15");
}

TEST_F(BayeuxServiceProviderTest, OnlyTheExactValueTrueClearsEveryPublishedId) {
    struct Row {
        std::optional<std::string> value;
        std::string expectedId;
    };
    for (const Row& row : {Row{std::string("true"), ""}, Row{std::string("True"), "21"},
                           Row{std::string("1"), "21"}, Row{std::string("true "), "21"}, Row{std::nullopt, "21"}}) {
        ForceIdClearEnvironment environment(row.value);
        provider = makeProvider();
        EXPECT_EQ(deliveredId("/chat/room", "21"), row.expectedId) << row.value.value_or("<unset>");
    }
}

TEST_F(BayeuxServiceProviderTest, SweepDropsAClientAtTheTickOfItsTimeout) {
    std::string client = handshake(browser);
    provider->sweepClients(startTick + 1199);
    // The clock still stands at startTick, so this look-up does not move the client's tick.
    EXPECT_TRUE(provider->getSession(client, ""));
    provider->sweepClients(startTick + 1200);
    EXPECT_FALSE(provider->getSession(client, ""));

    auto reconnect = connect(client, browser);
    EXPECT_FALSE(reconnect->successful);
    EXPECT_EQ(reconnect->error, "No such clientId.");
    ASSERT_TRUE(reconnect->advice);
    EXPECT_EQ(reconnect->advice->reconnect, Advice::Handshake);
    EXPECT_EQ(disconnect(client, browser)->error, "No such clientId.");
}

TEST_F(BayeuxServiceProviderTest, PeriodicSweepRunsOnlyWhileThereAreClients) {
    EXPECT_EQ(clock->armedCount(), 1u) << "the provider sweeps from birth";
    std::string client = handshake(browser);
    std::weak_ptr<LongPollSession> session = provider->getSession(client, "");

    clock->advanceTicks(1199);
    EXPECT_FALSE(session.expired());
    clock->advanceTicks(1);
    EXPECT_TRUE(session.expired());
    EXPECT_EQ(clock->armedCount(), 0u) << "an idle provider runs no timer";

    std::string next = handshake(browser);
    EXPECT_EQ(clock->armedCount(), 1u);
    EXPECT_TRUE(disconnect(next, browser)->successful);
    EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(BayeuxServiceProviderTest, ContactRenewsAClientButAnOpenConnectDoesNot) {
    std::string subscriber = handshake(browser);
    std::string publisher = handshake(browser);
    std::string oldStyleConnector = handshake(browser);
    std::string longHolder = handshake(browser);
    auto heldStream = connectRecorded(longHolder, browser, "long-polling", 300000);

    clock->setTick(startTick + 1000);
    EXPECT_TRUE(subscribe(subscriber, "/a", browser)->successful);
    EXPECT_TRUE(publish(publisher, "/a", "", browser)->successful);
    auto oldStyle = std::make_unique<ConnectRequest>();
    oldStyle->clientId = oldStyleConnector;
    ask<ConnectResponse>(std::move(oldStyle), browser);

    provider->sweepClients(startTick + 1200);
    EXPECT_TRUE(provider->getSession(subscriber, ""));
    EXPECT_TRUE(provider->getSession(publisher, ""));
    EXPECT_FALSE(provider->getSession(oldStyleConnector, ""));
    EXPECT_FALSE(provider->getSession(longHolder, ""));
    // The swept session answered its open connect as it died.
    ASSERT_TRUE(heldStream->isCompleted());
    EXPECT_NE(heldStream->at<ConnectResponse>(0), nullptr);
}

TEST_F(BayeuxServiceProviderTest, FlushMarksOpenConnectsForTheNextConnectToAnswer) {
    std::string client = handshake(browser);
    auto first = connectRecorded(client, browser);
    provider->flush();
    EXPECT_TRUE(isHeld(*first));
    clock->advanceTicks(600);
    EXPECT_TRUE(isHeld(*first)) << "the connect timer is gone";

    auto second = connectRecorded(client, browser);
    ASSERT_TRUE(first->isCompleted());
    const auto* response = first->at<ConnectResponse>(0);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->id, "c-" + client);
    EXPECT_TRUE(isHeld(*second));
}

}  // namespace
}  // namespace korvane::bayeux::testing
