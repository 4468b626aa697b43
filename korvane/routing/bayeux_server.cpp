#include "korvane/routing/bayeux_server.h"

#include <algorithm>
#include <utility>

#include "korvane/codec/channel.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/spare_buckets.h"
#include "korvane/routing/bayeux_counters.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::server");

bool isPublishable(const PublishRequest& request) {
    const std::string& channel = request.channel;
    return request.data != nullptr && channel.size() >= 2 && channel.front() == '/' && channel.back() != '/' &&
           channel.find('*') == std::string::npos;
}

using Member = SubscriptionIndex::Member;

// Calls `visit` on the member's session, as often as it was added, unless it has died or sent the message.
template <class Visit>
void offerTo(const Member& member, const std::string& senderId, Visit& visit) {
    const std::shared_ptr<BayeuxSession> session = member.session.lock();
    if (session && !session->hasId(senderId)) {
        for (unsigned copy = 0; copy < member.copies; ++copy) {
            visit(*session);
        }
    }
}

// Offers the members of the matched chunks, each session once even where several of
// its patterns matched. A session stands in a bucket at most once, so only members
// drawn from several buckets need sorting out.
template <class Visit>
void offerMatched(const SubscriptionIndex::Snapshot& matched, const std::string& senderId, Visit& visit) {
    if (matched.buckets <= 1) {
        for (const auto& chunk : matched.chunks) {
            for (const Member& member : *chunk) {
                offerTo(member, senderId, visit);
            }
        }
        return;
    }
    std::vector<const Member*> members;
    for (const auto& chunk : matched.chunks) {
        for (const Member& member : *chunk) {
            members.push_back(&member);
        }
    }
    const auto byIdentity = [](const Member* a, const Member* b) { return a->identity < b->identity; };
    const auto sameIdentity = [](const Member* a, const Member* b) { return a->identity == b->identity; };
    std::sort(members.begin(), members.end(), byIdentity);
    members.erase(std::unique(members.begin(), members.end(), sameIdentity), members.end());
    for (const Member* member : members) {
        offerTo(*member, senderId, visit);
    }
}

// Calls `visit` on every live session of the vector whose id differs from `senderId`, in order.
template <class Visit>
void offerEach(const BayeuxServerImpl::SessionList& list, const std::string& senderId, Visit& visit) {
    for (const std::weak_ptr<BayeuxSession>& entry : list) {
        const std::shared_ptr<BayeuxSession> session = entry.lock();
        if (session && !session->hasId(senderId)) {
            visit(*session);
        }
    }
}

// Compares by owner, without locking: a strong reference taken under `mutex`
// could turn out to be the last one and run a session's destructor there.
bool isSameSession(const std::weak_ptr<BayeuxSession>& entry, const std::shared_ptr<BayeuxSession>& session) {
    return !entry.owner_before(session) && !session.owner_before(entry);
}

}  // namespace

BayeuxServerImpl::BayeuxServerImpl() {
    for (Tier& tier : tiers) {
        tier.offeredEverything = std::make_shared<SessionList>();
    }
}

BayeuxServerImpl::~BayeuxServerImpl() = default;

void BayeuxServerImpl::addSession(std::weak_ptr<BayeuxSession> session) { addTo(ordinaryTier, std::move(session)); }

void BayeuxServerImpl::addPrioritySession(std::weak_ptr<BayeuxSession> session) {
    addTo(priorityTier, std::move(session));
}

void BayeuxServerImpl::addTo(std::size_t tier, std::weak_ptr<BayeuxSession>&& session) {
    // Held until `mutex` is released: should it turn out to be the last reference, the session's
    // destructor, which calls forgetSession, runs after that.
    const std::shared_ptr<BayeuxSession> alive = session.lock();
    if (alive) {
        KORVANE_LOG(logger, common::logTrace) << "addSession " << alive->getId();
    }
    const bool declares = alive && alive->declaresPatternsTo(*this);
    InterestChanges changes;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (!declares) {
            // A session that died already is appended and pruned at once.
            doAppend(tiers[tier].offeredEverything, std::move(session));
            return;
        }
        changes = doWatchInterest();
        DeclaredSession& entry = declared[alive.get()];
        entry.session = std::move(session);
        ++entry.copies[tier];
        for (const auto& hold : entry.holds) {
            doIndex(entry, alive.get(), hold.first, changes);
        }
    }
    tell(changes);
}

