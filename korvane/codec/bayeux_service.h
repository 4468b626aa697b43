#pragma once

// The abstract protocol service: where every Bayeux request of every transport
// arrives, by the typed dispatch of ServiceProviderAPI. Each handle overload
// returns an already resolved future holding the response.
//
// Threading: the overloads are called from any host thread, concurrently, also
// for the same client; an implementation must not rely on them being serialised.

#include <memory>

#include "korvane/codec/messages.h"
#include "korvane/frame/service.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT BayeuxServiceProvider : public ServiceProviderAPI<BayeuxServiceProvider> {
public:
    BayeuxServiceProvider();
    ~BayeuxServiceProvider() override;

    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<HandshakeRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<ConnectRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<ConnectStreamRequest>&& request,
                                                    Address&& address, std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<DisconnectRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<SubscribeRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<UnsubscribeRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
    virtual Future<std::unique_ptr<Message>> handle(std::unique_ptr<PublishRequest>&& request, Address&& address,
                                                    std::shared_ptr<Context>&& context) = 0;
};

}  // namespace korvane::bayeux
