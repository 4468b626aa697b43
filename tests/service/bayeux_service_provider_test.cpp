#include <cstdlib>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>

#include <boost/any.hpp>

#include "korvane/service/bayeux_service_provider.h"
#include "korvane/session/long_poll_session.h"
#include "session/session_test_support.h"
#include "support/log_capture.h"
#include "support/test_context.h"

namespace korvane::bayeux::testing {
namespace {

using test_support::TestContext;

template <class Response, class = void>
struct HasAdvice : std::false_type {};
template <class Response>
struct HasAdvice<Response, std::void_t<decltype(&Response::advice)>> : std::true_type {};

// A reply as "ok" or "refused", then ": <error>" if it has an error text and, for a reply
// type that can carry advice, " advice:<advice>".
template <class Response>
std::string outcome(const std::unique_ptr<Response>& reply) {
    std::string text = (reply->successful ? "ok" : "refused") + (reply->error.empty() ? "" : ": " + reply->error);
    if constexpr (HasAdvice<Response>::value) {
        text += " advice:" + describe(reply->advice);
    }
    return text;
}

// A provider on a fresh routing core and a manual clock, spoken to through its typed dispatch as
// a transport does. Requests go out in the context `browser`, which routes nowhere, unless a test
// names another. The request helpers may be called from several threads, as the provider may; the
// members are set before any thread starts.
class ProviderFixture : public ::testing::Test {
protected:
    using ContextPtr = std::shared_ptr<Context>;
    static constexpr long long startTick = 5000;

    void SetUp() override { restart(); }
    // A new provider in place of the current one, on `core` or the fixture's routing core.
    void restart(BayeuxServiceOptions options = {}, std::shared_ptr<BayeuxServer> core = nullptr) {
        provider = std::make_shared<BayeuxServiceProviderImpl>(core ? std::move(core) : server, std::move(options));
        provider->start();
    }
    static BayeuxServiceOptions withLimits(std::size_t messages, std::size_t bytes = 0,
                                           std::shared_ptr<BayeuxPolicy> policy = nullptr) {
        return {messages, bytes, std::move(policy), nullptr, nullptr};
    }
    // The connect of `clientId` was answered, carrying nothing, and is over; a short poll's answer
    // carries the advice `retry`.
    static void expectAnswered(StreamRecorder& stream, const std::string& clientId, const std::string& advice = "") {
        EXPECT_EQ(stream.seen(), Texts{"response:c-" + clientId + advice});
        EXPECT_EQ(stream.completionCount(), 1);
    }
    static constexpr const char* retry = " advice:0/200/-1";
    // A request made of `args`, from `clientId`.
    template <class Request, class... Args>
    static std::unique_ptr<Request> from(const std::string& clientId, Args&&... args) {
        auto request = std::make_unique<Request>(std::forward<Args>(args)...);
        request->clientId = clientId;
        return request;
    }
    // Sends one request the way a transport does; null, and a failure, for a reply of another type.
    template <class Response, class Request>
    std::unique_ptr<Response> ask(std::unique_ptr<Request> request, ContextPtr context = nullptr) {
        std::unique_ptr<Message> reply =
            provider->deliver(std::move(request), Address("bayeux"), context ? std::move(context) : browser).get();
        auto* typed = dynamic_cast<Response*>(reply.get());
        EXPECT_NE(typed, nullptr) << "reply of an unexpected type";
        return std::unique_ptr<Response>(typed ? static_cast<Response*>(reply.release()) : nullptr);
    }
    std::string handshake(ContextPtr context = nullptr) {
        auto response = ask<HandshakeResponse>(std::make_unique<HandshakeRequest>(), std::move(context));
        return response ? response->clientId : std::string();
    }
    // A connect with a sink takes its messages there rather than from a stream.
    std::unique_ptr<ConnectStreamResponse> connect(const std::string& clientId, std::string type = "long-polling",
                                                   std::optional<long long> adviceTimeout = {},
                                                   ContextPtr context = nullptr, std::weak_ptr<ConnectSink> sink = {}) {
        auto request = from<ConnectStreamRequest>(clientId);
        request->id = "c-" + clientId;
        request->connectionType = std::move(type);
        request->bufferResponses = request->holdResponses = true;
        request->sink = std::move(sink);
        if (adviceTimeout) {
            request->advice = std::make_shared<BayeuxAdvice>();
            request->advice->timeout = *adviceTimeout;
        }
        return ask<ConnectStreamResponse>(std::move(request), std::move(context));
    }
    // Records the stream of a connect; a failed connect is a failure and gives an empty recorder.
    static std::shared_ptr<StreamRecorder> open(const std::unique_ptr<ConnectStreamResponse>& response) {
        EXPECT_TRUE(response->successful && response->stream) << "connect of " << response->clientId;
        return response->stream ? watch(response->stream) : std::make_shared<StreamRecorder>(0);
    }
    auto subscribe(const std::string& clientId, const std::string& pattern, ContextPtr context = nullptr) {
        return ask<SubscribeResponse>(std::make_unique<SubscribeRequest>(pattern, clientId), std::move(context));
    }
    auto unsubscribe(const std::string& clientId, const std::string& pattern) {
        return ask<UnsubscribeResponse>(std::make_unique<UnsubscribeRequest>(pattern, clientId));
    }
    std::unique_ptr<PublishResponse> publish(const std::string& clientId, const std::string& channel,
                                             const std::string& id = "", ContextPtr context = nullptr) {
        auto request = makePublish(channel, "{\"text\":\"hi\"}", clientId);
        request->id = id;
        return ask<PublishResponse>(std::move(request), std::move(context));
    }
    auto disconnect(const std::string& clientId, ContextPtr context = nullptr) {
        return ask<DisconnectResponse>(from<DisconnectRequest>(clientId), std::move(context));
    }