void BayeuxServerImpl::removeSession(const std::shared_ptr<BayeuxSession>& session) {
    KORVANE_LOG(logger, common::logTrace) << "removeSession " << session->getId();
    InterestChanges changes;
    {
        std::lock_guard<std::mutex> guard(mutex);
        for (Tier& tier : tiers) {
            doRemove(tier.offeredEverything, session);
        }
        auto entry = declared.find(session.get());
        if (entry == declared.end()) {
            return;
        }
        changes = doWatchInterest();
        entry->second.copies = {};
        for (const auto& hold : entry->second.holds) {
            doIndex(entry->second, entry->first, hold.first, changes);
        }
        doForgetIfIdle(entry);
    }
    tell(changes);
}

void BayeuxServerImpl::declarePattern(BayeuxSession& session, const std::string& pattern) {
    const std::string key = patternKey(pattern);
    InterestChanges changes;
    {
        std::lock_guard<std::mutex> guard(mutex);
        changes = doWatchInterest();
        DeclaredSession& entry = declared[&session];
        common::startSmall(entry.holds);
        if (++entry.holds[key] == 1) {
            doIndex(entry, &session, key, changes);
        }
    }
    tell(changes);
}

void BayeuxServerImpl::withdrawPattern(BayeuxSession& session, const std::string& pattern) {
    const std::string key = patternKey(pattern);
    InterestChanges changes;
    {
        std::lock_guard<std::mutex> guard(mutex);
        auto entry = declared.find(&session);
        if (entry == declared.end()) {
            return;
        }
        auto hold = entry->second.holds.find(key);
        if (hold == entry->second.holds.end()) {
            return;
        }
        changes = doWatchInterest();
        if (--hold->second == 0) {
            entry->second.holds.erase(hold);
            doIndex(entry->second, &session, key, changes);
        }
        doForgetIfIdle(entry);
    }
    tell(changes);
}

void BayeuxServerImpl::forgetSession(BayeuxSession& session) {
    InterestChanges changes;
    {
        std::lock_guard<std::mutex> guard(mutex);
        auto entry = declared.find(&session);
        if (entry == declared.end()) {
            return;
        }
        changes = doWatchInterest();
        for (const auto& hold : entry->second.holds) {
            const bool heldBefore = changes.listener && doIsHeld(hold.first);
            for (Tier& tier : tiers) {
                tier.byPattern.remove(hold.first, &session);
            }
            if (heldBefore && !doIsHeld(hold.first)) {
                changes.keys.push_back(hold.first);
            }
        }
        declared.erase(entry);
        common::releaseSpareBuckets(declared);
    }
    tell(changes);
}

void BayeuxServerImpl::setInterestListener(std::shared_ptr<InterestListener> listener) {
    std::lock_guard<std::mutex> guard(mutex);
    interestListener = std::move(listener);
}

bool BayeuxServerImpl::isHeld(const std::string& key) {
    std::lock_guard<std::mutex> guard(mutex);
    return doIsHeld(key);
}

std::vector<std::string> BayeuxServerImpl::heldKeys() {
    std::vector<std::string> keys;
    std::lock_guard<std::mutex> guard(mutex);
    for (const Tier& tier : tiers) {
        tier.byPattern.appendKeys(keys);
    }
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return keys;
}

void BayeuxServerImpl::awaitInterestSettled(std::chrono::milliseconds limit) {
    std::shared_ptr<InterestListener> listener;
    {
        std::lock_guard<std::mutex> guard(mutex);
        listener = interestListener;
    }
    if (listener) {
        listener->awaitSettled(limit);
    }
}

bool BayeuxServerImpl::doIsHeld(const std::string& key) const {
    return tiers[priorityTier].byPattern.holds(key) || tiers[ordinaryTier].byPattern.holds(key);
}

void BayeuxServerImpl::tell(const InterestChanges& changes) {
    if (changes.listener && !changes.keys.empty()) {
        changes.listener->interestChanged(changes.keys);
    }
}

bool BayeuxServerImpl::deliver(std::unique_ptr<PublishRequest>&& request) {
    KORVANE_LOG(logger, common::logTrace) << "deliver " << request->channel;
    if (!isPublishable(*request)) {
        return false;
    }
    doDeliver(std::shared_ptr<const PublishRequest>(std::move(request)));
    return true;
}

bool BayeuxServerImpl::deliver(std::shared_ptr<const PublishRequest>&& request) {
    KORVANE_LOG(logger, common::logTrace) << "deliver " << request->channel;
    if (!isPublishable(*request)) {
        return false;
    }
    doDeliver(request);
    return true;
}

void BayeuxServerImpl::deliver(std::unique_ptr<SubscribeRequest>&& request) {
    const std::shared_ptr<const SubscribeRequest> notice(std::move(request));
    doForEachReceiver(notice->clientId, [&notice](BayeuxSession& session) { session.deliver(notice); });
}

