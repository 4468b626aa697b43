#include "korvane/host/host_context.h"

#include <exception>
#include <stdexcept>

namespace korvane::host {

HostContext::HostContext(std::weak_ptr<ServiceRegistry> registry) : registry(std::move(registry)) {}

HostContext::~HostContext() = default;

std::shared_ptr<HostContext> HostContext::create(std::weak_ptr<ServiceRegistry> registry) {
    return std::make_shared<HostContext>(std::move(registry));
}

Future<std::unique_ptr<Message>> HostContext::handle(std::unique_ptr<Message>&& message, Address&& address) {
    std::shared_ptr<ServiceRegistry> services = registry.lock();
    std::shared_ptr<ServiceProvider> provider = services ? services->resolve(address, message.get()) : nullptr;
    if (!provider) {
        return makeErrorFuture<std::unique_ptr<Message>>(
            std::make_exception_ptr(std::runtime_error("No service at address: " + address.name())));
    }
    try {
        return provider->deliver(std::move(message), std::move(address), shared_from_this());
    } catch (...) {
        return makeErrorFuture<std::unique_ptr<Message>>(std::current_exception());
    }
}

}  // namespace korvane::host
