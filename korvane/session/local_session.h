#pragma once

// An in-process Bayeux participant: it publishes like a client and receives
// messages through reactive publishers, with no handshake, JSON or time-outs.
// Whoever makes one registers it with BayeuxServer::addSession or
// addPrioritySession; nothing sweeps it.
//
// Threading and locks: any thread may publish, subscribe or deliver. `mutex` guards
// only the `subscriptions` pointer and `active`. The subscription list is
// copy-on-write: a published list is never changed, subscribe and pruning swap in a
// new one, and deliver walks a snapshot with no lock held. Because the snapshot
// owns its entries, an entry that one deliver prunes stays valid for every other
// deliver still walking it. No value is passed to a subscriber under `mutex`, so a
// subscriber may publish, subscribe or drop its publisher from inside onNext. The
// publishers' own locks are never taken under `mutex`. The patterns of the listed
// subscriptions are declared to the session's server under `mutex`, as the list
// changes (the server's lock is a leaf), so that the server offers the session only
// the publishes they can match; the destructor forgets them.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/cached_value_publisher.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT LocalBayeuxSession : public BayeuxSession, public std::enable_shared_from_this<LocalBayeuxSession> {
public:
    using Publisher = reactive_streams::CachedValuePublisher<std::shared_ptr<const PublishRequest>,
                                                             std::function<void()>>;

    LocalBayeuxSession(std::shared_ptr<BayeuxServer> server, std::shared_ptr<Context> context);
    ~LocalBayeuxSession() override;
    LocalBayeuxSession(const LocalBayeuxSession&) = delete;
    LocalBayeuxSession& operator=(const LocalBayeuxSession&) = delete;

    std::shared_ptr<Context> getContext() const override;
    std::string getId() const override;
    bool hasId(const std::string& other) const override;
    void deliver(const std::vector<std::string>& segments,
                 const std::shared_ptr<const PublishRequest>& message) override;
    void deliver(const std::shared_ptr<const SubscribeRequest>& message) override;
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) override;
    bool declaresPatternsTo(const BayeuxServer& routing) const override;

    // Stamps clientId and context and hands the message to the routing core; false when it
    // refuses the channel. A shared message is stamped through its pointer: it must not be
    // published by two sessions at once.
    bool publish(std::unique_ptr<PublishRequest>&& message);
    bool publish(std::shared_ptr<const PublishRequest>&& message);

    // A new subscription. The caller's pointer keeps it alive: releasing the publisher unsubscribes.
    // A message matching several patterns of one subscription arrives there once.
    std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>> subscribe(
        const std::string& pattern);
    std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>> subscribe(
        const std::vector<std::string>& patterns);

    void flush();
    // Entries held, including released ones that no matching deliver has pruned yet. For diagnostics.
    std::size_t subscriptionCount();

private:
    // Immutable once it is in a published list.
    struct LocalSubscription {
        Channel channel;
        std::vector<std::string> patterns;  // as declared to the server
        std::weak_ptr<Publisher> publisher;
    };
    using SubscriptionList = std::vector<std::shared_ptr<const LocalSubscription>>;

    std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>> addSubscription(
        std::vector<std::string> patterns);
    std::shared_ptr<const SubscriptionList> snapshot();
    void prune(const std::vector<const LocalSubscription*>& dead);

    const std::string id;
    std::mutex mutex;
    std::shared_ptr<const SubscriptionList> subscriptions;
    const std::shared_ptr<BayeuxServer> server;
    const std::shared_ptr<Context> context;
    bool active = false;
};

}  // namespace korvane::bayeux
