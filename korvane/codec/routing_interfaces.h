#pragma once

// The two abstract interfaces around which routing is built. A BayeuxServer fans
// published messages out to BayeuxSessions, which it holds only weakly; each
// session decides by its own patterns whether it wants a message. Both are called
// from any thread.

#include <memory>
#include <string>
#include <vector>

#include "korvane/codec/messages.h"
#include "korvane/frame/service.h"

namespace korvane::bayeux {

class BayeuxSession {
public:
    BayeuxSession();
    virtual ~BayeuxSession();

    virtual std::shared_ptr<Context> getContext() const = 0;
    virtual std::string getId() const = 0;
    // Whether the session's id is `id`. The routing core asks this of every session
    // on every publish to skip the sender; sessions override it to compare without
    // copying their id.
    virtual bool hasId(const std::string& id) const { return getId() == id; }
    // A published message, with its channel already split into segments.
    virtual void deliver(const std::vector<std::string>& segments,
                         const std::shared_ptr<const PublishRequest>& message) = 0;
    // Notices that some other session subscribed or unsubscribed.
    virtual void deliver(const std::shared_ptr<const SubscribeRequest>& message) = 0;
    virtual void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) = 0;
};

class BayeuxServer {
public:
    BayeuxServer();
    virtual ~BayeuxServer();

    virtual void addSession(std::weak_ptr<BayeuxSession> session) = 0;
    virtual void removeSession(const std::shared_ptr<BayeuxSession>& session) = 0;
    // False when the request is malformed; the unique_ptr overload then leaves it with the caller.
    virtual bool deliver(std::unique_ptr<PublishRequest>&& request) = 0;
    virtual bool deliver(std::shared_ptr<const PublishRequest>&& request) = 0;
    virtual void deliver(std::unique_ptr<SubscribeRequest>&& request) = 0;
    virtual void deliver(std::unique_ptr<UnsubscribeRequest>&& request) = 0;
    virtual std::shared_ptr<BayeuxServer> getPtr() = 0;
    virtual void addPrioritySession(std::weak_ptr<BayeuxSession> session) = 0;
};

}  // namespace korvane::bayeux
