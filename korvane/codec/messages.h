#pragma once

// The Bayeux vocabulary: every message as a class, the advice records and the
// batch container. Plain values: a message is owned by one thread at a time while
// it travels as std::unique_ptr; a fanned-out PublishRequest is shared as
// std::shared_ptr<const PublishRequest> and never changed after that.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/message.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// Exported at its first sight, as ServiceMessage<BayeuxServiceProvider> is instantiated below.
class KORVANE_EXPORT BayeuxServiceProvider;

using BayeuxMessage = ServiceMessage<BayeuxServiceProvider>;
class PublishRequest;
using MessageStream = reactive_streams::PublisherAPI<std::unique_ptr<Message>>;

// A transport's end of a client's held connects, for a transport that writes each message
// as it comes and so needs no stream per connect: kept from one connect to the next
// (WebSocket), or made for one connect (the body of a long poll's response). The session
// calls the deliver functions with none of its locks held, one call at a time, in
// order: each connect's messages, then its ConnectResponse. A sink that is gone, or that
// says it is cancelled (its client went away), takes no more: the session keeps the
// messages for the next connect.
class KORVANE_EXPORT ConnectSink {
public:
    virtual ~ConnectSink();
    virtual void deliver(std::unique_ptr<Message>&& message) = 0;
    // A publish as its receiver gets it: what deliver would take as the receiver's copy,
    // PublishRequest(message, withoutSender). `message` is shared with the other receivers
    // and never changed. The default makes that copy; a sink that writes the publish's
    // delivered text needs none.
    virtual void deliverPublish(const std::shared_ptr<const PublishRequest>& message);
    // The connect's successful reply, its last message: what deliver would take as a
    // ConnectResponse with only these two ids set. The default makes that response.
    virtual void deliverConnectReply(const std::string& messageId, const std::string& clientId);
    // A connect's last publish and its reply behind it, in one call: deliverPublish, then
    // deliverConnectReply, by default; a sink may write both with one look-up of its own.
    virtual void deliverPublishAndReply(const std::shared_ptr<const PublishRequest>& message,
                                        const std::string& messageId, const std::string& clientId);
    // May be called from any thread, with the session's lock held: it answers at once and
    // calls nothing of the session's.
    virtual bool cancelled() const;

    // Whether the sink takes the connects that follow this one (a WebSocket's does), so that
    // the service keeps a note on it; a sink made for one connect says no, the default.
    virtual bool servesLaterConnects() const;

    // What the protocol service found for the last connect through this sink, kept here so
    // that the client's next connect through it needs no look-up. Only the service reads or
    // writes it, under its own lock; the sink only owns it.
    class KORVANE_EXPORT Note {
    public:
        virtual ~Note();
    };
    std::unique_ptr<Note> serviceNote;
};

// The four fields that all Bayeux messages share. Empty strings mean absent.
class KORVANE_EXPORT BayeuxBase {
public:
    explicit BayeuxBase(std::string channel = std::string());
    BayeuxBase(const BayeuxBase&) = default;
    BayeuxBase& operator=(const BayeuxBase&) = default;
    virtual ~BayeuxBase();

    std::string channel;
    std::string id;
    std::string clientId;
    // The context of the session that sent the message; null on a message fresh from the wire.
    std::shared_ptr<Context> context;
};

// The fields every response carries behind its bases.
class KORVANE_EXPORT BayeuxResponse : public BayeuxBase {
public:
    using BayeuxBase::BayeuxBase;
    ~BayeuxResponse() override;

    std::string error;
    bool successful = false;
};

class KORVANE_EXPORT Advice {
public:
    enum Reconnect : std::int32_t { Retry = 0, Handshake = 1, None = 2 };

    Reconnect reconnect = None;
    std::int64_t timeout = -1;   // milliseconds; negative is unset and not written
    std::int64_t interval = -1;  // milliseconds; negative is unset and not written
    bool multipleClients = false;
    std::vector<std::string> hosts;
};

class KORVANE_EXPORT BayeuxAdvice : public Advice {
public:
    // Advice per connection type, keyed by the connection-type name.
    std::unordered_map<std::string, Advice> transportAdvice;
};

// Declares the dispatch of one concrete message class to BayeuxServiceProvider.
#define KORVANE_BAYEUX_DISPATCH                                                                       \
    Future<std::unique_ptr<Message>> dispatchTo(std::shared_ptr<BayeuxServiceProvider>&& service,     \
                                                std::unique_ptr<Message>&& self, Address&& address,   \
                                                std::shared_ptr<Context>&& context) override

class KORVANE_EXPORT HandshakeRequest : public BayeuxBase, public BayeuxMessage {
public:
    HandshakeRequest();
    KORVANE_BAYEUX_DISPATCH;

    std::string version;
    std::string minimumVersion;
    std::vector<std::string> supportedConnectionTypes;
    // The ext member's value as raw JSON text, never parsed; empty when absent. Only a
    // host's policy reads it, and no reply carries it back.
    std::string ext;
};

class KORVANE_EXPORT HandshakeResponse : public BayeuxResponse, public BayeuxMessage {
public:
    HandshakeResponse();
    KORVANE_BAYEUX_DISPATCH;

    std::string version;
    std::string minimumVersion;
    std::vector<std::string> supportedConnectionTypes;
    std::shared_ptr<BayeuxAdvice> advice;
};

// Kept so that a /meta/connect can be serialised; the reader never produces it.
class KORVANE_EXPORT ConnectRequest : public BayeuxBase, public BayeuxMessage {
public:
    ConnectRequest();
    KORVANE_BAYEUX_DISPATCH;