void BayeuxServerImpl::deliver(std::unique_ptr<UnsubscribeRequest>&& request) {
    const std::shared_ptr<const UnsubscribeRequest> notice(std::move(request));
    doForEachReceiver(notice->clientId, [&notice](BayeuxSession& session) { session.deliver(notice); });
}

std::shared_ptr<BayeuxServer> BayeuxServerImpl::getPtr() {
    return shared_from_this();
}

BayeuxServerImpl::Census BayeuxServerImpl::census() {
    Census census;
    std::lock_guard<std::mutex> guard(mutex);
    for (const Tier& tier : tiers) {
        census.sessions += static_cast<std::size_t>(
            std::count_if(tier.offeredEverything->begin(), tier.offeredEverything->end(),
                          [](const std::weak_ptr<BayeuxSession>& session) { return !session.expired(); }));
        census.patterns += tier.byPattern.patternCount();
    }
    for (const auto& entry : declared) {
        if (entry.second.copies[priorityTier] + entry.second.copies[ordinaryTier] != 0) {
            ++census.sessions;
        }
    }
    return census;
}

void BayeuxServerImpl::doDeliver(const std::shared_ptr<const PublishRequest>& request) {
    count(BayeuxCounter::messagesPublished);
    // Split once; the index and every session match against the same vector.
    const std::vector<std::string> segments = splitChannel(request->channel);
    const std::vector<std::string> paths = SubscriptionIndex::pathsOf(segments);
    auto visit = [&segments, &request](BayeuxSession& session) { session.deliver(segments, request); };
    auto visitMatched = [&segments, &request](BayeuxSession& session) {
        session.deliverDeclaredMatch(segments, request);
    };
    // The ordinary tier is read only after the priority walk, so a session added to it
    // meanwhile is served by this publish.
    for (Tier& tier : tiers) {
        std::shared_ptr<SessionList> list;
        SubscriptionIndex::Snapshot matched;
        {
            std::lock_guard<std::mutex> guard(mutex);
            list = tier.offeredEverything;
            tier.byPattern.collect(paths, matched);
        }
        offerEach(*list, request->clientId, visit);
        offerMatched(matched, request->clientId, visitMatched);
    }
}

template <class Visit>
void BayeuxServerImpl::doForEachReceiver(const std::string& senderId, Visit&& visit) {
    // The ordinary vector is read only after the priority walk, so a session added to
    // it meanwhile is served by this notice.
    for (Tier& tier : tiers) {
        offerEach(*snapshot(tier.offeredEverything), senderId, visit);
    }
}

std::shared_ptr<BayeuxServerImpl::SessionList> BayeuxServerImpl::snapshot(const std::shared_ptr<SessionList>& list) {
    std::lock_guard<std::mutex> guard(mutex);
    return list;
}

void BayeuxServerImpl::doAppend(std::shared_ptr<SessionList>& list, std::weak_ptr<BayeuxSession>&& session) {
    auto updated = std::make_shared<SessionList>(*list);
    updated->push_back(std::move(session));
    updated->erase(std::remove_if(updated->begin(), updated->end(),
                                  [](const std::weak_ptr<BayeuxSession>& entry) { return entry.expired(); }),
                   updated->end());
    list = std::move(updated);
}

void BayeuxServerImpl::doIndex(const DeclaredSession& entry, const BayeuxSession* identity,
                               const std::string& key, InterestChanges& changes) {
    const bool heldBefore = changes.listener && doIsHeld(key);
    const bool held = entry.holds.count(key) != 0;
    for (std::size_t tier = 0; tier < tiers.size(); ++tier) {
        if (held && entry.copies[tier] > 0) {
            tiers[tier].byPattern.put(key, Member{entry.session, identity, entry.copies[tier]});
        } else {
            tiers[tier].byPattern.remove(key, identity);
        }
    }
    if (changes.listener && heldBefore != doIsHeld(key)) {
        changes.keys.push_back(key);
    }
}

void BayeuxServerImpl::doForgetIfIdle(std::unordered_map<const BayeuxSession*, DeclaredSession>::iterator entry) {
    const std::array<unsigned, 2>& copies = entry->second.copies;
    if (entry->second.holds.empty() && copies[priorityTier] == 0 && copies[ordinaryTier] == 0) {
        declared.erase(entry);
        common::releaseSpareBuckets(declared);
    }
}

void BayeuxServerImpl::doRemove(std::shared_ptr<SessionList>& list, const std::shared_ptr<BayeuxSession>& session) {
    auto updated = std::make_shared<SessionList>(*list);
    updated->erase(std::remove_if(updated->begin(), updated->end(),
                                  [&session](const std::weak_ptr<BayeuxSession>& entry) {
                                      return entry.expired() || isSameSession(entry, session);
                                  }),
                   updated->end());
    list = std::move(updated);
}

}  // namespace korvane::bayeux
