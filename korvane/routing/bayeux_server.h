#pragma once

// The fan-out point: passes every published message to every live session but its
// sender that may want it, and every subscribe and unsubscribe notice to every live
// session but its sender that takes notices, priority sessions first.
//
// Each of the two lists (priority and ordinary) is kept in two parts. Sessions that
// declare their patterns (BayeuxSession::declaresPatternsTo) sit in a SubscriptionIndex
// under each pattern they hold, and a publish reaches only the buckets its channel can
// match. All other sessions sit in a vector, in order of addition, and are offered
// every publish and every notice. Within a list the vector is served first.
//
// Locking: `mutex` guards the two vector pointers, the two indexes and `declared`. A
// vector that has been stored in a field is never changed again: every add or remove
// builds a new one and swaps the pointer (copy-on-write); the indexes' chunks are
// copy-on-write in the same way. A publish copies, under the lock, the vector pointer
// and the chunk pointers of the buckets it matches, one list at a time, and walks them
// without it, so `mutex` is a leaf lock and is never held across a call into a
// session. Any thread may call anything at any time; a session's deliver may publish
// again, which recurses on the same stack, and a session may declare or withdraw a
// pattern holding its own lock.
//
// The interest listener, when one is set, hears of the keys whose buckets went from
// empty in both tiers to held in one or back; it is copied under `mutex` with the
// keys and called after `mutex` is released. Without one, no key is compared.

#include <array>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "korvane/codec/routing_interfaces.h"
#include "korvane/routing/subscription_index.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT BayeuxServerImpl : public BayeuxServer, public std::enable_shared_from_this<BayeuxServer> {
public:
    using SessionList = std::vector<std::weak_ptr<BayeuxSession>>;

    // Must be owned by a std::shared_ptr for getPtr to work.
    BayeuxServerImpl();
    ~BayeuxServerImpl() override;

    void addSession(std::weak_ptr<BayeuxSession> session) override;
    void removeSession(const std::shared_ptr<BayeuxSession>& session) override;
    // False, without fanning out, for a null data or a malformed channel; the
    // unique_ptr overload then leaves the request with its caller.
    bool deliver(std::unique_ptr<PublishRequest>&& request) override;
    bool deliver(std::shared_ptr<const PublishRequest>&& request) override;
    void deliver(std::unique_ptr<SubscribeRequest>&& request) override;
    void deliver(std::unique_ptr<UnsubscribeRequest>&& request) override;
    std::shared_ptr<BayeuxServer> getPtr() override;
    void addPrioritySession(std::weak_ptr<BayeuxSession> session) override;

    void declarePattern(BayeuxSession& session, const std::string& pattern) override;
    void withdrawPattern(BayeuxSession& session, const std::string& pattern) override;
    void forgetSession(BayeuxSession& session) override;

    // What the metrics report of the routing core: its live sessions, and the patterns
    // held in its index (a pattern held in both lists counts twice).
    struct Census {
        std::size_t sessions = 0;
        std::size_t patterns = 0;
    };
    Census census();
    void setInterestListener(std::shared_ptr<InterestListener> listener) override;
    bool isHeld(const std::string& key) override;
    std::vector<std::string> heldKeys() override;
    void awaitInterestSettled(std::chrono::milliseconds limit) override;

private:
    // One list: the sessions offered everything, and the sessions found by their patterns.
    struct Tier {
        std::shared_ptr<SessionList> offeredEverything;
        SubscriptionIndex byPattern;
    };
    static constexpr std::size_t priorityTier = 0;
    static constexpr std::size_t ordinaryTier = 1;

    // What the server knows of a session that declares its patterns, from its first
    // declare or add until its destructor calls forgetSession. Keyed by the session's
    // address, which cannot be reused before that call.
    struct DeclaredSession {
        std::weak_ptr<BayeuxSession> session;  // empty until the session is first added
        std::array<unsigned, 2> copies{};      // how often it was added to each tier
        std::unordered_map<std::string, unsigned> holds;  // pattern key -> times declared
    };

    // Keys whose interest changed under `mutex`, for the listener copied with them.
    struct InterestChanges {
        std::shared_ptr<InterestListener> listener;
        std::vector<std::string> keys;
    };

    // Entered with `mutex` held.
    InterestChanges doWatchInterest() const { return InterestChanges{interestListener, {}}; }
    bool doIsHeld(const std::string& key) const;
    // Called with `mutex` released.
    static void tell(const InterestChanges& changes);

    void addTo(std::size_t tier, std::weak_ptr<BayeuxSession>&& session);
    void doDeliver(const std::shared_ptr<const PublishRequest>& request);
    // Calls `visit` on every live session of the tiers' vectors whose id differs from
    // `senderId`, the priority snapshot first, then the ordinary one.
    template <class Visit>
    void doForEachReceiver(const std::string& senderId, Visit&& visit);
    // Copies a list pointer under `mutex`.
    std::shared_ptr<SessionList> snapshot(const std::shared_ptr<SessionList>& list);
    // Both entered with `mutex` held: each replaces `list` by a pruned copy.
    static void doAppend(std::shared_ptr<SessionList>& list, std::weak_ptr<BayeuxSession>&& session);
    static void doRemove(std::shared_ptr<SessionList>& list, const std::shared_ptr<BayeuxSession>& session);
    // Entered with `mutex` held: puts the session under `key` in every tier it was
    // added to and takes it out of the others (all of them once it holds `key` no more).
    void doIndex(const DeclaredSession& entry, const BayeuxSession* identity, const std::string& key,
                 InterestChanges& changes);
    // Entered with `mutex` held: erases the entry once it is neither added nor holds a pattern.
    void doForgetIfIdle(std::unordered_map<const BayeuxSession*, DeclaredSession>::iterator entry);

    std::mutex mutex;
    std::array<Tier, 2> tiers;  // priority first
    std::unordered_map<const BayeuxSession*, DeclaredSession> declared;
    std::shared_ptr<InterestListener> interestListener;
};

}  // namespace korvane::bayeux
