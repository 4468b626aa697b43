#pragma once

// What an embedding host may decide about remote clients, through the protocol
// service's options: whether a handshake may proceed, and whether a client may
// subscribe to a pattern or publish on a channel (BayeuxPolicy); and how a request
// from a client is changed or dropped before the service acts on it (IncomingHook).
// The outgoing side, a message on its way to a client, is the session's OutgoingHook.
//
// Threading: the protocol service calls the policy and the incoming hook on the host
// thread that delivers the request, concurrently for different clients and for the
// same client, with no lock of the library held. Both must answer at once: they must
// not block, wait on I/O or on another request. A policy that keeps state guards it
// itself.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "korvane/codec/messages.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// What a policy keeps about one client from its handshake on, e.g. a user id and its
// grants: derive from it. The service holds it as long as it knows the client.
class KORVANE_EXPORT ClientGrant {
public:
    virtual ~ClientGrant();
};

// A policy's answer. A refusal's `reason` is the message part of the error text that
// the client gets; empty gives the default text of the refused request.
struct KORVANE_EXPORT PolicyDecision {
    bool allowed = true;
    std::string reason;

    static PolicyDecision allow() { return PolicyDecision(); }
    static PolicyDecision deny(std::string reason = std::string()) { return PolicyDecision{false, std::move(reason)}; }
};

// The answer to a handshake: what is attached to the client when it is allowed.
struct KORVANE_EXPORT HandshakeDecision : PolicyDecision {
    std::shared_ptr<const ClientGrant> grant;
};

// The client that asks to subscribe or publish.
struct KORVANE_EXPORT PolicyClient {
    const std::string& clientId;
    // What the policy attached at the handshake; null if it attached nothing.
    const ClientGrant* grant;
};

// Refusals reach the client as a failed reply whose error is "403:<args>:<message>":
//   handshake  "403::handshake denied", with the advice reconnect "none";
//   subscribe  "403:<pattern>:subscription denied";
//   publish    "403:<channel>:publish denied", and the message reaches no one.
// `context` is the request's own (the host puts the HTTP request's details there) and
// may be null.
class KORVANE_EXPORT BayeuxPolicy {
public:
    virtual ~BayeuxPolicy();

    // `ext` is the raw JSON text of the handshake's ext member, empty when it has none.
    virtual HandshakeDecision mayHandshake(const std::shared_ptr<Context>& context, std::string_view ext) = 0;
    virtual PolicyDecision maySubscribe(const PolicyClient& client, const std::string& pattern,
                                        const std::shared_ptr<Context>& context) = 0;
    virtual PolicyDecision mayPublish(const PolicyClient& client, const std::string& channel,
                                      const std::shared_ptr<Context>& context) = 0;
};

// The embedding host's look at a handshake, disconnect, subscribe, unsubscribe or
// publish from a client before the service acts on it: it may change the request, or
// drop it by returning false, which the client gets as a failed reply with the error
// "403:<channel>:message dropped". Connects are not shown: they carry nothing to change.
using IncomingHook = std::function<bool(BayeuxBase& request, const std::shared_ptr<Context>& context)>;

}  // namespace korvane::bayeux
