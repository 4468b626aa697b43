#pragma once

// The host's Context: one per request, carrying the request's property bag and
// routing each message to the provider that the registry names at its address.
//
// Ownership: the context refers to the registry weakly. Sessions keep their
// context for their whole life and the registry owns the providers that own the
// sessions, so a strong reference would keep the whole graph alive forever.
// A HostContext must be held by a std::shared_ptr (use create()): it hands itself
// to the provider with every message.
//
// The property bag of a Bayeux request's context: "sessionId", the browser session
// (std::string); and, when the server is told to (HttpServerOptions::requestInContext),
// "headers", the request's headers with lower-case names, cookies among them
// (http::Headers), and "remoteAddress", the peer's IP address (std::string). A
// WebSocket's messages all come with the context of its upgrade request.
//
// Threading: handle() may be called from any thread; the property bag has its own
// lock (ContextState).

#include <memory>

#include "korvane/frame/service.h"
#include "korvane/host/service_registry.h"

namespace korvane::host {

class HostContext : public Context, public std::enable_shared_from_this<HostContext> {
public:
    explicit HostContext(std::weak_ptr<ServiceRegistry> registry);
    ~HostContext() override;

    static std::shared_ptr<HostContext> create(std::weak_ptr<ServiceRegistry> registry);

    using Context::handle;
    // Delivers to the provider at `address`. An unknown address, a registry that is
    // gone, or an exception thrown by the provider's deliver gives a failed future.
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&& message, Address&& address) override;

private:
    std::weak_ptr<ServiceRegistry> registry;
};

}  // namespace korvane::host
