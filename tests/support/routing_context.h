#pragma once

// A request context for the in-memory transport tests and fuzzers: it routes each
// message as the host's context does, a Bayeux message to the protocol service
// ("bayeux") whatever transport's address it was sent to, anything else to the
// provider at its address, and hands itself along. Sessions keep their context and
// the services own the sessions, so the services are held weakly, as the host's are.
// Unknown addresses give a failed future. Threading: as the providers it calls.

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include <boost/any.hpp>

#include "korvane/codec/messages.h"
#include "korvane/frame/service.h"

namespace korvane::test_support {

using Services = std::map<std::string, std::shared_ptr<ServiceProvider>>;

class RoutingContext : public Context, public std::enable_shared_from_this<RoutingContext> {
public:
    RoutingContext(std::weak_ptr<const Services> services, const std::string& sessionId)
        : services(std::move(services)) {
        set("sessionId", boost::any(sessionId));
    }
    using Context::handle;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&& message, Address&& address) override {
        const bool bayeux = dynamic_cast<bayeux::BayeuxMessage*>(message.get()) != nullptr;
        std::shared_ptr<const Services> known = services.lock();
        auto found = known ? known->find(bayeux ? "bayeux" : address.name()) : Services::const_iterator();
        if (!known || found == known->end()) {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("no service at " + address.name())));
        }
        return found->second->deliver(std::move(message), std::move(address), shared_from_this());
    }

private:
    std::weak_ptr<const Services> services;
};

}  // namespace korvane::test_support
