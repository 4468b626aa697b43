#include "korvane/host/service_registry.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <typeinfo>

#include "korvane/codec/bayeux_service.h"
#include "korvane/frame/http.h"

namespace korvane::host {

ServiceRegistry::ServiceRegistry() = default;
ServiceRegistry::~ServiceRegistry() = default;

ServiceRegistry::Kind ServiceRegistry::kindOfProvider(const ServiceProvider& provider) {
    if (dynamic_cast<const http::HttpServiceProvider*>(&provider) != nullptr) {
        return Kind::Http;
    }
    if (dynamic_cast<const bayeux::BayeuxServiceProvider*>(&provider) != nullptr) {
        return Kind::Bayeux;
    }
    return Kind::Any;
}

ServiceRegistry::Kind ServiceRegistry::kindOfMessage(const Message* message) {
    const std::type_info* type = message == nullptr ? nullptr : message->serviceMessageType();
    if (type == nullptr) {
        return Kind::Any;
    }
    if (*type == typeid(ServiceMessage<http::HttpServiceProvider>)) {
        return Kind::Http;
    }
    return *type == typeid(bayeux::BayeuxMessage) ? Kind::Bayeux : Kind::Any;
}

void ServiceRegistry::add(const Address& address, std::shared_ptr<ServiceProvider> provider) {
    if (!address) {
        throw std::invalid_argument("Cannot register a service at an unset address.");
    }
    if (!provider) {
        throw std::invalid_argument("Cannot register a null service at address: " + address.name());
    }
    const Kind kind = kindOfProvider(*provider);
    std::unique_lock<std::shared_mutex> lock(mutex);
    std::vector<Entry>& entries = byName[address.name()];
    for (const Entry& entry : entries) {
        if (entry.kind == kind) {
            throw std::invalid_argument("A service of this kind is already registered at address: " +
                                        address.name());
        }
    }
    entries.push_back(Entry{kind, provider});
    if (std::find(inOrder.begin(), inOrder.end(), provider) == inOrder.end()) {
        inOrder.push_back(std::move(provider));
    }
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

std::shared_ptr<ServiceProvider> ServiceRegistry::resolve(const Address& address, const Message* message) const {
    const Kind wanted = kindOfMessage(message);
    std::shared_lock<std::shared_mutex> lock(mutex);
    auto found = byName.find(address.name());
    if (found == byName.end() || found->second.empty()) {
        return nullptr;
    }
    const std::vector<Entry>& entries = found->second;
    for (Kind kind : {wanted, Kind::Any}) {
        for (const Entry& entry : entries) {
            if (entry.kind == kind) {
                return entry.provider;
            }
        }
    }
    return entries.front().provider;
}

std::vector<std::shared_ptr<ServiceProvider>> ServiceRegistry::doSnapshot() const {
    std::shared_lock<std::shared_mutex> lock(mutex);
    return inOrder;
}

}  // namespace korvane::host