    ManualClock clock{startTick};  // outlives the provider
    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<BayeuxServiceProviderImpl> provider;
    std::shared_ptr<Context> browser = std::make_shared<TestContext>("browser-1");
};

using BayeuxServiceProviderTest = ProviderFixture;

// The handshake answers with the offer and a new client id of its own; every later reply carries its outcome,
// its error text and advice, and its request's fields. No refusal takes the client away.
TEST_F(BayeuxServiceProviderTest, EveryReplyCarriesItsOutcomeItsTextAndItsRequestsFields) {
    auto request = from<HandshakeRequest>("forged-client-id");
    request->id = "1";
    request->version = "0.1";
    auto response = ask<HandshakeResponse>(std::move(request));
    EXPECT_EQ(outcome(response) + " " + response->channel + " " + response->id + " " + response->version + " " +
                  response->minimumVersion + " " + std::to_string(response->clientId.size()),
              "ok advice:none /meta/handshake 1 1.0 1.0 16");
    EXPECT_NE(response->clientId, "forged-client-id");
    EXPECT_EQ(response->supportedConnectionTypes, (Texts{"long-polling", "websocket"}));
    const std::string client = handshake(), sender = handshake();
    EXPECT_NE(client, sender);
    std::string neighbour = client;  // a made-up id of the right shape
    neighbour.back() = neighbour.back() == 'a' ? 'b' : 'a';
    auto subscribed = subscribe(client, "/**");
    auto held = connect(client);
    auto ack = publish(sender, "/chat/room", "7");
    const std::pair<std::string, std::string> rows[] = {  // each reply is made in table order
        {outcome(subscribed) + " " + subscribed->subscription + " " + subscribed->clientId,
         "ok advice:none /** " + client},
        {outcome(held) + " " + held->id + " " + held->clientId, "ok advice:none c-" + client + " " + client},
        {outcome(ack) + " " + ack->channel + " " + ack->id + " " + ack->clientId, "ok /chat/room 7 " + sender},
        {outcome(connect(neighbour)), "refused: No such clientId. advice:1/-1/-1"},
        {outcome(ask<ConnectResponse>(from<ConnectRequest>(client))),
         "refused: ConnectRequest isn't supported anymore. advice:none"},
        {outcome(disconnect(neighbour)), "refused: No such clientId."},
        {outcome(subscribe(neighbour, "/a")), "refused: No such clientId. advice:none"},
        {outcome(unsubscribe(neighbour, "/a")), "refused: No such clientId. advice:none"},
        {outcome(publish(neighbour, "/a")), "refused: No such clientId."},
        {outcome(subscribe(client, "/a/*/b")), "refused advice:none"},
        {outcome(unsubscribe(client, "/not/held")), "refused: No such subscription. advice:none"},
        {outcome(ask<PublishResponse>(from<PublishRequest>(client, "/a"))), "refused: Unable to publish. Unknown error"},
        {outcome(subscribe(client, "/a")), "ok advice:none"},
        {outcome(unsubscribe(client, "/a")), "ok advice:none"},
    };
    for (const auto& [actual, expected] : rows) {
        EXPECT_EQ(actual, expected);
    }
    // A receiver that throws fails the publish with the exception's text, if it has one.
    auto thrower = std::make_shared<RecordingSession>("thrower", nullptr);
    thrower->onPublish = [](const PublishRequest&) { throw std::runtime_error("receiver exploded"); };
    server->addSession(thrower);
    auto refused = publish(client, "/a", "9");
    EXPECT_EQ(outcome(refused) + " " + refused->id, "refused: Unable to publish. receiver exploded 9");
    thrower->onPublish = [](const PublishRequest&) { throw 42; };
    EXPECT_EQ(outcome(publish(client, "/a")), "refused: Unable to publish. Unknown error");
    auto gone = disconnect(client);
    EXPECT_EQ(outcome(gone) + " " + gone->clientId, "ok " + client);
}

// Admits a handshake that has an ext, and lets clients subscribe and publish below /public/ only. Notes every
// question, with the host session it came from, in `asked`; one thread here. A grant reaching the questions is
// the token policy's to show, end to end.
class PublicOnlyPolicy : public BayeuxPolicy {
public:
    HandshakeDecision mayHandshake(const std::shared_ptr<Context>& context, std::string_view ext) override {
        note(context, "handshake " + std::string(ext));
        HandshakeDecision decision;
        decision.allowed = !ext.empty();
        return decision;
    }
    PolicyDecision maySubscribe(const PolicyClient&, const std::string& pattern,
                                const std::shared_ptr<Context>& context) override {
        return belowPublic(context, "subscribe " + pattern, pattern);
    }
    PolicyDecision mayPublish(const PolicyClient&, const std::string& channel,
                              const std::shared_ptr<Context>& context) override {
        return belowPublic(context, "publish " + channel, channel);
    }

