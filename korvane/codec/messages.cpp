#include "korvane/codec/messages.h"

#include <stdexcept>

#include "korvane/codec/bayeux_service.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/type_name.h"

namespace korvane::bayeux {

namespace {

const std::string handshakeChannel = "/meta/handshake";
const std::string connectChannel = "/meta/connect";
const std::string disconnectChannel = "/meta/disconnect";
const std::string subscribeChannel = "/meta/subscribe";
const std::string unsubscribeChannel = "/meta/unsubscribe";

// Hands the owning pointer, cast to its concrete class, to the matching handle overload.
template <class Request>
Future<std::unique_ptr<Message>> dispatchRequest(std::shared_ptr<BayeuxServiceProvider>& service,
                                                 std::unique_ptr<Message>& self, Address& address,
                                                 std::shared_ptr<Context>& context) {
    std::unique_ptr<Request> request(static_cast<Request*>(self.release()));
    return service->handle(std::move(request), std::move(address), std::move(context));
}

// The protocol service answers requests; a response sent to it is refused.
Future<std::unique_ptr<Message>> refuseResponse(const Message& response) {
    return makeErrorFuture<std::unique_ptr<Message>>(std::make_exception_ptr(std::invalid_argument(
        "A Bayeux response cannot be handled by the protocol service: " +
        common::demangledTypeName(typeid(response)))));
}

}  // namespace

ConnectSink::~ConnectSink() = default;
ConnectSink::Note::~Note() = default;

void ConnectSink::deliverPublish(const std::shared_ptr<const PublishRequest>& message) {
    deliver(std::make_unique<PublishRequest>(message, PublishRequest::withoutSender));
}

void ConnectSink::deliverConnectReply(const std::string& messageId, const std::string& clientId) {
    deliver(makeConnectReply(messageId, clientId));
}

void ConnectSink::deliverPublishAndReply(const std::shared_ptr<const PublishRequest>& message,
                                         const std::string& messageId, const std::string& clientId) {
    deliverPublish(message);
    deliverConnectReply(messageId, clientId);
}

bool ConnectSink::cancelled() const { return false; }

bool ConnectSink::servesLaterConnects() const { return false; }

BayeuxBase::BayeuxBase(std::string channel) : channel(std::move(channel)) {}
BayeuxBase::~BayeuxBase() = default;
BayeuxResponse::~BayeuxResponse() = default;

HandshakeRequest::HandshakeRequest() : BayeuxBase(handshakeChannel) {}
HandshakeResponse::HandshakeResponse() : BayeuxResponse(handshakeChannel) {}
ConnectRequest::ConnectRequest() : BayeuxBase(connectChannel) {}
ConnectResponse::ConnectResponse() : BayeuxResponse(connectChannel) {}
std::unique_ptr<ConnectResponse> makeConnectReply(const std::string& messageId, const std::string& clientId) {
    auto reply = std::make_unique<ConnectResponse>();
    reply->id = messageId;
    reply->clientId = clientId;
    reply->successful = true;
    return reply;
}
ConnectStreamRequest::ConnectStreamRequest() : BayeuxBase(connectChannel) {}
ConnectStreamResponse::ConnectStreamResponse() : BayeuxResponse(connectChannel) {}
DisconnectRequest::DisconnectRequest() : BayeuxBase(disconnectChannel) {}
DisconnectResponse::DisconnectResponse() : BayeuxResponse(disconnectChannel) {}
SubscribeRequest::SubscribeRequest(const std::string& subscription, const std::string& clientId)
    : BayeuxBase(subscribeChannel), subscription(subscription) {
    this->clientId = clientId;
}
SubscribeResponse::SubscribeResponse() : BayeuxResponse(subscribeChannel) {}
UnsubscribeRequest::UnsubscribeRequest(const std::string& subscription, const std::string& clientId)
    : BayeuxBase(unsubscribeChannel), subscription(subscription) {
    this->clientId = clientId;
}
UnsubscribeResponse::UnsubscribeResponse() : BayeuxResponse(unsubscribeChannel) {}
PublishRequest::PublishRequest(const std::string& channel) : BayeuxBase(channel) {}
PublishRequest::PublishRequest(const PublishRequest& other)
    : BayeuxBase(other), BayeuxMessage(other), data(other.data), original(other.original) {}
PublishRequest::PublishRequest(const std::shared_ptr<const PublishRequest>& source, WithoutSender)
    : BayeuxBase(source->channel), BayeuxMessage(*source), data(source->data), original(source) {
    id = source->id;
    context = source->context;
}
PublishResponse::PublishResponse(const std::string& channel) : BayeuxResponse(channel) {}
BayeuxContainer::BayeuxContainer() = default;
BayeuxContainer::~BayeuxContainer() = default;

BayeuxSession::BayeuxSession() = default;
BayeuxSession::~BayeuxSession() = default;
BayeuxServer::BayeuxServer() = default;
BayeuxServer::~BayeuxServer() = default;
BayeuxServiceProvider::BayeuxServiceProvider() = default;
BayeuxServiceProvider::~BayeuxServiceProvider() = default;

#define KORVANE_DISPATCH_REQUEST(Class)                                                                 \
    Future<std::unique_ptr<Message>> Class::dispatchTo(std::shared_ptr<BayeuxServiceProvider>&& service, \
                                                       std::unique_ptr<Message>&& self, Address&& address, \
                                                       std::shared_ptr<Context>&& context) {            \
        return dispatchRequest<Class>(service, self, address, context);                                 \
    }
#define KORVANE_REFUSE_RESPONSE(Class)                                                                  \
    Future<std::unique_ptr<Message>> Class::dispatchTo(std::shared_ptr<BayeuxServiceProvider>&&,         \
                                                       std::unique_ptr<Message>&&, Address&&,           \
                                                       std::shared_ptr<Context>&&) {                    \
        return refuseResponse(*this);                                                                   \
    }

KORVANE_DISPATCH_REQUEST(HandshakeRequest)
KORVANE_DISPATCH_REQUEST(ConnectRequest)
KORVANE_DISPATCH_REQUEST(ConnectStreamRequest)
KORVANE_DISPATCH_REQUEST(DisconnectRequest)
KORVANE_DISPATCH_REQUEST(SubscribeRequest)
KORVANE_DISPATCH_REQUEST(UnsubscribeRequest)
KORVANE_DISPATCH_REQUEST(PublishRequest)
KORVANE_REFUSE_RESPONSE(HandshakeResponse)
KORVANE_REFUSE_RESPONSE(ConnectResponse)
KORVANE_REFUSE_RESPONSE(ConnectStreamResponse)
KORVANE_REFUSE_RESPONSE(DisconnectResponse)
KORVANE_REFUSE_RESPONSE(SubscribeResponse)
KORVANE_REFUSE_RESPONSE(UnsubscribeResponse)
KORVANE_REFUSE_RESPONSE(PublishResponse)

}  // namespace korvane::bayeux
