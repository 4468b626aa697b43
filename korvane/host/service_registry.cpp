#include "korvane/host/service_registry.h"

#include <algorithm>
#include <array>
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
    if (message == nullptr) {
        return Kind::Any;
    }
    // Every message of a connect cycle asks, and a failed cross-cast walks the whole
    // hierarchy: each thread remembers the kinds of the few classes it last saw.
    struct Seen {
        const std::type_info* type = nullptr;
        Kind kind = Kind::Any;
    };
    thread_local std::array<Seen, 4> seen;
    thread_local std::size_t nextSlot = 0;
    const std::type_info& type = typeid(*message);
    for (const Seen& entry : seen) {
        if (entry.type == &type) {
            return entry.kind;
        }
    }
    Kind kind = Kind::Any;
    if (dynamic_cast<const ServiceMessage<http::HttpServiceProvider>*>(message) != nullptr) {
        kind = Kind::Http;
    } else if (dynamic_cast<const bayeux::BayeuxMessage*>(message) != nullptr) {
        kind = Kind::Bayeux;
    }
    seen[nextSlot] = Seen{&type, kind};
    nextSlot = (nextSlot + 1) % seen.size();
    return kind;
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