    Texts asked;  // "<host session> <question> <what was asked>"

private:
    void note(const std::shared_ptr<Context>& context, const std::string& question) {
        asked.push_back(boost::any_cast<std::string>(context->get("sessionId")) + " " + question);
    }
    PolicyDecision belowPublic(const std::shared_ptr<Context>& context, const std::string& question,
                               const std::string& target) {
        note(context, question);
        return {target.rfind("/public/", 0) == 0, ""};
    }
};

TEST_F(BayeuxServiceProviderTest, APolicyDecidesHandshakesSubscribesAndPublishesAndARefusalTouchesNoOneElse) {
    auto policy = std::make_shared<PublicOnlyPolicy>();
    restart(withLimits(0, 0, policy));
    auto handshakeWith = [this](const std::string& ext) {
        auto request = std::make_unique<HandshakeRequest>();
        request->ext = ext;
        return ask<HandshakeResponse>(std::move(request));
    };
    const std::string reader = handshakeWith("{}")->clientId, writer = handshakeWith("1")->clientId;
    ASSERT_TRUE(subscribe(reader, "/public/**")->successful);
    auto readerStream = open(connect(reader));
    auto refusedHandshake = handshakeWith("");
    const std::pair<std::string, std::string> rows[] = {  // each reply is made in table order
        {outcome(refusedHandshake) + " '" + refusedHandshake->clientId + "'",
         "refused: 403::handshake denied advice:2/-1/-1 ''"},
        {outcome(subscribe(writer, "/user/bob/*")), "refused: 403:/user/bob/*:subscription denied advice:none"},
        {outcome(publish(writer, "/user/bob/inbox")), "refused: 403:/user/bob/inbox:publish denied"},
        {outcome(publish(writer, "/public/room")), "ok"},
        {outcome(unsubscribe(reader, "/public/**")), "ok advice:none"},
        {outcome(subscribe("nobody", "/public/room")), "refused: No such clientId. advice:none"},
    };
    for (const auto& [actual, expected] : rows) {
        EXPECT_EQ(actual, expected);
    }
    // Only the allowed publish was delivered; unsubscribes and unknown clients never reach the policy.
    clock->advance(5ms);
    EXPECT_EQ(readerStream->seen(), (Texts{"{\"text\":\"hi\"}", "response:c-" + reader}));
    EXPECT_EQ(policy->asked, (Texts{"browser-1 handshake {}", "browser-1 handshake 1", "browser-1 subscribe /public/**",
                                    "browser-1 handshake ", "browser-1 subscribe /user/bob/*",
                                    "browser-1 publish /user/bob/inbox", "browser-1 publish /public/room"}));
}

// What receivers of everything get of a publish: the host's hooks stamp what comes in from clients
// and what goes out to each, and drop some of both, on a held connect and on a short poll alike; the
// id is cleared below the browser channels or when the environment says exactly "true".
TEST_F(BayeuxServiceProviderTest, HostHooksChangeOrDropMessagesAndIdsAreClearedBelowTheBrowserChannels) {
    BayeuxServiceOptions options;
    options.incoming = [](BayeuxBase& request, const std::shared_ptr<Context>&) {
        if (auto* message = dynamic_cast<PublishRequest*>(&request)) {
            message->data = std::make_shared<common::DataBuffer>("{\"in\":" + message->data->str() + "}");
        }
        return request.channel != "/muted";
    };
    options.outgoing = [](const std::string& clientId, PublishRequest& message) {
        message.data = std::make_shared<common::DataBuffer>("{\"to\":\"" + clientId + "\",\"data\":" +
                                                            message.data->str() + "}");
        return message.channel != "/hidden";
    };
    const std::tuple<const char*, const char*, const char*> rows[] = {  // environment, channel, id delivered
        {nullptr, "/torvex/client/abc", ""}, {nullptr, "/torvex/Venthra", ""}, {nullptr, "/torvex/Venthra2/x", ""},
        {nullptr, "/torvex/clientele", "7"}, {nullptr, "/chat/room", "7"},     {"true", "/chat/room", ""},
        {"True", "/chat/room", "7"},         {"1", "/chat/room", "7"},         {"true ", "/chat/room", "7"}};
    for (const auto& [environment, channel, expectedId] : rows) {
        SCOPED_TRACE(std::string(environment ? environment : "<unset>") + " " + channel);
        environment ? setenv("TORVEX_KORVANE_BAYEUX_FORCE_ID_CLEAR", environment, 1)
                    : unsetenv("TORVEX_KORVANE_BAYEUX_FORCE_ID_CLEAR");
        restart(options);
        const std::string held = handshake(), polled = handshake(), sender = handshake();
        ASSERT_TRUE(subscribe(held, "/**")->successful && subscribe(polled, "/**")->successful);
        auto heldStream = open(connect(held));
        EXPECT_EQ(outcome(publish(sender, "/muted")), "refused: 403:/muted:message dropped");
        EXPECT_TRUE(publish(sender, "/hidden")->successful && publish(sender, channel, "7")->successful);
        clock->advance(5ms);
        auto polledStream = open(connect(polled, "short-polling"));
        for (const auto& [client, stream] : {std::pair{held, heldStream}, {polled, polledStream}}) {
            EXPECT_EQ(stream->seen().front(), "{\"to\":\"" + client + "\",\"data\":{\"in\":{\"text\":\"hi\"}}}");
            EXPECT_EQ(stream->seen().size(), 2u) << "the dropped messages are followed by the connect's response";
            const auto* delivered = stream->at<PublishRequest>(0);
            EXPECT_EQ(delivered ? delivered->channel + " " + delivered->id + " from '" + delivered->clientId + "'" : "",
                      std::string(channel) + " " + expectedId + " from ''");
        }
    }
    unsetenv("TORVEX_KORVANE_BAYEUX_FORCE_ID_CLEAR");
}

TEST_F(BayeuxServiceProviderTest, ConnectHoldTimeFollowsTheClientsAdvice) {
    const std::pair<std::optional<long long>, long long> rows[] = {
        {std::nullopt, 600}, {-1, 600}, {30000, 300}, {150, 1}, {99, 0}, {0, 0}};
    for (const auto& [adviceTimeout, holdTicks] : rows) {
        SCOPED_TRACE("advice timeout " + (adviceTimeout ? std::to_string(*adviceTimeout) : "none"));
        const std::string client = handshake();
        auto stream = open(connect(client, "long-polling", adviceTimeout));
        clock->advanceTicks(std::max(holdTicks - 1, 0LL));
        EXPECT_EQ(stream->isHeld(), holdTicks > 0);
        clock->advanceTicks(1);
        expectAnswered(*stream, client);
        EXPECT_EQ(outcome(disconnect(client)), "ok");
    }
}

TEST_F(BayeuxServiceProviderTest, ConnectsBeyondTheLimitOfAHostSessionAndTypeBecomeShortPolls) {
    // Opens one connect more than `limit`, each of a new client of `browser`.
    auto fill = [this](const std::string& type, std::size_t limit) {
        SCOPED_TRACE(type);
        std::vector<std::pair<std::string, std::shared_ptr<StreamRecorder>>> connects;
        for (std::size_t i = 0; i <= limit; ++i) {
            const std::string client = handshake();
            // An empty connection type counts as "long-polling".
            connects.emplace_back(client, open(connect(client, i % 2 == 0 && type == "long-polling" ? "" : type)));
            EXPECT_EQ(connects.back().second->isHeld(), i < limit) << i;
        }
        expectAnswered(*connects[limit].second, connects[limit].first, retry);
        EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", type), limit);
        return connects;
    };
    auto websockets = fill("websocket", 20);
    auto longPolls = fill("long-polling", 4);
    // A request that names no connection type leaves the stored one alone.
    EXPECT_TRUE(subscribe(websockets[0].first, "/a")->successful);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), 20u);
    // Clients forgotten from the middle of a browser's list leave every other one counted.
    for (const std::string& gone : {websockets[3].first, longPolls.back().first, websockets[0].first}) {
        EXPECT_EQ(outcome(disconnect(gone)), "ok");
    }
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "websocket"), 18u);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 4u);
    // Another host session, also the one of all contexts without a "sessionId", has limits of its
    // own; unadvertised and unknown types never hold.
    for (auto other : {std::make_shared<TestContext>("browser-2"), std::make_shared<TestContext>()}) {
        EXPECT_TRUE(open(connect(handshake(other), "", std::nullopt, other))->isHeld());
        for (const char* type : {"short-polling", "carrier-pigeon"}) {
            const std::string client = handshake(other);
            expectAnswered(*open(connect(client, type, std::nullopt, other)), client, retry);
        }
    }
    // A client's own open connect counts: its reconnect is a short poll, which answers the open one.
    const auto& [first, firstStream] = longPolls[0];
    expectAnswered(*open(connect(first)), first, retry);
    expectAnswered(*firstStream, first);
}

