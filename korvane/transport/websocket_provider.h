#pragma once

// Bayeux over a WebSocket. The provider answers an upgrade at once with an
// http::WebSocket built on the two ends of a WebSocketConnection: the connection
// reads each inbound text frame as Bayeux, sends the messages through the request's
// context to the protocol service, and writes each reply as its own frame holding a
// one-element array. The connection is the sink of its session's held connects: the
// session hands it each message, and each connect's reply, to write as it comes. A
// connect answered as a short poll comes as a stream instead, which the connection
// follows to its end.
//
// Threading: `mutex` guards the connection's fields and is held only around field
// access, never across a call into the service, a future or a stream. The host
// delivers frames one at a time; each blocks its thread in Future::get until the
// reply is sent (the protocol service answers inline), so replies go out in request
// order. A connect's messages come on the queue's thread and may interleave with
// replies; the frame publisher keeps delivery single-file. done() may run on a
// frame thread or on the host's cancelling thread, and is safe to run twice.
//
// Ownership: the frame subscriber handed to the host holds the connection strongly
// and is what keeps it alive; the frame publisher and the connect's subscriber
// reach it weakly.

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "korvane/codec/connect_template.h"
#include "korvane/codec/messages.h"
#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/http.h"
#include "korvane/frame/service.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT WebSocketConnection : public ConnectSink, public std::enable_shared_from_this<WebSocketConnection> {
public:
    using FramePublisher = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;
    using MessageSubscriber = reactive_streams::CallbackSubscriber<std::unique_ptr<Message>>;

    // `address` is the protocol service's.
    WebSocketConnection(std::shared_ptr<Context> context, Address address);
    ~WebSocketConnection() override;
    WebSocketConnection(const WebSocketConnection&) = delete;
    WebSocketConnection& operator=(const WebSocketConnection&) = delete;

    // The frames towards the peer. Its end (the host cancelling) ends the connection.
    std::shared_ptr<reactive_streams::PublisherAPI<http::WebSocketFrame>> getSocketPublisher();
    // Takes the frames from the peer; holds this connection alive.
    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> getSocketSubscriber();

    // Handles one inbound frame; a frame that cannot be handled fails the socket.
    void handleFrame(http::WebSocketFrame&& frame);
    // Writes one message as a frame holding a one-element array; dropped once done.
    void sendMessage(std::unique_ptr<Message>&& message);
    // A held connect's message: written like any other.
    void deliver(std::unique_ptr<Message>&& message) override;
    // A held connect's publish, framed from the text that all its receivers share.
    void deliverPublish(const std::shared_ptr<const PublishRequest>& message) override;
    // A held connect's reply, written without a message made for it.
    void deliverConnectReply(const std::string& messageId, const std::string& replyClientId) override;
    // Both, with one look-up of the frame publisher.
    void deliverPublishAndReply(const std::shared_ptr<const PublishRequest>& message, const std::string& messageId,
                                const std::string& replyClientId) override;
    // Every connect of the socket comes through this one connection.
    bool servesLaterConnects() const override { return true; }
    // Ends the connection: cancels the connect's stream and, if `failed`, fails the
    // socket with the exception being handled.
    void done(bool failed);

private:
    // A connect, alone or inside a batch, is held; a batch is taken message by message;
    // any other message is sent to the service, its reply waited for and written.
    void doHandleOne(std::unique_ptr<Message>&& message);
    void doHandleConnect(std::unique_ptr<Message>&& connect);
    std::unique_ptr<Message> doAskService(std::unique_ptr<Message>&& message);
    // The publisher of the frames, null once done; a reply's client id, if given and not
    // empty, becomes the connection's while the connection lasts. `reader`, if given, is set
    // to the publisher's reader as far as the connection knows it.
    std::shared_ptr<FramePublisher> framePublisherLearning(const std::string* replyClientId,
                                                           FramePublisher::Reader* reader = nullptr);
    // Writes a publish's frame: the bytes all its receivers share when the host collects the
    // frames (`reader` as framePublisherLearning told, or else asked of the publisher), a copy
    // of them otherwise.
    void sendPublish(const std::shared_ptr<FramePublisher>& publisher, FramePublisher::Reader reader,
                     const std::shared_ptr<const PublishRequest>& message);
    // A frame's text: its array opened, with room for `room` bytes.
    static common::DataBuffer frameStart(std::size_t room);
    // The texts of a publish's frame and of a connect reply's, their arrays still open.
    static common::DataBuffer publishFrame(const PublishRequest& message);
    static common::DataBuffer connectReplyFrame(const std::string& messageId, const std::string& replyClientId);
    // Closes the frame's array and writes it.
    static void sendFrame(FramePublisher& publisher, common::DataBuffer&& text);
    // Bayeux fields with no clientId get the one the connection learned from a reply.
    void fillClientId(BayeuxBase* bayeux);

    // What every frame written reads comes first, beside the mutex.
    std::mutex mutex;
    std::shared_ptr<FramePublisher> framePublisher;
    // Who reads `framePublisher`, once known (it never changes then).
    FramePublisher::Reader frameReader = FramePublisher::Reader::none;
    std::string clientId;
    Address address;
    std::shared_ptr<Context> context;
    std::shared_ptr<reactive_streams::PublisherAPI<std::unique_ptr<Message>>> connectStream;
    std::shared_ptr<MessageSubscriber> messageSubscriber;
    // Touched only by handleFrame, which takes one frame at a time.
    ConnectTemplate connectTemplate;
};

// Stateless; deliver may run on any thread for any number of upgrades at once.
class KORVANE_EXPORT BayeuxWebSocketServiceProvider : public ServiceProvider {
public:
    BayeuxWebSocketServiceProvider();
    ~BayeuxWebSocketServiceProvider() override;

    // Answers an upgrade request with an http::WebSocket, anything else with 500
    // "Bayeux protocol error.". `address` is the protocol service's.
    Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&& address,
                                             std::shared_ptr<Context>&& context) override;
};

}  // namespace korvane::bayeux
