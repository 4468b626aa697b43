#pragma once

// The fan-out point: passes every published message, subscribe and unsubscribe
// to every live session but its sender, priority sessions first.
//
// Locking: `mutex` guards only the two list pointers. A list that has been stored
// in a field is never changed again; every add or remove builds a new vector and
// swaps the pointer (copy-on-write). A publish copies the pointer under the lock
// and walks the snapshot without it, so `mutex` is a leaf lock and is never held
// across a call into a session. Any thread may call anything at any time; a
// session's deliver may publish again, which recurses on the same stack.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvane/codec/routing_interfaces.h"

namespace korvane::bayeux {

class BayeuxServerImpl : public BayeuxServer, public std::enable_shared_from_this<BayeuxServer> {
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

private:
    void doDeliver(const std::shared_ptr<const PublishRequest>& request);
    // Calls `visit` on every live session whose id differs from `senderId`,
    // the priority snapshot first, then the ordinary one.
    template <class Visit>
    void doForEachReceiver(const std::string& senderId, Visit&& visit);
    // Copies a list pointer under `mutex`.
    std::shared_ptr<SessionList> snapshot(const std::shared_ptr<SessionList>& list);
    // Both entered with `mutex` held: each replaces `list` by a pruned copy.
    static void doAppend(std::shared_ptr<SessionList>& list, std::weak_ptr<BayeuxSession>&& session);
    static void doRemove(std::shared_ptr<SessionList>& list, const std::shared_ptr<BayeuxSession>& session);

    std::mutex mutex;
    std::shared_ptr<SessionList> prioritySessions;
    std::shared_ptr<SessionList> sessions;
};

}  // namespace korvane::bayeux