struct DroppingSink : ConnectSink {
    void deliver(std::unique_ptr<Message>&&) override {}
    bool servesLaterConnects() const override { return true; }
};

// A connect through a sink leaves a note there, and the client's next connect through it reads the
// record from the note: each step changes what the note stands on and records the connect after it.
TEST_F(BayeuxServiceProviderTest, AConnectThroughASinkTakesTheLastOnesFindingOnlyWhileNothingItReadChanged) {
    auto sink = std::make_shared<DroppingSink>();
    auto context = std::make_shared<TestContext>("browser-1"), stranger = std::make_shared<TestContext>();
    stranger->set("sessionId", boost::any(42));  // as many changes behind it as `context`
    const std::string client = handshake(context);
    Texts seen;
    auto step = [&](const std::string& name, const std::string& type = "websocket", ContextPtr in = nullptr) {
        auto reply = connect(client, type, std::nullopt, in ? in : context, sink);
        seen.push_back(name + ": " + (!reply->successful ? outcome(reply) : reply->stream ? "short poll" : "held") +
                       " " + std::to_string(provider->getActiveConnectCountForSessionId("browser-1", "websocket")));
    };
    step("first");
    step("stranger", "websocket", stranger);
    step("other type", "short-polling");
    step("back");
    // The browser's list grows to the limit, each other client with its connect open; then shrinks.
    std::vector<std::pair<std::string, std::shared_ptr<StreamRecorder>>> others;
    for (int i = 0; i < 19; ++i) {
        const std::string other = handshake(context);
        others.emplace_back(other, open(connect(other, "websocket", std::nullopt, context)));
    }
    step("browser full");
    EXPECT_EQ(outcome(disconnect(others.back().first)), "ok");
    step("one left");
    step("counted apart", "long-polling");
    step("websocket again");
    context->set("sessionId", boost::any(42));
    step("context changed");
    context->set("sessionId", boost::any(std::string("browser-1")));
    step("changed back");
    // Another client through the same sink: its new connect answers its own open one.
    EXPECT_FALSE(connect(others[0].first, "websocket", std::nullopt, context, sink)->stream);
    EXPECT_FALSE(others[0].second->isHeld());
    // Connects through the note are contact: the sweep keeps the client and drops the silent others.
    clock->advanceTicks(1000);
    step("late");
    clock->advanceTicks(1100);
    EXPECT_EQ(outcome(disconnect(client)), "ok");
    step("gone");
    const std::string failed = "refused: Error while processing connect request advice:1/-1/-1 ";
    EXPECT_EQ(seen, (Texts{"first: held 1", "stranger: " + failed + "1", "other type: short poll 0", "back: held 1",
                           "browser full: short poll 19", "one left: held 19", "counted apart: held 18",
                           "websocket again: held 19", "context changed: " + failed + "19", "changed back: held 19",
                           "late: held 1", "gone: refused: No such clientId. advice:1/-1/-1 0"}));
}

