#include "korvane/session/local_session.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "korvane/frame/logger.h"
#include "korvane/frame/random.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::localSession");

std::string_view dataText(const PublishRequest& message) {
    return message.data ? message.data->view() : std::string_view();
}

}  // namespace

LocalBayeuxSession::LocalBayeuxSession(std::shared_ptr<BayeuxServer> server, std::shared_ptr<Context> context)
    : id(common::randomString(16)),
      subscriptions(std::make_shared<const SubscriptionList>()),
      server(std::move(server)),
      context(std::move(context)),
      active(true) {
    KORVANE_LOG(logger, common::logTrace) << "Bayeux session create: " << id;
}

LocalBayeuxSession::~LocalBayeuxSession() {
    KORVANE_LOG(logger, common::logTrace) << "Bayeux session destroy: " << id;
    server->forgetSession(*this);
    {
        std::lock_guard<std::mutex> guard(mutex);
        active = false;
    }
    // A caller who still holds a publisher sees its stream complete once the cached values are consumed.
    for (const auto& entry : *subscriptions) {
        if (auto publisher = entry->publisher.lock()) {
            publisher->finish();
        }
    }
}

std::shared_ptr<Context> LocalBayeuxSession::getContext() const { return context; }

std::string LocalBayeuxSession::getId() const { return id; }

// `id` never changes after construction, so no lock is needed.
bool LocalBayeuxSession::hasId(const std::string& other) const { return id == other; }

bool LocalBayeuxSession::publish(std::unique_ptr<PublishRequest>&& message) {
    KORVANE_LOG(logger, common::logTrace) << "Bayeux session publish: " << id << ", " << message->channel << ", "
                           << dataText(*message);
    message->clientId = id;
    message->context = context;
    return server->deliver(std::move(message));
}

bool LocalBayeuxSession::publish(std::shared_ptr<const PublishRequest>&& message) {
    KORVANE_LOG(logger, common::logTrace) << "Bayeux session publish: " << id << ", " << message->channel << ", "
                           << dataText(*message);
    // A shared message is stamped just like an owned one; the routing core then skips this session.
    auto& stamped = const_cast<PublishRequest&>(*message);
    stamped.clientId = id;
    stamped.context = context;
    return server->deliver(std::move(message));
}

std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>> LocalBayeuxSession::subscribe(
    const std::string& pattern) {
    return addSubscription({pattern});
}

std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>> LocalBayeuxSession::subscribe(
    const std::vector<std::string>& patterns) {
    return addSubscription(patterns);
}

void LocalBayeuxSession::flush() {}

std::size_t LocalBayeuxSession::subscriptionCount() { return snapshot()->size(); }

void LocalBayeuxSession::deliver(const std::vector<std::string>& segments,
                                 const std::shared_ptr<const PublishRequest>& message) {
    const std::shared_ptr<const SubscriptionList> entries = snapshot();
    KORVANE_LOG(logger, common::logTrace) << "Bayeux session deliver: " << id << ", " << message->channel << ", "
                           << dataText(*message);
    std::vector<const LocalSubscription*> dead;
    for (const auto& entry : *entries) {
        if (!entry->channel.channelMatches(segments)) {
            continue;
        }
        if (auto publisher = entry->publisher.lock()) {
            publisher->publish(std::shared_ptr<const PublishRequest>(message));
        } else {
            dead.push_back(entry.get());
        }
    }
    if (!dead.empty()) {
        prune(dead);
    }
}

void LocalBayeuxSession::deliver(const std::shared_ptr<const SubscribeRequest>&) {}

void LocalBayeuxSession::deliver(const std::shared_ptr<const UnsubscribeRequest>&) {}

bool LocalBayeuxSession::declaresPatternsTo(const BayeuxServer& routing) const { return &routing == server.get(); }

std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>>
LocalBayeuxSession::addSubscription(std::vector<std::string> patterns) {
    // A no-op rather than an empty function: the publisher calls it when its stream ends.
    auto publisher = std::make_shared<Publisher>(std::function<void()>([] {}));
    auto entry = std::make_shared<LocalSubscription>();
    for (const auto& pattern : patterns) {
        entry->channel.pushPattern(pattern);
    }
    entry->patterns = std::move(patterns);
    entry->publisher = publisher;
    std::lock_guard<std::mutex> guard(mutex);
    auto grown = std::make_shared<SubscriptionList>();
    grown->reserve(subscriptions->size() + 1);
    *grown = *subscriptions;
    for (const auto& pattern : entry->patterns) {
        server->declarePattern(*this, pattern);
    }
    grown->push_back(std::move(entry));
    subscriptions = std::move(grown);
    return publisher;
}

std::shared_ptr<const LocalBayeuxSession::SubscriptionList> LocalBayeuxSession::snapshot() {
    std::lock_guard<std::mutex> guard(mutex);
    return subscriptions;
}

void LocalBayeuxSession::prune(const std::vector<const LocalSubscription*>& dead) {
    // Entries are found by identity: a concurrent deliver may have pruned some of them already.
    // The old list stays alive, entries included, for every deliver still walking it.
    auto isDead = [&dead](const std::shared_ptr<const LocalSubscription>& entry) {
        return std::find(dead.begin(), dead.end(), entry.get()) != dead.end();
    };
    std::lock_guard<std::mutex> guard(mutex);
    auto kept = std::make_shared<SubscriptionList>();
    kept->reserve(subscriptions->size());
    for (const auto& entry : *subscriptions) {
        if (!isDead(entry)) {
            kept->push_back(entry);
            continue;
        }
        for (const auto& pattern : entry->patterns) {
            server->withdrawPattern(*this, pattern);
        }
    }
    subscriptions = std::move(kept);
}

}  // namespace korvane::bayeux
