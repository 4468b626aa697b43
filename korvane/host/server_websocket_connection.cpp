#include "korvane/host/server_websocket_connection.h"

#include <exception>
#include <limits>
#include <mutex>
#include <vector>
#include <string_view>

#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "korvane/codec/utf8.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/ring_queue.h"
#include "korvane/host/coalescing_stream.h"
#include "korvane/host/host_counters.h"
#include "korvane/host/relay_subscriber.h"
#include "korvane/host/server_state.h"
#include "korvane/host/strand_link.h"

namespace korvane::host {

namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
namespace net = boost::asio;
using common::DataBuffer;
using http::WebSocketFrame;

common::diagnostic_logger logger("korvane::host::http");

// The service's frames are taken as they are made, so that every frame waiting for a
// socket waits here, where the backlog bound counts it.
constexpr unsigned long everyFrame = std::numeric_limits<unsigned long>::max();
constexpr unsigned char textFrame = 129;
constexpr unsigned char binaryFrame = 130;

using FrameSignal = StreamSignal<WebSocketFrame>;

// One accepted WebSocket. The service's frames (`inbound`) come through the relay
// `writer` and are written in order, through a CoalescingStream: frames that are ready
// together (a delivery and the connect reply behind it) leave in one socket write. The
// peer's messages are read whole, one at a time and only within the demand the service
// asked for, and handed to `outbound` on the strand. The first close (by the peer, the
// service, an error or stop()) ends both streams.
//
// Bounds: the frames waiting for the socket (`queuedBytes` here, and what the
// CoalescingStream holds) may not exceed the server's wsBacklogBytes, and a socket write
// may not take longer than its writeTimeout; past either, the connection is cut at once
// (a peer that does not read would never see a close frame), which cancels the service's
// frame stream and with it the client's connect.
//
// Threading: every member function but shutdown() and abandon() runs on the
// connection's strand; signals from the service's threads come through `inbox` and
// `link`. shutdown() posts; abandon() runs on the stopping thread once no I/O thread
// is left. Nothing here takes a lock but the inbox's own.
template <class Stream>
class ServerWebSocketConnection : public ConnectionTracker::Tracked,
                                  public std::enable_shared_from_this<ServerWebSocketConnection<Stream>> {
public:
    using Executor = typename Stream::executor_type;

    ServerWebSocketConnection(Stream&& stream, std::shared_ptr<ServerState> state,
                              std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound,
                              std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound)
        : socket(std::move(stream)),
          strandExecutor(socket.get_executor()),
          state(std::move(state)),
          inbound(std::move(inbound)),
          outbound(std::move(outbound)) {}

    ~ServerWebSocketConnection() override { state->connections.remove(trackerId); }

    const Executor& executor() const { return strandExecutor; }

    void run(UpgradeRequest&& upgrade, std::string setCookie) {
        link = std::make_shared<StrandLink<ServerWebSocketConnection>>(this->shared_from_this());
        socket.next_layer().setOwner(this->weak_from_this());
        socket.next_layer().setWriteTimeout(state->options.writeTimeout);
        trackerId = state->connections.add(this->weak_from_this());
        if (trackerId == 0) {
            doFinish();
            return;
        }
        upgradeRequest = std::move(upgrade);
        const HttpServerOptions& options = state->options;
        // The WebSocket keeps its own time: handshakes, idle pings and their answers.
        beast::get_lowest_layer(socket).expires_never();
        websocket::stream_base::timeout timeouts{};
        timeouts.handshake_timeout = options.headerTimeout;
        timeouts.idle_timeout = options.wsIdle;
        timeouts.keep_alive_pings = true;
        socket.set_option(timeouts);
        socket.read_message_max(options.maxWsMessageBytes);
        websocket::permessage_deflate deflate;
        deflate.server_enable = options.wsDeflate;
        socket.set_option(deflate);
        socket.set_option(websocket::stream_base::decorator([cookie = std::move(setCookie)](websocket::response_type& response) {
            response.set(beast::http::field::server, "korvane");
            if (!cookie.empty()) {
                response.insert(beast::http::field::set_cookie, cookie);
            }
        }));
        socket.async_accept(upgradeRequest, [self = this->shared_from_this()](beast::error_code error) {
            self->onAccepted(error);
        });
    }

    void shutdown() override {
        net::post(strandExecutor,
                  [self = this->shared_from_this()] { self->doCloseSocket(websocket::close_code::going_away); });
    }

    void abandon() override { doFinish(); }

private:
    // The service's frames on their way from its threads to the strand. One post
    // carries every frame that arrived before the strand took them, typically a
    // delivery and the connect reply behind it. `mutex` guards `signals`; it is a
    // leaf lock, taken under the relay's.
    class SignalInbox {
    public:
        // True when the inbox was empty: the caller posts the strand's turn to take it.
        bool put(FrameSignal&& signal) {
            std::lock_guard<std::mutex> guard(mutex);
            signals.push_back(std::move(signal));
            return signals.size() == 1;
        }
        // Hands every waiting signal over in arrival order; `into` must be empty and
        // leaves its storage here for the next ones.
        void takeAll(std::vector<FrameSignal>& into) {
            std::lock_guard<std::mutex> guard(mutex);
            into.swap(signals);
        }

    private:
        std::mutex mutex;
        std::vector<FrameSignal> signals;
    };

    // The service's side of the peer's messages: demand and cancel come on any thread.
    class ReadSubscription : public reactive_streams::Subscription {
    public:
        explicit ReadSubscription(std::shared_ptr<StrandLink<ServerWebSocketConnection>> link)
            : link(std::move(link)) {}

        void request(unsigned long n) override {
            link->post([n](ServerWebSocketConnection& connection) { connection.onReadDemand(n); });
        }
        void cancel() override {
            link->post([](ServerWebSocketConnection& connection) {
                connection.doCloseSocket(websocket::close_code::normal);
            });
        }

    private:
        std::shared_ptr<StrandLink<ServerWebSocketConnection>> link;
    };

    void onAccepted(beast::error_code error) {
        upgradeRequest = UpgradeRequest();
        if (error || finished) {
            doFinish();
            return;
        }
        countResponse(101);
        writer = std::make_shared<RelaySubscriber<WebSocketFrame>>(
            [link = link, inbox = inbox](FrameSignal&& signal) {
                if (inbox->put(std::move(signal))) {
                    link->post([](ServerWebSocketConnection& connection) { connection.onInboxReady(); });
                }
            },
            false);
        readSubscription = std::make_shared<ReadSubscription>(link);
        try {
            inbound->subscribe(writer);
            writer->request(everyFrame);
            outbound->onSubscribe(readSubscription);
        } catch (const std::exception& failure) {
            KORVANE_LOG(logger, common::logFailure) << "WebSocket streams failed to start: " << failure.what();
            doCloseSocket(websocket::close_code::internal_error);
        }
    }

    // ---- from the peer ---------------------------------------------------------------

    void onReadDemand(unsigned long n) {
        constexpr unsigned long unlimited = std::numeric_limits<unsigned long>::max();
        readDemand = readDemand > unlimited - n ? unlimited : readDemand + n;
        doRead();
    }

    void doRead() {
        if (reading || finished || closeRequested || readDemand == 0) {
            return;
        }
        reading = true;
        socket.async_read(readBuffer, [self = this->shared_from_this()](beast::error_code error, std::size_t) {
            self->onRead(error);
        });
    }

    void onRead(beast::error_code error) {
        reading = false;
        if (finished) {
            return;
        }
        if (error) {
            // The peer closed (Beast has answered its close frame), broke off, went
            // quiet past the idle time, or sent a message over the limit (closed 1009).
            if (error == websocket::error::message_too_big) {
                count(HostCounter::refusedForMessageSize);
            }
            doFinish();
            return;
        }
        const auto data = readBuffer.data();
        DataBuffer message(std::string_view(static_cast<const char*>(data.data()), data.size()));
        readBuffer.consume(data.size());
        count(HostCounter::webSocketFramesIn);
        count(HostCounter::webSocketBytesIn, message.size);
        if (readDemand != std::numeric_limits<unsigned long>::max()) {
            --readDemand;
        }
        try {
            outbound->onNext(WebSocketFrame(std::move(message), socket.got_text() ? textFrame : binaryFrame));
        } catch (const std::exception& failure) {
            KORVANE_LOG(logger, common::logFailure) << "WebSocket message not taken: " << failure.what();
            doCloseSocket(websocket::close_code::internal_error);
            return;
        }
        doRead();
    }

    // ---- to the peer -------------------------------------------------------------------

    void onInboxReady() {
        inbox->takeAll(arrived);
        for (FrameSignal& signal : arrived) {
            onWriterSignal(std::move(signal));
        }
        arrived.clear();
    }

    void onWriterSignal(FrameSignal&& signal) {
        if (finished || closeRequested) {
            return;
        }
        if (signal.item) {
            queuedBytes += signal.item->data.size;
            writeQueue.push_back(std::move(*signal.item));
            if (backlogBytes() > state->options.wsBacklogBytes) {
                KORVANE_LOG(logger, common::logWarning) << "WebSocket cut: " << backlogBytes()
                                         << " bytes waiting for a peer that does not read, over the limit of "
                                         << state->options.wsBacklogBytes;
                count(HostCounter::webSocketCutForBacklog);
                doFinish();
                return;
            }
            doWrite();
        } else {
            doCloseSocket(closeCodeFor(signal.error));
        }
    }

    std::size_t backlogBytes() const { return queuedBytes + socket.next_layer().bufferedBytes(); }

    // A frame that was not UTF-8 has its own close code; any other failure is the server's.
    static websocket::close_code closeCodeFor(const std::exception_ptr& error) {
        if (!error) {
            return websocket::close_code::normal;
        }
        try {
            std::rethrow_exception(error);
        } catch (const bayeux::InvalidUtf8Error&) {
            return websocket::close_code::bad_payload;
        } catch (...) {
            return websocket::close_code::internal_error;
        }
    }

    void doWrite() {
        if (writing || closing || finished) {
            return;
        }
        if (writeQueue.empty()) {
            if (closeRequested) {
                doStartClose();
            }
            return;
        }
        writing = true;
        const WebSocketFrame& frame = writeQueue.front();
        socket.text((frame.firstByte & 0x0f) != (binaryFrame & 0x0f));
        socket.async_write(net::const_buffer(frame.data.data, frame.data.size),
                            [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                                self->onWritten(error);
                            });
    }

    void onWritten(beast::error_code error) {
        writing = false;
        if (!error) {
            count(HostCounter::webSocketFramesOut);
            count(HostCounter::webSocketBytesOut, writeQueue.front().data.size);
        }
        queuedBytes -= writeQueue.front().data.size;
        writeQueue.pop_front();
        if (error || finished) {
            doFinish();
            return;
        }
        doWrite();
    }

    // ---- ending ----------------------------------------------------------------------

    // Takes no more frames from the service, writes those already queued, then sends
    // the close frame.
    void doCloseSocket(websocket::close_code code) {
        if (closeRequested || finished) {
            return;
        }
        closeRequested = true;
        closeCode = code;
        if (writer) {
            writer->detach();
        }
        if (!accepted()) {
            doFinish();
            return;
        }
        doWrite();
    }

    bool accepted() const { return writer != nullptr; }

    void doStartClose() {
        closing = true;
        socket.async_close(closeCode, [self = this->shared_from_this()](beast::error_code) { self->doFinish(); });
    }

    // Ends both streams and releases the service's ends: the subscription on
    // `inbound` is cancelled (unless it ended), `outbound` completes.
    void doFinish() {
        if (finished) {
            return;
        }
        finished = true;
        // The stalled write may have been the layer's own, with nothing of ours under way:
        // the cut is told here, wherever its failure was seen.
        if (socket.next_layer().timedOut()) {
            count(HostCounter::webSocketCutForWriteTimeout);
            KORVANE_LOG(logger, common::logWarning) << "WebSocket cut: a write took longer than "
                                     << state->options.writeTimeout.count() << " ms";
        }
        if (writer) {
            writer->detach();
        }
        // A frame whose write is under way stays until the write completes: the socket
        // still reads its bytes, and onWritten pops it.
        const std::size_t kept = writing ? 1 : 0;
        while (writeQueue.size() > kept) {
            queuedBytes -= writeQueue.back().data.size;
            writeQueue.pop_back();
        }
        link->cut();
        std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> reader = std::move(outbound);
        inbound.reset();
        if (reader) {
            reader->onComplete();
        }
        beast::get_lowest_layer(socket).close();
    }

    websocket::stream<CoalescingStream<Stream>> socket;
    const Executor strandExecutor;
    const std::shared_ptr<ServerState> state;
    std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound;
    std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound;
    std::shared_ptr<StrandLink<ServerWebSocketConnection>> link;
    std::uint64_t trackerId = 0;
    UpgradeRequest upgradeRequest;

    std::shared_ptr<RelaySubscriber<WebSocketFrame>> writer;
    const std::shared_ptr<SignalInbox> inbox = std::make_shared<SignalInbox>();
    std::vector<FrameSignal> arrived;
    std::shared_ptr<ReadSubscription> readSubscription;
    beast::flat_buffer readBuffer;
    unsigned long readDemand = 0;
    common::RingQueue<WebSocketFrame> writeQueue;
    std::size_t queuedBytes = 0;
    websocket::close_code closeCode = websocket::close_code::normal;
    bool reading = false;
    bool writing = false;
    bool closeRequested = false;
    bool closing = false;
    bool finished = false;
};

}  // namespace

template <class Stream>
void serveWebSocket(Stream&& stream, UpgradeRequest&& upgrade,
                    std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound,
                    std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound,
                    std::shared_ptr<ServerState> state, std::string setCookie) {
    auto connection = std::make_shared<ServerWebSocketConnection<Stream>>(std::move(stream), std::move(state),
                                                                          std::move(inbound), std::move(outbound));
    connection->run(std::move(upgrade), std::move(setCookie));
}

template void serveWebSocket<PlainStream>(PlainStream&&, UpgradeRequest&&,
                                          std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>>,
                                          std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>>,
                                          std::shared_ptr<ServerState>, std::string);
template void serveWebSocket<TlsStream>(TlsStream&&, UpgradeRequest&&,
                                        std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>>,
                                        std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>>,
                                        std::shared_ptr<ServerState>, std::string);

}  // namespace korvane::host
