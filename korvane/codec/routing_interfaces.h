#pragma once

// The two abstract interfaces around which routing is built. A BayeuxServer fans
// published messages out to BayeuxSessions, which it holds only weakly; each
// session decides by its own patterns whether it wants a message. A session may
// also declare its patterns to the server, which then offers it only the messages
// that they can match. Both are called from any thread.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "korvane/codec/messages.h"
#include "korvane/frame/service.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class BayeuxServer;

// Told when a pattern gains its first holder or loses its last among the sessions added
// to a server that declare their patterns. Called on the thread that made the change,
// with no lock of the server held; calls from different threads may arrive out of
// order, so the listener asks the server's isHeld for the state that counts.
class KORVANE_EXPORT InterestListener {
public:
    virtual ~InterestListener() = default;
    // Pattern keys (see patternKey): "a/b", "a/*", "a/**", "**".
    virtual void interestChanged(const std::vector<std::string>& keys) = 0;
    // Returns once every change told so far has taken effect where the listener carries
    // it, or after `limit`; may block the calling thread that long.
    virtual void awaitSettled(std::chrono::milliseconds limit) {}
};

class KORVANE_EXPORT BayeuxSession {
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
    // A published message that one of the patterns this session declared to the calling
    // server matched when the server looked it up. A session that has withdrawn no
    // pattern since need not match it again. By default the same as deliver.
    virtual void deliverDeclaredMatch(const std::vector<std::string>& segments,
                                      const std::shared_ptr<const PublishRequest>& message) {
        deliver(segments, message);
    }
    // Notices that some other session subscribed or unsubscribed.
    virtual void deliver(const std::shared_ptr<const SubscribeRequest>& message) = 0;
    virtual void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) = 0;
    // Whether this session keeps `server` told of every pattern it holds, through
    // declarePattern and withdrawPattern, from before it is added until its destructor
    // calls forgetSession. Such a session is offered only the publishes that one of
    // its declared patterns can match, once each however many match, and none of the
    // subscribe and unsubscribe notices. By default a session is offered everything.
    virtual bool declaresPatternsTo(const BayeuxServer& server) const { return false; }
};

class KORVANE_EXPORT BayeuxServer {
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

    // The pattern index of sessions that declare their patterns (see
    // BayeuxSession::declaresPatternsTo), called by the session itself. A pattern is
    // counted: each declare is undone by one withdraw. None of them calls into a
    // session, so a session may call them holding its own lock. A server that keeps
    // no index ignores them.
    virtual void declarePattern(BayeuxSession& session, const std::string& pattern) {}
    virtual void withdrawPattern(BayeuxSession& session, const std::string& pattern) {}
    // From the destructor of a session that declares: forgets its patterns and its places in the lists.
    virtual void forgetSession(BayeuxSession& session) {}

    // One listener at a time (null removes it); a server that keeps no index never calls it.
    virtual void setInterestListener(std::shared_ptr<InterestListener> listener) {}
    // Whether some added session that declares its patterns holds the pattern of `key`.
    virtual bool isHeld(const std::string& key) { return false; }
    // The keys that isHeld is true of.
    virtual std::vector<std::string> heldKeys() { return {}; }
    // The listener's awaitSettled; returns at once when none is set.
    virtual void awaitInterestSettled(std::chrono::milliseconds limit) {}
};

}  // namespace korvane::bayeux
