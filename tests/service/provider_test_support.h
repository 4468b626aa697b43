#pragma once

// What the protocol-service tests share: a context that carries a "sessionId", a
// subscriber that records a connect's stream, and a fixture that talks to the
// provider through its typed dispatch, as a transport does, on a manual clock.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/any.hpp>

#include "korvane/codec/messages.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/frame/timers.h"
#include "korvane/routing/bayeux_server.h"
#include "korvane/service/bayeux_service_provider.h"

namespace korvane::bayeux::testing {

// A request context that routes nowhere; it only carries its property bag.
class TestContext : public Context {
public:
    TestContext() = default;
    explicit TestContext(const std::string& sessionId) { set("sessionId", boost::any(sessionId)); }

    Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&& /*message*/, Address&& address) override {
        return makeErrorFuture<std::unique_ptr<Message>>(
            std::make_exception_ptr(std::runtime_error("TestContext routes nowhere: " + address.name())));
    }
};

// Records everything a connect's stream carries. Asks for all it can get at once.
// Thread-safe: the stream may be drained on the timer or any publisher's thread.
class RecordingSubscriber : public reactive_streams::SubscriberAPI<std::unique_ptr<Message>> {
public:
    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        if (auto live = subscription.lock()) {
            live->request(1000000);
        }
    }
    void onNext(std::unique_ptr<Message>&& message) override {
        std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(std::move(message));
    }
    void onError(std::exception_ptr /*error*/) override {
        std::lock_guard<std::mutex> lock(mutex);
        failed = true;
        ended.notify_all();
    }
    void onComplete() override {
        std::lock_guard<std::mutex> lock(mutex);
        completed = true;
        ended.notify_all();
    }
    Future<bool> getFuture() override { return makeReadyFuture<bool>(true); }

    bool isCompleted() {
        std::lock_guard<std::mutex> lock(mutex);
        return completed;
    }
    bool isFailed() {
        std::lock_guard<std::mutex> lock(mutex);
        return failed;
    }
    std::size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages.size();
    }
    // The message at `index` as `T`, or null if it is missing or of another type.
    template <class T>
    const T* at(std::size_t index) {
        std::lock_guard<std::mutex> lock(mutex);
        return index < messages.size() ? dynamic_cast<const T*>(messages[index].get()) : nullptr;
    }
    bool waitCompleted(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return ended.wait_for(lock, limit, [this] { return completed || failed; });
    }

private:
    std::mutex mutex;
    std::condition_variable ended;
    std::vector<std::unique_ptr<Message>> messages;
    bool completed = false;
    bool failed = false;
};

// Starts a manual clock at `startTick`, and a provider on a fresh routing core.
class ProviderFixture : public ::testing::Test {
protected:
    static constexpr long long startTick = 5000;

    void SetUp() override {
        clock = std::make_shared<common::ManualTimerBackend>(startTick);
        previousBackend = common::installTimerBackend(clock);
        server = std::make_shared<BayeuxServerImpl>();
        provider = makeProvider();
    }

    void TearDown() override {
        provider.reset();
        common::installTimerBackend(previousBackend);
    }

    std::shared_ptr<BayeuxServiceProviderImpl> makeProvider() {
        auto made = std::make_shared<BayeuxServiceProviderImpl>(server);
        made->start();
        return made;
    }

    // Sends one request the way a transport does, and casts the reply.
    template <class Response, class Request>
    std::unique_ptr<Response> ask(std::unique_ptr<Request> request, std::shared_ptr<Context> context) {
        Future<std::unique_ptr<Message>> reply =
            provider->deliver(std::unique_ptr<Message>(std::move(request)), Address("bayeux"), std::move(context));
        std::unique_ptr<Message> message = reply.get();
        auto* typed = dynamic_cast<Response*>(message.get());
        if (typed == nullptr) {
            ADD_FAILURE() << "reply of an unexpected type";
            return nullptr;
        }
        message.release();
        return std::unique_ptr<Response>(typed);
    }

    std::string handshake(const std::shared_ptr<Context>& context) {
        auto response = ask<HandshakeResponse>(std::make_unique<HandshakeRequest>(), context);
        return response ? response->clientId : std::string();
    }

    std::unique_ptr<ConnectStreamResponse> connect(const std::string& clientId, const std::shared_ptr<Context>& context,
                                                   const std::string& connectionType = "long-polling",
                                                   std::optional<long long> adviceTimeout = std::nullopt) {
        auto request = std::make_unique<ConnectStreamRequest>();
        request->id = "c-" + clientId;
        request->clientId = clientId;
        request->connectionType = connectionType;
        request->bufferResponses = true;
        request->holdResponses = true;
        if (adviceTimeout) {
            request->advice = std::make_shared<BayeuxAdvice>();
            request->advice->timeout = *adviceTimeout;
        }
        return ask<ConnectStreamResponse>(std::move(request), context);
    }

    // Connects and subscribes a recorder to the stream of the connect.
    std::shared_ptr<RecordingSubscriber> connectRecorded(const std::string& clientId,
                                                         const std::shared_ptr<Context>& context,
                                                         const std::string& connectionType = "long-polling",
                                                         std::optional<long long> adviceTimeout = std::nullopt) {
        auto recorder = std::make_shared<RecordingSubscriber>();
        auto response = connect(clientId, context, connectionType, adviceTimeout);
        if (!response || !response->successful || !response->stream) {
            ADD_FAILURE() << "connect of " << clientId << " failed";
            return recorder;
        }
        response->stream->subscribe(recorder);
        return recorder;
    }

    std::unique_ptr<SubscribeResponse> subscribe(const std::string& clientId, const std::string& pattern,
                                                 const std::shared_ptr<Context>& context) {
        return ask<SubscribeResponse>(std::make_unique<SubscribeRequest>(pattern, clientId), context);
    }

    std::unique_ptr<PublishResponse> publish(const std::string& clientId, const std::string& channel,
                                             const std::string& id, const std::shared_ptr<Context>& context) {
        auto request = std::make_unique<PublishRequest>(channel);
        request->clientId = clientId;
        request->id = id;
        request->data = std::make_shared<common::DataBuffer>("{\"text\":\"hi\"}");
        return ask<PublishResponse>(std::move(request), context);
    }

    std::unique_ptr<DisconnectResponse> disconnect(const std::string& clientId,
                                                   const std::shared_ptr<Context>& context) {
        auto request = std::make_unique<DisconnectRequest>();
        request->clientId = clientId;
        return ask<DisconnectResponse>(std::move(request), context);
    }

    std::shared_ptr<common::ManualTimerBackend> clock;
    std::shared_ptr<common::TimerBackend> previousBackend;
    std::shared_ptr<BayeuxServerImpl> server;
    std::shared_ptr<BayeuxServiceProviderImpl> provider;
};

}  // namespace korvane::bayeux::testing