// The sweep runs every 100 ticks while there are clients; the direct calls pin its boundary.
TEST_F(BayeuxServiceProviderTest, SweepDropsAtTheTickOfTheTimeoutEveryClientThatContactDidNotRenew) {
    EXPECT_EQ(clock->armedCount(), 1u) << "the provider sweeps from birth";
    const std::string subscriber = handshake(), publisher = handshake(), oldStyle = handshake(), holder = handshake();
    auto heldStream = open(connect(holder, "long-polling", 300000));
    std::weak_ptr<LongPollSession> subscriberSession = provider->getSession(subscriber, "");
    clock->setTick(startTick + 1000);
    EXPECT_TRUE(subscribe(subscriber, "/a")->successful);
    EXPECT_TRUE(publish(publisher, "/a")->successful);
    ask<ConnectResponse>(from<ConnectRequest>(oldStyle));  // refused: no contact
    provider->sweepClients(startTick + 1199);
    EXPECT_TRUE(heldStream->isHeld()) << "dropped a tick early";
    provider->sweepClients(startTick + 1200);
    EXPECT_TRUE(provider->getSession(subscriber, "") && provider->getSession(publisher, ""));
    EXPECT_FALSE(provider->getSession(oldStyle, ""));
    EXPECT_FALSE(provider->getSession(holder, "")) << "an open connect is no contact";
    expectAnswered(*heldStream, holder);  // by the dying session
    EXPECT_EQ(outcome(disconnect(holder)), "refused: No such clientId.");
    clock->advanceTicks(1199);
    EXPECT_FALSE(subscriberSession.expired());
    clock->advanceTicks(1);
    EXPECT_TRUE(subscriberSession.expired() && !provider->getSession(publisher, ""));
    EXPECT_EQ(clock->armedCount(), 0u) << "an idle provider runs no timer";
    handshake();
    EXPECT_EQ(clock->armedCount(), 1u) << "a new client starts it again";
}

