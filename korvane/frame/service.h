#pragma once

// The service frame: services know one another only by Address. A message sent
// through a Context reaches the provider at the address, whose typed dispatch
// (ServiceProviderAPI<T>::deliver) double-dispatches it to a handle overload.
//
// Threading: services are called from any thread and must not rely on deliver
// being serialised. `running` is read without a lock. ContextState guards its
// property bag with its own mutex.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <unordered_map>

#include <boost/any.hpp>

#include "korvane/frame/future.h"
#include "korvane/frame/message.h"
#include "korvane/frame/type_name.h"
#include "korvane/export.h"

namespace korvane {

// Names where a message is to go. An address with an empty name is unset.
class KORVANE_EXPORT Address {
public:
    Address() = default;
    explicit Address(std::string name)
        : serviceName(name.empty() ? nullptr : std::make_shared<const std::string>(std::move(name))) {}

    const std::string& name() const noexcept { return serviceName ? *serviceName : noName(); }
    explicit operator bool() const noexcept { return serviceName != nullptr; }
    bool operator==(const Address& other) const noexcept { return name() == other.name(); }
    bool operator!=(const Address& other) const noexcept { return name() != other.name(); }

private:
    static const std::string& noName() noexcept {
        static const std::string empty;
        return empty;
    }

    // Shared: an address is copied with every request it carries, its name never changes.
    std::shared_ptr<const std::string> serviceName;
};

namespace common {

// First base of every service. The registry's start sets `running`, its stop clears it.
class KORVANE_EXPORT Lifecycle {
public:
    Lifecycle();
    virtual ~Lifecycle();
    virtual void onStart();
    virtual void onStop();

    void start();
    void stop();
    bool isRunning() const noexcept { return running.load(); }

protected:
    std::atomic<bool> running{false};
};

// String-keyed property bag of one request's context.
class KORVANE_EXPORT ContextState {
public:
    ContextState();
    virtual ~ContextState();

    bool has(const std::string& key) const;
    // The value, or an empty boost::any when the key is absent.
    boost::any get(const std::string& key) const;
    // The string value without copying the boost::any, or empty when the key is absent;
    // throws boost::bad_any_cast when the value is of another type.
    std::string getString(const std::string& key) const;
    // Whether the string value of `key` (empty when the key is absent) is `value`, without
    // copying it; throws boost::bad_any_cast when the value is of another type.
    bool isString(const std::string& key, const std::string& value) const;
    void set(const std::string& key, boost::any value);
    // How many times set() has run: a reader that saw the state once can tell, without
    // the lock, that it has not changed since. Any thread.
    std::uint64_t changeCount() const noexcept { return changes.load(std::memory_order_acquire); }

private:
    mutable std::mutex mutex;
    std::unordered_map<std::string, boost::any> properties;
    std::atomic<std::uint64_t> changes{0};
};

}  // namespace common

// One request's path through the services. Owns no sockets or buffers: sessions
// keep the context of their handshake for their whole life.
class KORVANE_EXPORT Context : public common::ContextState {
public:
    Context();
    ~Context() override;

    // Routes the message to the service at `address`.
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&& message, Address&& address) = 0;

    // Sends `request` and casts the reply to `Response`, failing the future with
    // "Unable to cast response message type: ..." when the reply is of another type.
    template <class Response, class Request>
    Future<std::unique_ptr<Response>> handle(std::unique_ptr<Request>&& request, Address&& address);
};

class KORVANE_EXPORT ServiceProvider : public common::Lifecycle, public std::enable_shared_from_this<ServiceProvider> {
public:
    ServiceProvider();
    ~ServiceProvider() override;

    virtual Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                                     std::shared_ptr<Context>&& context) = 0;
};

// Typed dispatch to a provider of type T, which derives from ServiceProviderAPI<T>.
template <class T>
class KORVANE_EXPORT ServiceProviderAPI : public ServiceProvider {
public:
    Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                             std::shared_ptr<Context>&& context) override {
        if (!running.load()) {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("Service exists but is not running.")));
        }
        const std::type_info* serviceType = message ? message->serviceMessageType() : nullptr;
        if (serviceType == nullptr || *serviceType != typeid(ServiceMessage<T>)) {
            std::string found = "nullptr";
            if (message) {
                const Message& received = *message;
                found = common::mangledTypeName(typeid(received));
            }
            return makeErrorFuture<std::unique_ptr<Message>>(std::make_exception_ptr(
                std::invalid_argument("Incorrect message type. Expected: " +
                                      common::mangledTypeName(typeid(ServiceMessage<T>)) + " but found " + found)));
        }
        auto* typed = static_cast<ServiceMessage<T>*>(message.get());
        std::shared_ptr<T> self = std::static_pointer_cast<T>(shared_from_this());
        return typed->dispatchTo(std::move(self), std::move(message), std::move(address), std::move(context));
    }
};

template <class Response, class Request>
Future<std::unique_ptr<Response>> Context::handle(std::unique_ptr<Request>&& request, Address&& address) {
    Future<std::unique_ptr<Message>> reply = handle(std::unique_ptr<Message>(std::move(request)), std::move(address));
    if constexpr (std::is_same_v<Response, Message>) {
        // Nothing to cast: the reply is the answer, with no continuation in between.
        return reply;
    } else {
        return reply.then([](Future<std::unique_ptr<Message>>&& resolved) -> std::unique_ptr<Response> {
            std::unique_ptr<Message> message = resolved.get();
            if (!message) {
                return nullptr;
            }
            auto* typed = dynamic_cast<Response*>(message.get());
            if (typed == nullptr) {
                const Message& received = *message;
                throw std::runtime_error("Unable to cast response message type: " +
                                         common::demangledTypeName(typeid(received)) + " to " +
                                         common::demangledTypeName(typeid(Response)));
            }
            message.release();
            return std::unique_ptr<Response>(typed);
        });
    }
}

}  // namespace korvane
