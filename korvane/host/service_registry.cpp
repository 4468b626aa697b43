#include "korvane/host/service_registry.h"

#include <mutex>
#include <stdexcept>

namespace korvane::host {

ServiceRegistry::ServiceRegistry() = default;
ServiceRegistry::~ServiceRegistry() = default;

void ServiceRegistry::add(const Address& address, std::shared_ptr<ServiceProvider> provider) {
    if (!address) {
        throw std::invalid_argument("Cannot register a service at an unset address.");
    }
    if (!provider) {
        throw std::invalid_argument("Cannot register a null service at address: " + address.name());
    }
    std::unique_lock<std::shared_mutex> lock(mutex_);
    if (byName_.count(address.name()) != 0) {
        throw std::invalid_argument("A service is already registered at address: " + address.name());
    }
    byName_.emplace(address.name(), provider);
    inOrder_.push_back(std::move(provider));
}

void ServiceRegistry::startAll() {
    for (const auto& provider : doSnapshot()) {
        provider->start();
    }
}

void ServiceRegistry::stopAll() {
    auto providers = doSnapshot();
    for (auto provider = providers.rbegin(); provider != providers.rend(); ++provider) {
        (*provider)->stop();
    }
}

std::shared_ptr<ServiceProvider> ServiceRegistry::resolve(const Address& address) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    auto found = byName_.find(address.name());
    return found == byName_.end() ? nullptr : found->second;
}

std::vector<std::shared_ptr<ServiceProvider>> ServiceRegistry::doSnapshot() const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return inOrder_;
}

}  // namespace korvane::host
