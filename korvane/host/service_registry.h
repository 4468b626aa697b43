#pragma once

// The host's directory of services. Each address holds at most one provider per kind
// of message: an HTTP service, a Bayeux protocol service, and one that takes any
// message through its own deliver. A Bayeux transport therefore shares its address
// with the protocol service: the HTTP requests sent to the address reach the
// transport, and the Bayeux messages that the transport sends on to the same address
// reach the protocol service.
//
// Threading: every operation may be called from any thread. resolve() is the hot
// path and takes `mutex` shared; add() takes it exclusively. startAll() and
// stopAll() call the providers' start and stop with no lock held, so a provider's
// hooks may use the registry.

#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "korvane/frame/service.h"

namespace korvane::host {

class ServiceRegistry {
public:
    ServiceRegistry();
    ~ServiceRegistry();
    ServiceRegistry(const ServiceRegistry&) = delete;
    ServiceRegistry& operator=(const ServiceRegistry&) = delete;

    // Places `provider` at `address`. Throws std::invalid_argument for an unset
    // address, a null provider, or an address that already holds a provider of the
    // same kind. One provider may stand at several addresses.
    void add(const Address& address, std::shared_ptr<ServiceProvider> provider);
    // Starts every provider once, in the order they were first added.
    void startAll();
    // Stops every provider, in the reverse order.
    void stopAll();
    // The provider at `address` for `message`: the one of the message's kind, else
    // the one that takes any message, else whatever stands there (whose typed dispatch
    // then refuses the message). Null when the address holds nothing.
    std::shared_ptr<ServiceProvider> resolve(const Address& address, const Message* message) const;

private:
    enum class Kind { Http, Bayeux, Any };
    struct Entry {
        Kind kind;
        std::shared_ptr<ServiceProvider> provider;
    };

    static Kind kindOfProvider(const ServiceProvider& provider);
    static Kind kindOfMessage(const Message* message);
    std::vector<std::shared_ptr<ServiceProvider>> doSnapshot() const;

    mutable std::shared_mutex mutex;
    std::unordered_map<std::string, std::vector<Entry>> byName;
    // Each provider once, in the order it was first added.
    std::vector<std::shared_ptr<ServiceProvider>> inOrder;
};

}  // namespace korvane::host
