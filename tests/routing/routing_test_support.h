#pragma once

// Sessions and messages for the routing core's tests and the layers above it.
// RecordingSession logs "id:event" into a log it may share (nothing without one) and runs
// `onPublish` inside its deliver. Made without a server it is a host's own session: it
// declares nothing and so is offered everything; made with one, it declares its patterns to
// it, which then offers it only what they match. Threading: deliveries may come from any
// thread; the log is written under the session's mutex.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/routing/bayeux_server.h"

namespace korvane::bayeux::testing {

using Log = std::vector<std::string>;

inline std::unique_ptr<PublishRequest> publish(const std::string& channel, const std::string& clientId = "publisher") {
    auto request = std::make_unique<PublishRequest>(channel);
    request->clientId = clientId;
    request->data = std::make_shared<common::DataBuffer>();
    return request;
}

class RecordingSession : public BayeuxSession {
public:
    RecordingSession(std::string id, Log* log, std::shared_ptr<BayeuxServer> server = nullptr)
        : id(std::move(id)), log(log), server(std::move(server)) {}
    ~RecordingSession() override {
        if (server) {
            server->forgetSession(*this);
        }
    }
    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return id; }
    bool declaresPatternsTo(const BayeuxServer& routing) const override { return &routing == server.get(); }
    void deliver(const std::vector<std::string>&, const std::shared_ptr<const PublishRequest>& message) override {
        record(message->channel);
        if (onPublish) {
            onPublish(*message);
        }
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>& m) override { record("subscribe " + m->subscription); }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& m) override { record("unsubscribe " + m->subscription); }
    RecordingSession& hold(const std::string& pattern) { return server->declarePattern(*this, pattern), *this; }
    RecordingSession& drop(const std::string& pattern) { return server->withdrawPattern(*this, pattern), *this; }

    const std::string id;
    Log* const log;
    const std::shared_ptr<BayeuxServer> server;
    std::function<void(const PublishRequest&)> onPublish;

    void record(const std::string& event) {
        const std::lock_guard<std::mutex> hold(mutex);
        if (log) {
            log->push_back(id + ":" + event);
        }
    }

private:
    std::mutex mutex;
};

// Counts live allocations, so that a test sees when the last weak reference to a dead
// session's control block is gone, on whichever thread that happens.
template <class T>
struct CountingAllocator {
    using value_type = T;
    explicit CountingAllocator(std::atomic<int>& liveCount) : live(&liveCount) {}
    template <class U>
    CountingAllocator(const CountingAllocator<U>& other) : live(other.live) {}
    T* allocate(std::size_t n) { return ++*live, std::allocator<T>().allocate(n); }
    void deallocate(T* p, std::size_t n) { --*live, std::allocator<T>().deallocate(p, n); }
    template <class U>
    bool operator==(const CountingAllocator<U>& other) const { return live == other.live; }
    template <class U>
    bool operator!=(const CountingAllocator<U>& other) const { return live != other.live; }
    std::atomic<int>* live;
};

}  // namespace korvane::bayeux::testing
