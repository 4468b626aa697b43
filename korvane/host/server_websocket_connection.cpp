#include "korvane/host/server_websocket_connection.h"

#include <exception>
#include <limits>
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
// `writer_` and are written in order, through a CoalescingStream: frames that are ready
// together (a delivery and the connect reply behind it) leave in one socket write. The
// peer's messages are read whole, one at a time and only within the demand the service
// asked for, and handed to `outbound` on the strand. The first close (by the peer, the
// service, an error or stop()) ends both streams.
//
// Bounds: the frames waiting for the socket (`queuedBytes_` here, and what the
// CoalescingStream holds) may not exceed the server's wsBacklogBytes, and a socket write
// may not take longer than its writeTimeout; past either, the connection is cut at once
// (a peer that does not read would never see a close frame), which cancels the service's
// frame stream and with it the client's connect.
//
// Threading: every member function but shutdown() and abandon() runs on the
// connection's strand; signals from the service's threads come through `link_`.
// shutdown() posts; abandon() runs on the stopping thread once no I/O thread is
// left. Nothing here takes a lock.
template <class Stream>
class ServerWebSocketConnection : public ConnectionTracker::Tracked,
                                  public std::enable_shared_from_this<ServerWebSocketConnection<Stream>> {
public:
    using Executor = typename Stream::executor_type;

    ServerWebSocketConnection(Stream&& stream, std::shared_ptr<ServerState> state,
                              std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound,
                              std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound)
        : socket_(std::move(stream)),
          executor_(socket_.get_executor()),
          state_(std::move(state)),
          inbound_(std::move(inbound)),
          outbound_(std::move(outbound)) {}

    ~ServerWebSocketConnection() override { state_->connections.remove(trackerId_); }

    const Executor& executor() const { return executor_; }

    void run(UpgradeRequest&& upgrade, std::string setCookie) {
        link_ = std::make_shared<StrandLink<ServerWebSocketConnection>>(this->shared_from_this());
        socket_.next_layer().setOwner(this->weak_from_this());
        socket_.next_layer().setWriteTimeout(state_->options.writeTimeout);
        trackerId_ = state_->connections.add(this->weak_from_this());
        if (trackerId_ == 0) {
            doFinish();
            return;
        }
        upgrade_ = std::move(upgrade);
        const HttpServerOptions& options = state_->options;
        // The WebSocket keeps its own time: handshakes, idle pings and their answers.
        beast::get_lowest_layer(socket_).expires_never();
        websocket::stream_base::timeout timeouts{};
        timeouts.handshake_timeout = options.headerTimeout;
        timeouts.idle_timeout = options.wsIdle;
        timeouts.keep_alive_pings = true;
        socket_.set_option(timeouts);
        socket_.read_message_max(options.maxWsMessageBytes);
        websocket::permessage_deflate deflate;
        deflate.server_enable = options.wsDeflate;
        socket_.set_option(deflate);
        socket_.set_option(websocket::stream_base::decorator([cookie = std::move(setCookie)](websocket::response_type& response) {
            response.set(beast::http::field::server, "korvane");
            if (!cookie.empty()) {
                response.insert(beast::http::field::set_cookie, cookie);
            }
        }));
        socket_.async_accept(upgrade_, [self = this->shared_from_this()](beast::error_code error) {
            self->onAccepted(error);
        });
    }

    void shutdown() override {
        net::post(executor_, [self = this->shared_from_this()] { self->doCloseSocket(websocket::close_code::going_away); });
    }

    void abandon() override { doFinish(); }

private:
    // The service's side of the peer's messages: demand and cancel come on any thread.
    class ReadSubscription : public reactive_streams::Subscription {
    public:
        explicit ReadSubscription(std::shared_ptr<StrandLink<ServerWebSocketConnection>> link)
            : link_(std::move(link)) {}

        void request(unsigned long n) override {
            link_->post([n](ServerWebSocketConnection& connection) { connection.onReadDemand(n); });
        }
        void cancel() override {
            link_->post([](ServerWebSocketConnection& connection) {
                connection.doCloseSocket(websocket::close_code::normal);
            });
        }

    private:
        std::shared_ptr<StrandLink<ServerWebSocketConnection>> link_;
    };

    void onAccepted(beast::error_code error) {
        upgrade_ = UpgradeRequest();
        if (error || finished_) {
            doFinish();
            return;
        }
        writer_ = std::make_shared<RelaySubscriber<WebSocketFrame>>(
            [link = link_](FrameSignal&& signal) {
                auto shared = std::make_shared<FrameSignal>(std::move(signal));
                link->post([shared](ServerWebSocketConnection& connection) {
                    connection.onWriterSignal(std::move(*shared));
                });
            },
            false);
        readSubscription_ = std::make_shared<ReadSubscription>(link_);
        try {
            inbound_->subscribe(writer_);
            writer_->request(everyFrame);
            outbound_->onSubscribe(readSubscription_);
        } catch (const std::exception& failure) {
            KORVANE_LOG(logger, common::logFailure) << "WebSocket streams failed to start: " << failure.what();
            doCloseSocket(websocket::close_code::internal_error);
        }
    }

    // ---- from the peer ---------------------------------------------------------------

    void onReadDemand(unsigned long n) {
        constexpr unsigned long unlimited = std::numeric_limits<unsigned long>::max();
        readDemand_ = readDemand_ > unlimited - n ? unlimited : readDemand_ + n;
        doRead();
    }

    void doRead() {
        if (reading_ || finished_ || closeRequested_ || readDemand_ == 0) {
            return;
        }
        reading_ = true;
        socket_.async_read(readBuffer_, [self = this->shared_from_this()](beast::error_code error, std::size_t) {
            self->onRead(error);
        });
    }

    void onRead(beast::error_code error) {
        reading_ = false;
        if (finished_) {
            return;
        }
        if (error) {
            // The peer closed (Beast has answered its close frame), broke off, went
            // quiet past the idle time, or sent a message over the limit (closed 1009).
            doFinish();
            return;
        }
        const auto data = readBuffer_.data();
        DataBuffer message(std::string_view(static_cast<const char*>(data.data()), data.size()));
        readBuffer_.consume(data.size());
        if (readDemand_ != std::numeric_limits<unsigned long>::max()) {
            --readDemand_;
        }
        try {
            outbound_->onNext(WebSocketFrame(std::move(message), socket_.got_text() ? textFrame : binaryFrame));
        } catch (const std::exception& failure) {
            KORVANE_LOG(logger, common::logFailure) << "WebSocket message not taken: " << failure.what();
            doCloseSocket(websocket::close_code::internal_error);
            return;
        }
        doRead();
    }

    // ---- to the peer -------------------------------------------------------------------

    void onWriterSignal(FrameSignal&& signal) {
        if (finished_ || closeRequested_) {
            return;
        }
        if (signal.item) {
            queuedBytes_ += signal.item->data.size;
            writeQueue_.push_back(std::move(*signal.item));
            if (backlogBytes() > state_->options.wsBacklogBytes) {
                KORVANE_LOG(logger, common::logWarning) << "WebSocket cut: " << backlogBytes()
                                         << " bytes waiting for a peer that does not read, over the limit of "
                                         << state_->options.wsBacklogBytes;
                doFinish();
                return;
            }
            doWrite();
        } else {
            doCloseSocket(closeCodeFor(signal.error));
        }
    }

    std::size_t backlogBytes() const { return queuedBytes_ + socket_.next_layer().bufferedBytes(); }

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
        if (writing_ || closing_ || finished_) {
            return;
        }
        if (writeQueue_.empty()) {
            if (closeRequested_) {
                doStartClose();
            }
            return;
        }
        writing_ = true;
        const WebSocketFrame& frame = writeQueue_.front();
        socket_.text((frame.firstByte & 0x0f) != (binaryFrame & 0x0f));
        socket_.async_write(net::const_buffer(frame.data.data, frame.data.size),
                            [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                                self->onWritten(error);
                            });
    }

    void onWritten(beast::error_code error) {
        writing_ = false;
        queuedBytes_ -= writeQueue_.front().data.size;
        writeQueue_.pop_front();
        if (error || finished_) {
            doFinish();
            return;
        }
        doWrite();
    }

    // ---- ending ----------------------------------------------------------------------

    // Takes no more frames from the service, writes those already queued, then sends
    // the close frame.
    void doCloseSocket(websocket::close_code code) {
        if (closeRequested_ || finished_) {
            return;
        }
        closeRequested_ = true;
        closeCode_ = code;
        if (writer_) {
            writer_->detach();
        }
        if (!accepted()) {
            doFinish();
            return;
        }
        doWrite();
    }

    bool accepted() const { return writer_ != nullptr; }

    void doStartClose() {
        closing_ = true;
        socket_.async_close(closeCode_, [self = this->shared_from_this()](beast::error_code) { self->doFinish(); });
    }

    // Ends both streams and releases the service's ends: the subscription on
    // `inbound` is cancelled (unless it ended), `outbound` completes.
    void doFinish() {
        if (finished_) {
            return;
        }
        finished_ = true;
        // The stalled write may have been the layer's own, with nothing of ours under way:
        // the cut is told here, wherever its failure was seen.
        if (socket_.next_layer().timedOut()) {
            KORVANE_LOG(logger, common::logWarning) << "WebSocket cut: a write took longer than "
                                     << state_->options.writeTimeout.count() << " ms";
        }
        if (writer_) {
            writer_->detach();
        }
        // A frame whose write is under way stays until the write completes: the socket
        // still reads its bytes, and onWritten pops it.
        const std::size_t kept = writing_ ? 1 : 0;
        while (writeQueue_.size() > kept) {
            queuedBytes_ -= writeQueue_.back().data.size;
            writeQueue_.pop_back();
        }
        link_->cut();
        std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound = std::move(outbound_);
        inbound_.reset();
        if (outbound) {
            outbound->onComplete();
        }
        beast::get_lowest_layer(socket_).close();
    }

    websocket::stream<CoalescingStream<Stream>> socket_;
    const Executor executor_;
    const std::shared_ptr<ServerState> state_;
    std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound_;
    std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound_;
    std::shared_ptr<StrandLink<ServerWebSocketConnection>> link_;
    std::uint64_t trackerId_ = 0;
    UpgradeRequest upgrade_;

    std::shared_ptr<RelaySubscriber<WebSocketFrame>> writer_;
    std::shared_ptr<ReadSubscription> readSubscription_;
    beast::flat_buffer readBuffer_;
    unsigned long readDemand_ = 0;
    common::RingQueue<WebSocketFrame> writeQueue_;
    std::size_t queuedBytes_ = 0;
    websocket::close_code closeCode_ = websocket::close_code::normal;
    bool reading_ = false;
    bool writing_ = false;
    bool closeRequested_ = false;
    bool closing_ = false;
    bool finished_ = false;
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
