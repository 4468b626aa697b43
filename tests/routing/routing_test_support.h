#pragma once

// Sessions for the routing core's tests. RecordingSession is a host's own session: it declares
// nothing and so is offered everything; DeclaringSession declares its patterns and records every
// publish that the index offers it, matching or not. Both log "id:event" into a log they may share
// (nothing without one), under their own mutex, and run `onPublish` inside their deliver.

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

using Segments = std::vector<std::string>;
using Log = std::vector<std::string>;

class RecordingSession : public BayeuxSession {
public:
    RecordingSession(std::string sessionId, Log* sharedLog) : id(std::move(sessionId)), log(sharedLog) {}
    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return id; }
    void deliver(const Segments&, const std::shared_ptr<const PublishRequest>& message) override {
        record(message->channel);
        if (onPublish) {
            onPublish(*message);
        }
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>& m) override { record("subscribe " + m->subscription); }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& m) override { record("unsubscribe " + m->subscription); }
    void record(const std::string& event) {
        const std::lock_guard<std::mutex> hold(mutex);
        if (log) {
            log->push_back(id + ":" + event);
        }
    }

    const std::string id;
    Log* const log;
    std::mutex mutex;
    std::function<void(const PublishRequest&)> onPublish;
};

inline std::unique_ptr<PublishRequest> publish(const std::string& channel, const std::string& clientId = "publisher") {
    auto request = std::make_unique<PublishRequest>(channel);
    request->clientId = clientId;
    request->data = std::make_shared<common::DataBuffer>();
    return request;
}

class DeclaringSession : public RecordingSession {
public:
    DeclaringSession(std::shared_ptr<BayeuxServer> server, std::string sessionId, Log* sharedLog)
        : RecordingSession(std::move(sessionId), sharedLog), server(std::move(server)) {}
    ~DeclaringSession() override { server->forgetSession(*this); }
    bool declaresPatternsTo(const BayeuxServer& routing) const override { return &routing == server.get(); }
    DeclaringSession& hold(const std::string& pattern) { return server->declarePattern(*this, pattern), *this; }
    DeclaringSession& drop(const std::string& pattern) { return server->withdrawPattern(*this, pattern), *this; }

    const std::shared_ptr<BayeuxServer> server;
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