    std::string connectionType;
    std::shared_ptr<BayeuxAdvice> advice;
};

class KORVANE_EXPORT ConnectResponse : public BayeuxResponse, public BayeuxMessage {
public:
    ConnectResponse();
    KORVANE_BAYEUX_DISPATCH;

    std::shared_ptr<BayeuxAdvice> advice;
};

// A connect's successful reply with only these two ids set.
KORVANE_EXPORT std::unique_ptr<ConnectResponse> makeConnectReply(const std::string& messageId,
                                                                 const std::string& clientId);

// The real /meta/connect request. The two flags never reach the wire: the
// transport sets them to say how the session is to answer.
class KORVANE_EXPORT ConnectStreamRequest : public BayeuxBase, public BayeuxMessage {
public:
    ConnectStreamRequest();
    KORVANE_BAYEUX_DISPATCH;

    std::string connectionType;
    std::shared_ptr<BayeuxAdvice> advice;
    bool bufferResponses = false;
    bool holdResponses = false;
    // When set, a held connect's messages go to this sink and the response carries no stream.
    std::weak_ptr<ConnectSink> sink;
};

class KORVANE_EXPORT ConnectStreamResponse : public BayeuxResponse, public BayeuxMessage {
public:
    ConnectStreamResponse();
    KORVANE_BAYEUX_DISPATCH;

    std::shared_ptr<BayeuxAdvice> advice;
    // The live end of the connect: its messages, closed by a ConnectResponse. Null when failed,
    // and when the request's sink takes the messages instead.
    std::shared_ptr<MessageStream> stream;
};

class KORVANE_EXPORT DisconnectRequest : public BayeuxBase, public BayeuxMessage {
public:
    DisconnectRequest();
    KORVANE_BAYEUX_DISPATCH;
};

class KORVANE_EXPORT DisconnectResponse : public BayeuxResponse, public BayeuxMessage {
public:
    DisconnectResponse();
    KORVANE_BAYEUX_DISPATCH;
};

class KORVANE_EXPORT SubscribeRequest : public BayeuxBase, public BayeuxMessage {
public:
    SubscribeRequest(const std::string& subscription, const std::string& clientId);
    KORVANE_BAYEUX_DISPATCH;

    std::string subscription;
};

class KORVANE_EXPORT SubscribeResponse : public BayeuxResponse, public BayeuxMessage {
public:
    SubscribeResponse();
    KORVANE_BAYEUX_DISPATCH;

    std::string subscription;
    std::shared_ptr<BayeuxAdvice> advice;
};

class KORVANE_EXPORT UnsubscribeRequest : public BayeuxBase, public BayeuxMessage {
public:
    UnsubscribeRequest(const std::string& subscription, const std::string& clientId);
    KORVANE_BAYEUX_DISPATCH;

    std::string subscription;
};

class KORVANE_EXPORT UnsubscribeResponse : public BayeuxResponse, public BayeuxMessage {
public:
    UnsubscribeResponse();
    KORVANE_BAYEUX_DISPATCH;

    std::string subscription;
    std::shared_ptr<BayeuxAdvice> advice;
};

class KORVANE_EXPORT PublishRequest : public BayeuxBase, public BayeuxMessage {
public:
    // Selects the copy that a receiver gets: everything but the sender's clientId.
    struct WithoutSender {};
    static constexpr WithoutSender withoutSender{};

    explicit PublishRequest(const std::string& channel);
    // Shares `data` with the original: the bytes are never changed once published.
    PublishRequest(const PublishRequest& other);
    // A receiver's copy of `source`; it keeps `source` as its original, whose delivered
    // text all such copies share.
    PublishRequest(const std::shared_ptr<const PublishRequest>& source, WithoutSender);
    PublishRequest& operator=(const PublishRequest&) = delete;
    KORVANE_BAYEUX_DISPATCH;

    // The message's data value as raw JSON text, never parsed.
    std::shared_ptr<common::DataBuffer> data;
    // Set on a receiver's copy: the published message it was made from.
    std::shared_ptr<const PublishRequest> original;

    // The text every receiver gets (clientId written as null), built by the first
    // transport that writes a copy and kept for the others. Thread-safe.
    const common::DataBuffer& deliveredText() const;
    // That text alone in a JSON array, a whole WebSocket message: built once, as the text is,
    // and shared by the frames of every receiver that takes it as it is, which hold only it and
    // not the message. Thread-safe.
    const std::shared_ptr<const common::DataBuffer>& deliveredFrame() const;

private:
    // Each text is written once, under its once_flag; its flag, set behind it, spares the
    // receivers that come later the once_flag's own cost.
    mutable std::once_flag deliveredOnce;
    mutable std::atomic<bool> deliveredReady{false};
    mutable common::DataBuffer delivered;
    mutable std::once_flag framedOnce;
    mutable std::atomic<bool> framedReady{false};
    mutable std::shared_ptr<const common::DataBuffer> framed;
};

class KORVANE_EXPORT PublishResponse : public BayeuxResponse, public BayeuxMessage {
public:
    explicit PublishResponse(const std::string& channel);
    KORVANE_BAYEUX_DISPATCH;
};

#undef KORVANE_BAYEUX_DISPATCH

// The messages of one JSON array of two or more objects.
class KORVANE_EXPORT BayeuxContainer : public Message {
public:
    BayeuxContainer();
    ~BayeuxContainer() override;

    std::vector<std::unique_ptr<Message>> messages;
};

}  // namespace korvane::bayeux
