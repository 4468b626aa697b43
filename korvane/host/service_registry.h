#pragma once

// The host's directory of services: each provider lives at one Address, and a
// context resolves addresses here on every message.
//
// Threading: every operation may be called from any thread. resolve() is the hot
// path and takes `mutex_` shared; add() takes it exclusively. startAll() and
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
    // address, a null provider, or an address that is already taken.
    void add(const Address& address, std::shared_ptr<ServiceProvider> provider);
    // Starts every provider, in the order they were added.
    void startAll();
    // Stops every provider, in the reverse order.
    void stopAll();
    // The provider at `address`, or null.
    std::shared_ptr<ServiceProvider> resolve(const Address& address) const;

private:
    std::vector<std::shared_ptr<ServiceProvider>> doSnapshot() const;

    mutable std::shared_mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<ServiceProvider>> byName_;
    // The same providers in the order they were added.
    std::vector<std::shared_ptr<ServiceProvider>> inOrder_;
};

}  // namespace korvane::host