TEST_F(BayeuxServiceProviderTest, AClientPastThePendingLimitIsDroppedWhileTheOthersCarryOn) {
    // Each waiting message counts 18 bytes: "/room" and {"text":"hi"}. The reader's messages
    // leave with its connects, and their bytes with them.
    // Messages, bytes (0: no limit), the waiting message that drops; the library's default keeps every one.
    const std::tuple<std::size_t, std::size_t, int> limits[] = {
        {0, 0, 6}, {3, 0, 4}, {0, 54, 4}, {0, 53, 3}, {4, 54, 4}};
    for (const auto& [messages, bytes, droppedAt] : limits) {
        SCOPED_TRACE(std::to_string(messages) + " messages, " + std::to_string(bytes) + " bytes");
        restart(withLimits(messages, bytes));
        const std::string idle = handshake(), reader = handshake(), sender = handshake();
        ASSERT_TRUE(subscribe(idle, "/room")->successful && subscribe(reader, "/room")->successful);
        std::weak_ptr<LongPollSession> idleSession = provider->getSession(idle, "");
        for (int round = 1; round <= 5; ++round) {
            auto stream = open(connect(reader));
            EXPECT_TRUE(publish(sender, "/room")->successful) << "a drop never fails the publisher";
            clock->advance(5ms);
            EXPECT_EQ(stream->seen(), (Texts{"{\"text\":\"hi\"}", "response:c-" + reader}));
            EXPECT_EQ(idleSession.expired(), round >= droppedAt) << round;
        }
        EXPECT_TRUE(provider->getSession(reader, ""));
        // The dropped client hears of it on its next request.
        EXPECT_EQ(outcome(publish(idle, "/room")), droppedAt > 5 ? "ok" : "refused: No such clientId.");
    }
}

