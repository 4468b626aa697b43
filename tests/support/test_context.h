#pragma once

// A request context for tests. It carries a session id if given one and routes each message
// with `route` when the test sets one; built on a map of services, it routes as the host's
// context does: a Bayeux message to the protocol service ("bayeux") whatever transport's
// address it was sent to, anything else to the provider at its address, handing itself along.
// Sessions keep their context and the services own the sessions, so the services are held
// weakly, as the host's are. A message it cannot route gives a failed future,
// "no service at <address>". Threading: as the providers and the route it calls.

#include <functional>
#include <map>

#include "korvane/codec/messages.h"
#include "korvane/frame/service.h"

namespace korvane::test_support {

using Services = std::map<std::string, std::shared_ptr<ServiceProvider>>;

class TestContext : public Context, public std::enable_shared_from_this<TestContext> {
public:
    explicit TestContext(const std::string& sessionId = "") {
        if (!sessionId.empty()) {
            set("sessionId", boost::any(sessionId));
        }
    }
    // Only this constructor names the Bayeux messages, so tests below the codec can use the others.
    TestContext(std::weak_ptr<const Services> services, const std::string& sessionId) : TestContext(sessionId) {
        route = [this, services](std::unique_ptr<Message>&& message, Address&& address) {
            const std::string name =
                dynamic_cast<bayeux::BayeuxMessage*>(message.get()) != nullptr ? "bayeux" : address.name();
            std::shared_ptr<const Services> known = services.lock();
            if (!known || known->count(name) == 0) {
                return unrouted(address);
            }
            return known->at(name)->deliver(std::move(message), std::move(address), shared_from_this());
        };
    }

    using Context::handle;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&& message, Address&& address) override {
        return route ? route(std::move(message), std::move(address)) : unrouted(address);
    }

    std::function<Future<std::unique_ptr<Message>>(std::unique_ptr<Message>&&, Address&&)> route;

private:
    static Future<std::unique_ptr<Message>> unrouted(const Address& address) {
        return makeErrorFuture<std::unique_ptr<Message>>(
            std::make_exception_ptr(std::runtime_error("no service at " + address.name())));
    }
};

}  // namespace korvane::test_support
