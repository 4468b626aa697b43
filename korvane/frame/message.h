#pragma once

// The polymorphic root of everything that travels between services, always owned
// through std::unique_ptr<Message>. A ServiceMessage<T> belongs to service type T:
// its dispatchTo downcasts the owning pointer to the concrete class and calls the
// matching T::handle overload (double dispatch, see ServiceProviderAPI).
//
// Threading: a message is a plain value with no lock; it belongs to whichever
// thread holds its owning pointer.

#include <memory>
#include <typeinfo>

#include "korvane/frame/future.h"
#include "korvane/export.h"

namespace korvane {

class Address;
class Context;

class KORVANE_EXPORT Message {
public:
    Message();
    Message(const Message&) = default;
    Message& operator=(const Message&) = default;
    virtual ~Message();
    // The type of the ServiceMessage base this message has, or null: a provider tells its
    // own messages by it without a cast that walks the class graph.
    virtual const std::type_info* serviceMessageType() const noexcept;
};

// `message` as a `Wanted`, or null when it is none (or null). The class itself is told
// by its type, which costs next to nothing when it matches; a class derived from it is
// found by the cast, which walks the class graph. For where `Wanted` is the usual answer.
template <class Wanted>
Wanted* messageAs(Message* message) {
    if (message != nullptr && typeid(*message) == typeid(Wanted)) {
        return static_cast<Wanted*>(message);
    }
    return dynamic_cast<Wanted*>(message);
}

template <class T>
class KORVANE_EXPORT ServiceMessage : public Message {
public:
    const std::type_info* serviceMessageType() const noexcept final { return &typeid(ServiceMessage); }

    // `self` owns this very message; the implementation moves it into T::handle.
    virtual Future<std::unique_ptr<Message>> dispatchTo(std::shared_ptr<T>&& service, std::unique_ptr<Message>&& self,
                                                        Address&& address, std::shared_ptr<Context>&& context) = 0;
};

}  // namespace korvane