TEST_F(BayeuxServiceProviderTest, DropWarningsComeAtMostOnceASecondAndCountEveryDrop) {
    restart(withLimits(1));
    test_support::ChannelCapture warnings("korvane::bayeux::service");
    const std::string sender = handshake();
    const std::string line = " client(s) over the limit of 1 pending messages\n";
    const std::tuple<long long, int, std::string> steps[] = {
        // tick, idle clients dropped at it (each by the second message waiting for it) or a sweep (-1), warnings
        {0, 3, "256 Dropped 1" + line},  // the first drop speaks at once, alone
        {9, 1, ""},                      // within the second: counted, quiet
        {10, -1, "256 Dropped 3" + line},  // the sweep reports what waited
        {15, -1, ""},                      // nothing waits, nothing said
        {19, 2, ""},
        {20, 1, "256 Dropped 3" + line},  // a later drop reports for all
        {30, -1, ""},
    };
    for (const auto& [tick, drops, seen] : steps) {
        SCOPED_TRACE(tick);
        clock->setTick(startTick + tick);
        if (drops < 0) {
            provider->sweepClients(startTick + tick);
        } else {
            for (int index = 0; index < drops; ++index) {
                ASSERT_TRUE(subscribe(handshake(), "/room")->successful);
            }
            ASSERT_TRUE(publish(sender, "/room")->successful && publish(sender, "/room")->successful);
        }
        EXPECT_EQ(warnings.take(), seen);
    }
    EXPECT_TRUE(provider->getSession(sender, "")) << "the publisher carried on";
}

// A routing core that holds up the unsubscribe notices of dying sessions until `gate` is
// opened, so that a sweep can be caught in the middle of destroying what it dropped.
class GatedServer : public BayeuxServerImpl {
public:
    using BayeuxServerImpl::deliver;
    void deliver(std::unique_ptr<UnsubscribeRequest>&& request) override {
        std::call_once(enteredOnce, [this] { entered.set_value(); });
        opened.wait();
        BayeuxServerImpl::deliver(std::move(request));
    }

    std::once_flag enteredOnce;
    std::promise<void> entered, gate;
    std::shared_future<void> opened = gate.get_future().share();
};

using BayeuxServiceProviderConcurrency = ProviderFixture;

TEST_F(BayeuxServiceProviderConcurrency, ASweepDestroysWhatItDropsOutsideTheLockAndDestructionWaitsForIt) {
    auto gated = std::make_shared<GatedServer>();
    restart({}, gated);
    const std::string stale = handshake();
    ASSERT_TRUE(subscribe(stale, "/a")->successful);
    clock->advanceTicks(1150);
    const std::string fresh = handshake();
    // The sweep at startTick + 1200 drops `stale`, whose dying session blocks in its notice.
    std::thread timerThread([this] { clock->advanceTicks(50); });
    gated->entered.get_future().wait();
    // The registry is usable while the sweep is stuck: it holds no lock any more.
    EXPECT_EQ(handshake().size(), 16u);
    EXPECT_TRUE(publish(fresh, "/b")->successful);
    auto destroyed = std::async(std::launch::async, [owner = std::move(provider)]() mutable { owner.reset(); });
    // `fresh` keeps the sweep alive, so the destructor has to wait for the sweep that is still
    // running on the timer thread.
    EXPECT_EQ(destroyed.wait_for(50ms), std::future_status::timeout);
    gated->gate.set_value();
    timerThread.join();
    destroyed.get();
    EXPECT_EQ(clock->armedCount(), 0u);
}

}  // namespace
}  // namespace korvane::bayeux::testing
