#pragma once

// The protocol-service tests' fixture: a provider on a fresh routing core and a manual clock,
// spoken to through its typed dispatch as a transport does. Requests go out in the context
// `browser`, which routes nowhere, unless a test names another.

#include <optional>
#include <type_traits>

#include <boost/any.hpp>

#include "korvane/service/bayeux_service_provider.h"
#include "session/session_test_support.h"
#include "support/test_context.h"

namespace korvane::bayeux::testing {

using test_support::TestContext;

template <class Response, class = void>
struct HasAdvice : std::false_type {};
template <class Response>
struct HasAdvice<Response, std::void_t<decltype(&Response::advice)>> : std::true_type {};

// A reply as "ok" or "refused", then ": <error>" if it has an error text and, for a reply
// type that can carry advice, " advice:<advice>".
template <class Response>
std::string outcome(const std::unique_ptr<Response>& reply) {
    std::string text = std::string(reply->successful ? "ok" : "refused") + (reply->error.empty() ? "" : ": ");
    text += reply->error;
    if constexpr (HasAdvice<Response>::value) {
        text += " advice:" + describe(reply->advice);
    }
    return text;
}

class ProviderFixture : public ::testing::Test {
protected:
    static constexpr long long startTick = 5000;

    void SetUp() override { provider = makeProvider(server); }
    static std::shared_ptr<BayeuxServiceProviderImpl> makeProvider(std::shared_ptr<BayeuxServer> core,
                                                                   BayeuxServiceOptions options = {}) {
        auto made = std::make_shared<BayeuxServiceProviderImpl>(std::move(core), options);
        made->start();
        return made;
    }
    static BayeuxServiceOptions pendingLimit(std::size_t messages, std::size_t bytes = 0) {
        BayeuxServiceOptions options;
        options.maxPendingMessages = messages;
        options.maxPendingBytes = bytes;
        return options;
    }
    // The connect of `clientId` was turned into a short poll and is over.
    static void expectShortPoll(StreamRecorder& stream, const std::string& clientId) {
        EXPECT_EQ(stream.seen(), Texts{"response:c-" + clientId + " advice:0/200/-1"});
        EXPECT_EQ(stream.completionCount(), 1);
    }
    // Sends one request the way a transport does; null, and a failure, for a reply of another type.
    template <class Response, class Request>
    std::unique_ptr<Response> ask(std::unique_ptr<Request> request, std::shared_ptr<Context> context = nullptr) {
        std::unique_ptr<Message> reply =
            provider->deliver(std::move(request), Address("bayeux"), context ? std::move(context) : browser).get();
        auto* typed = dynamic_cast<Response*>(reply.get());
        EXPECT_NE(typed, nullptr) << "reply of an unexpected type";
        return std::unique_ptr<Response>(typed ? static_cast<Response*>(reply.release()) : nullptr);
    }
    std::string handshake(std::shared_ptr<Context> context = nullptr) {
        auto response = ask<HandshakeResponse>(std::make_unique<HandshakeRequest>(), std::move(context));
        return response ? response->clientId : std::string();
    }
    std::unique_ptr<ConnectStreamResponse> connect(const std::string& clientId, std::string type = "long-polling",
                                                   std::optional<long long> adviceTimeout = {},
                                                   std::shared_ptr<Context> context = nullptr) {
        auto request = std::make_unique<ConnectStreamRequest>();
        request->id = "c-" + clientId;
        request->clientId = clientId;
        request->connectionType = std::move(type);
        request->bufferResponses = request->holdResponses = true;
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
    std::unique_ptr<SubscribeResponse> subscribe(const std::string& clientId, const std::string& pattern,
                                                 std::shared_ptr<Context> context = nullptr) {
        return ask<SubscribeResponse>(std::make_unique<SubscribeRequest>(pattern, clientId), std::move(context));
    }
    std::unique_ptr<UnsubscribeResponse> unsubscribe(const std::string& clientId, const std::string& pattern) {
        return ask<UnsubscribeResponse>(std::make_unique<UnsubscribeRequest>(pattern, clientId));
    }
    std::unique_ptr<PublishResponse> publish(const std::string& clientId, const std::string& channel,
                                             const std::string& id = "", std::shared_ptr<Context> context = nullptr) {
        auto request = makePublish(channel, "{\"text\":\"hi\"}", clientId);
        request->id = id;
        return ask<PublishResponse>(std::move(request), std::move(context));
    }
    std::unique_ptr<DisconnectResponse> disconnect(const std::string& clientId,
                                                   std::shared_ptr<Context> context = nullptr) {
        auto request = std::make_unique<DisconnectRequest>();
        request->clientId = clientId;
        return ask<DisconnectResponse>(std::move(request), std::move(context));
    }

    ManualClock clock{startTick};  // outlives the provider
    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<BayeuxServiceProviderImpl> provider;
    std::shared_ptr<Context> browser = std::make_shared<TestContext>("browser-1");
};

}  // namespace korvane::bayeux::testing
