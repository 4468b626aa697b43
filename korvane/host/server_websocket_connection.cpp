#include "korvane/host/server_websocket_connection.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <limits>
#include <mutex>
#include <string_view>
#include <type_traits>
#include <vector>

#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include "korvane/codec/utf8.h"
#include "korvane/frame/collectable.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/ring_queue.h"
#include "korvane/host/deadline_timer.h"
#include "korvane/host/edge_wait.h"
#include "korvane/host/host_counters.h"
#include "korvane/host/loop_link.h"
#include "korvane/host/loop_writes.h"
#include "korvane/host/relay_subscriber.h"
#include "korvane/host/server_state.h"
#include "korvane/host/websocket_frames.h"

namespace korvane::host {

namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
namespace net = boost::asio;
using common::DataBuffer;
using http::WebSocketFrame;
using Clock = std::chrono::steady_clock;

common::diagnostic_logger logger("korvane::host::http");

// The service's frames are taken as they are made, so that every frame waiting for a
// socket waits here, where the backlog bound counts it.
constexpr unsigned long everyFrame = std::numeric_limits<unsigned long>::max();
constexpr std::uint8_t finalBit = 0x80;
constexpr std::uint8_t textFrame = finalBit | static_cast<std::uint8_t>(Opcode::text);
constexpr std::uint8_t binaryFrame = finalBit | static_cast<std::uint8_t>(Opcode::binary);
constexpr std::uint8_t closeFrame = finalBit | static_cast<std::uint8_t>(Opcode::close);
constexpr std::uint8_t pingFrame = finalBit | static_cast<std::uint8_t>(Opcode::ping);
constexpr std::uint8_t pongFrame = finalBit | static_cast<std::uint8_t>(Opcode::pong);
// Frames gathered into one socket write.
constexpr std::size_t maxFramesPerWrite = 16;

using FrameSource = reactive_streams::Collectable<WebSocketFrame>;

bool isControl(const WebSocketFrame& frame) { return (frame.firstByte & 0x08) != 0; }

// The close codes a peer may send (1004-1006 and 1015 are never on the wire).
bool isValidCloseCode(unsigned code) {
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) || (code >= 3000 && code <= 4999);
}

DataBuffer closePayload(websocket::close_code code) {
    DataBuffer payload;
    if (code != websocket::close_code::none) {
        payload.push_back(static_cast<char>(static_cast<unsigned>(code) >> 8));
        payload.push_back(static_cast<char>(static_cast<unsigned>(code) & 0xFF));
    }
    return payload;
}

// One accepted WebSocket. Beast answers the upgrade; the frames that follow are read
// and written by hand on the stream (websocket_frames.h), which keeps a delivery to one
// socket write and no operation state of its own.
//
// The service's frames (`inbound`) are collected from `frameSource` (the publisher
// itself where it can be collected, else a relay subscribed to it) and written in
// order; those ready together (a delivery and the connect reply behind it) leave in one
// gathered socket write. The source's first frame wakes the connection at the loop's next
// turn (loop_writes.h), which from an I/O thread comes only once the handler that made
// the frame has returned, so that a reply made just after its message is taken with
// it. On a plain socket the write is tried without blocking, with the turn's other writes
// in one io_uring submission where the loop batches them, and only what the kernel does
// not take waits for the socket. The peer's messages are read whole, only within the
// demand the service asked for, and handed to `outbound` on the loop; a plain socket
// waits for readability and is then read without blocking, so no read buffer is held
// while the peer is quiet. After a read that emptied the socket, the wait is an EdgeWait,
// which starts without a system call.
//
// Bounds: the frames waiting for the socket (`queuedBytes`) may not exceed the server's
// wsBacklogBytes, and a socket write may not wait longer than its writeTimeout; past
// either the connection is cut at once (a peer that does not read would never see a
// close frame), which cancels the service's frame stream and with it the client's
// connect. A peer silent for half of wsIdle is pinged and cut at wsIdle; a close frame
// sent is followed by the peer's own within the header timeout, or the socket goes.
//
// Threading: every member function but shutdown() and abandon() runs on the
// connection's loop, whose one thread runs its handlers one at a time; signals from
// the service's threads come through `frameSource` and `link`. shutdown() posts; abandon()
// runs on the stopping thread once no I/O thread is left. Nothing here takes a lock
// but the frame source's own and the loop's wake list's (LoopWrites::wake). The source
// wakes the loop under its lock until the connection stops collecting, which every
// way of ending does, and stop() ends every connection before the loops go.
template <class Stream>
class ServerWebSocketConnection : public ConnectionTracker::Tracked,
                                  public LoopWriter,
                                  public std::enable_shared_from_this<ServerWebSocketConnection<Stream>> {
public:
    using Executor = typename Stream::executor_type;
    static constexpr bool plain = std::is_same_v<Stream, PlainStream>;

    ServerWebSocketConnection(Stream&& stream, std::shared_ptr<ServerState> state,
                              std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound,
                              std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound)
        : stream(std::move(stream)),
          loopExecutor(this->stream.get_executor()),
          state(std::move(state)),
          inbound(std::move(inbound)),
          outbound(std::move(outbound)),
          reader(this->state->options.maxWsMessageBytes, true),
          deadline(loopExecutor) {}

    ~ServerWebSocketConnection() override { state->connections.remove(trackerId); }

    const Executor& executor() const { return loopExecutor; }

    void run(UpgradeRequest&& upgrade, std::string setCookie) {
        link = std::make_shared<LoopLink<ServerWebSocketConnection>>(this->shared_from_this());
        trackerId = state->connections.add(this->weak_from_this());
        if (trackerId == 0) {
            doFinish();
            return;
        }
        upgradeRequest = std::make_unique<UpgradeRequest>(std::move(upgrade));
        handshake = std::make_unique<websocket::stream<Stream&>>(stream);
        websocket::stream_base::timeout timeouts{};
        timeouts.handshake_timeout = state->options.headerTimeout;
        timeouts.idle_timeout = websocket::stream_base::none();
        handshake->set_option(timeouts);
        handshake->set_option(websocket::stream_base::decorator([cookie = std::move(setCookie)](websocket::response_type& response) {
            response.set(beast::http::field::server, "korvane");
            if (!cookie.empty()) {
                response.insert(beast::http::field::set_cookie, cookie);
            }
        }));
        handshake->async_accept(*upgradeRequest, [self = this->shared_from_this()](beast::error_code error) {
            self->onAccepted(error);
        });
    }

    void shutdown() override {
        net::post(loopExecutor,
                  [self = this->shared_from_this()] { self->doCloseSocket(websocket::close_code::going_away); });
    }

    void abandon() override { doFinish(); }

private:
    friend class DeadlineTimer<ServerWebSocketConnection>;
    friend class EdgeWait<ServerWebSocketConnection>;
    // The service's side of the peer's messages: demand and cancel come on any thread.
    class ReadSubscription : public reactive_streams::Subscription {
    public:
        explicit ReadSubscription(std::shared_ptr<LoopLink<ServerWebSocketConnection>> link)
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
        std::shared_ptr<LoopLink<ServerWebSocketConnection>> link;
    };

    PlainStream& socket() { return beast::get_lowest_layer(stream); }

    void onAccepted(beast::error_code error) {
        handshake.reset();
        upgradeRequest.reset();
        if (error || finished) {
            doFinish();
            return;
        }
        countResponse(101);
        if constexpr (plain) {
            socket().non_blocking(true, error);
        }
        loopWrites = &LoopWrites::of(loopExecutor.context(), state->options.batchedWrites);
        lastRead = Clock::now();
        armDeadline(lastRead + state->options.wsIdle / 2);
        readSubscription = std::make_shared<ReadSubscription>(link);
        try {
            // The service's frames on their way from its threads to the loop: one wake carries
            // every frame that arrived before the connection took them.
            frameSource = collectableFrames();
            frameSource->collect([writes = loopWrites, self = this->shared_from_this()] { writes->wake(self); });
            outbound->onSubscribe(readSubscription);
        } catch (const std::exception& failure) {
            KORVANE_LOG(logger, common::logFailure) << "WebSocket streams failed to start: " << failure.what();
            doCloseSocket(websocket::close_code::internal_error);
        }
    }

    // The publisher itself when it can be collected, else a relay subscribed to it for every frame.
    std::shared_ptr<FrameSource> collectableFrames() {
        if (auto* direct = dynamic_cast<FrameSource*>(inbound.get())) {
            return std::shared_ptr<FrameSource>(inbound, direct);
        }
        auto relay = std::make_shared<RelaySubscriber<WebSocketFrame>>(nullptr);
        inbound->subscribe(relay);
        relay->request(everyFrame);
        return relay;
    }

    bool accepted() const { return frameSource != nullptr; }

    // ---- from the peer ---------------------------------------------------------------

    void onReadDemand(unsigned long n) {
        constexpr unsigned long unlimited = std::numeric_limits<unsigned long>::max();
        readDemand = readDemand > unlimited - n ? unlimited : readDemand + n;
        takeFrames();
        doRead();
    }

    // Reads while the service wants messages, and after a close frame went out, for the
    // peer's answer to it.
    bool wantsBytes() const { return (readDemand > 0 && !closeRequested) || (closeQueued && !peerClosed); }

    // `drainedJustNow`: a read in the handler now running found the socket empty, so no
    // edge has gone by unseen.
    void doRead(bool drainedJustNow = false) {
        if (reading || finished || !wantsBytes()) {
            return;
        }
        reading = true;
        if constexpr (plain) {
            if (drainedJustNow) {
                readable.start(socket(), this->shared_from_this());
            } else {
                socket().async_wait(net::socket_base::wait_read,
                                    [self = this->shared_from_this()](beast::error_code error) { self->onReadable(error); });
            }
        } else {
            stream.async_read_some(readSpace(),
                                   [self = this->shared_from_this()](beast::error_code error, std::size_t bytes) {
                                       self->onRead(error, bytes);
                                   });
        }
    }

    net::mutable_buffer readSpace() {
        char* space = reader.space();
        return net::buffer(space, reader.spaceSize());
    }

    void onReadable(beast::error_code error) {
        if (error || finished) {
            return onRead(error, 0);
        }
        const net::mutable_buffer space = readSpace();
        const std::size_t bytes = socket().read_some(space, error);
        if (error == net::error::would_block) {
            reading = false;
            return doRead(true);
        }
        // A read that got less than it asked for emptied the socket.
        onRead(error, bytes, !error && bytes < space.size());
    }

    void onRead(beast::error_code error, std::size_t bytes, bool drained = false) {
        reading = false;
        if (finished) {
            return;
        }
        if (error) {
            // The peer broke off or closed the TCP connection.
            doFinish();
            return;
        }
        reader.commit(bytes);
        lastRead = Clock::now();
        pingSent = false;
        takeFrames();
        reader.release();
        doRead(drained);
    }

    // Hands on the messages read so far, within the demand, and answers control frames.
    void takeFrames() {
        Frame frame;
        while (!finished && wantsBytes()) {
            switch (reader.next(frame)) {
                case FrameReader::Status::needMore:
                    return;
                case FrameReader::Status::malformed:
                    return failRead(websocket::close_code::protocol_error);
                case FrameReader::Status::tooBig:
                    count(HostCounter::refusedForMessageSize);
                    return failRead(websocket::close_code::too_big);
                case FrameReader::Status::frame:
                    onFrame(frame);
                    break;
            }
        }
    }

    void onFrame(const Frame& frame) {
        switch (frame.opcode) {
            case Opcode::text:
            case Opcode::binary:
                if (assembling) {
                    return failRead(websocket::close_code::protocol_error);
                }
                messageIsText = frame.opcode == Opcode::text;
                if (frame.final) {
                    return deliverMessage(frame.payload);
                }
                assembling = true;
                fragments.assign(frame.payload);
                return;
            case Opcode::continuation:
                if (!assembling) {
                    return failRead(websocket::close_code::protocol_error);
                }
                if (fragments.size() + frame.payload.size() > state->options.maxWsMessageBytes) {
                    count(HostCounter::refusedForMessageSize);
                    return failRead(websocket::close_code::too_big);
                }
                fragments.append(frame.payload);
                if (frame.final) {
                    assembling = false;
                    deliverMessage(fragments);
                    std::string().swap(fragments);
                }
                return;
            case Opcode::ping:
                return queueControl(pongFrame, DataBuffer(frame.payload));
            case Opcode::pong:
                return;
            case Opcode::close:
                return onPeerClose(frame.payload);
        }
    }

    void deliverMessage(std::string_view text) {
        if (closeRequested) {
            return;  // a message behind our close frame is not taken
        }
        count(HostCounter::webSocketFramesIn);
        count(HostCounter::webSocketBytesIn, text.size());
        if (readDemand != std::numeric_limits<unsigned long>::max()) {
            --readDemand;
        }
        try {
            outbound->onNext(WebSocketFrame(DataBuffer(text), messageIsText ? textFrame : binaryFrame));
        } catch (const std::exception& failure) {
            KORVANE_LOG(logger, common::logFailure) << "WebSocket message not taken: " << failure.what();
            doCloseSocket(websocket::close_code::internal_error);
        }
    }

    // The peer's close frame: the answer to ours ends the connection; otherwise it is
    // answered with the same code once the frames queued before it are written, after
    // which the connection ends.
    void onPeerClose(std::string_view payload) {
        if (closeQueued) {
            peerClosed = true;
            if (closeWritten) {
                doTeardown();
            }
            return;
        }
        websocket::close_code code = websocket::close_code::none;
        if (payload.size() == 1) {
            return failRead(websocket::close_code::protocol_error);
        }
        if (payload.size() >= 2) {
            const unsigned received = (static_cast<unsigned char>(payload[0]) << 8) | static_cast<unsigned char>(payload[1]);
            if (!isValidCloseCode(received)) {
                return failRead(websocket::close_code::protocol_error);
            }
            if (!bayeux::isValidUtf8(payload.data() + 2, payload.size() - 2)) {
                return failRead(websocket::close_code::bad_payload);
            }
            code = static_cast<websocket::close_code>(received);
        }
        // Frames already queued still go, ahead of the answering close.
        peerClosed = true;
        doCloseSocket(code);
    }

    // A peer that broke the protocol gets a close frame with `code` and nothing more is
    // read from it but its answer.
    void failRead(websocket::close_code code) {
        reader.clear();
        doCloseSocket(code);
    }

    // ---- to the peer -------------------------------------------------------------------

    void onWoken() override {
        takeInbox();
        doWrite();
    }

    // The service's frames go straight onto the write queue; its end closes the socket behind them.
    void takeInbox() {
        if (!frameSource || finished || closeRequested) {
            return;
        }
        const std::size_t before = writeQueue.size();
        const FrameSource::Ending ending = frameSource->takeAll(writeQueue);
        std::size_t overLimit = 0;  // what waited when the first frame past the backlog bound came
        for (std::size_t i = before; i < writeQueue.size(); ++i) {
            queuedBytes += writeQueue[i].bytes().size();
            if (overLimit == 0 && queuedBytes > state->options.wsBacklogBytes) {
                overLimit = queuedBytes;
            }
        }
        if (overLimit != 0) {
            KORVANE_LOG(logger, common::logWarning) << "WebSocket cut: " << overLimit
                                     << " bytes waiting for a peer that does not read, over the limit of "
                                     << state->options.wsBacklogBytes;
            count(HostCounter::webSocketCutForBacklog);
            doFinish();
            return;
        }
        if (ending.ended) {
            doCloseSocket(closeCodeFor(ending.error));
        }
    }

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

    void queueFrame(WebSocketFrame&& frame) {
        queuedBytes += frame.bytes().size();
        writeQueue.push_back(std::move(frame));
    }

    // Behind what the service wrote before it, so that frames leave in the order they were made.
    void queueControl(std::uint8_t firstByte, DataBuffer&& payload) {
        takeInbox();
        if (closeQueued || finished) {
            return;
        }
        queueFrame(WebSocketFrame(std::move(payload), firstByte));
        scheduleFlush();
    }

    // The write starts behind the handlers already queued on the loop.
    void scheduleFlush() {
        if (writing || flushPosted || finished) {
            return;
        }
        flushPosted = true;
        net::defer(loopExecutor, [self = this->shared_from_this()] {
            self->flushPosted = false;
            self->takeInbox();
            self->doWrite();
        });
    }

    void doWrite() {
        while (!writing && !finished && !writeQueue.empty()) {
            gatherFrames();
            writing = true;
            if constexpr (plain) {
                if (loopWrites->add(this->shared_from_this(), sendBuffers.data(), sendBuffers.size())) {
                    return;  // onBatchWritten goes on
                }
                beast::error_code error;
                const std::size_t written = socket().write_some(sendBuffers, error);
                onTried(error, written);
            } else {
                writeRest();
            }
        }
    }

    int batchedSocket() override { return socket().is_open() ? socket().native_handle() : -1; }

    void onBatchWritten(boost::system::error_code error, std::size_t written) override { onTried(error, written); }

    // After a write tried without blocking: what the socket did not take waits for it.
    void onTried(beast::error_code error, std::size_t written) {
        if ((!error && written == sendingBytes) || (error && error != net::error::would_block)) {
            onWritten(error);
            return;
        }
        skipWritten(written);
        writeRest();
    }

    void writeRest() {
        waitingForSocket = true;
        writeStarted = Clock::now();
        if (state->options.writeTimeout.count() != 0) {
            armDeadline(writeStarted + state->options.writeTimeout);
        }
        net::async_write(stream, sendBuffers, [self = this->shared_from_this()](beast::error_code error, std::size_t) {
            self->onWritten(error);
        });
    }

    // Lays the frames at the front of the queue out for one write of `sendingBytes`.
    void gatherFrames() {
        sendingFrames = std::min(writeQueue.size(), maxFramesPerWrite);
        sendBuffers.clear();
        std::size_t bytes = 0;
        for (std::size_t i = 0; i < sendingFrames; ++i) {
            const WebSocketFrame& frame = writeQueue[i];
            const std::string_view payload = frame.bytes();
            const std::size_t headerBytes = writeFrameHeader(frame.firstByte, payload.size(), sendHeaders[i].data());
            sendBuffers.emplace_back(sendHeaders[i].data(), headerBytes);
            if (!payload.empty()) {
                sendBuffers.emplace_back(payload.data(), payload.size());
            }
            bytes += headerBytes + payload.size();
        }
        sendingBytes = bytes;
    }

    // Drops what a partial write took from the front of `sendBuffers`.
    void skipWritten(std::size_t written) {
        std::size_t whole = 0;
        while (written >= sendBuffers[whole].size()) {
            written -= sendBuffers[whole++].size();
        }
        sendBuffers.erase(sendBuffers.begin(), sendBuffers.begin() + static_cast<std::ptrdiff_t>(whole));
        sendBuffers.front() += written;
    }

    void onWritten(beast::error_code error) {
        writing = false;
        waitingForSocket = false;
        const bool closeWasWritten = closeWritten;
        for (std::size_t i = 0; i < sendingFrames; ++i) {
            const WebSocketFrame& frame = writeQueue.front();
            if (!error && !isControl(frame)) {
                count(HostCounter::webSocketFramesOut);
                count(HostCounter::webSocketBytesOut, frame.bytes().size());
            }
            closeWritten = closeWritten || frame.firstByte == closeFrame;
            queuedBytes -= frame.bytes().size();
            writeQueue.pop_front();
        }
        sendingFrames = 0;
        if (error || finished) {
            doFinish();
            return;
        }
        if (closeWritten && !closeWasWritten) {
            // The peer's close, and a TLS peer's end of its session, are waited for this long.
            closeWrittenAt = Clock::now();
            armDeadline(closeWrittenAt + state->options.headerTimeout);
            if (peerClosed) {
                doTeardown();
            }
            return;
        }
        doWrite();
    }

    // ---- deadlines: the idle ping and cut, the close handshake's wait, the write timeout ----

    // One timer serves them all (deadline_timer.h): whatever fires looks at the clock and
    // the connection's state, does what is due and arms the timer for what comes next.
    void armDeadline(Clock::time_point due) { deadline.arm(due, this->weak_from_this()); }

    // One firing per half idle time at most while the peer is quiet: reads only move
    // `lastRead`, and the timer looks at it when it fires.
    void onDeadline() {
        if (finished) {
            return;
        }
        const Clock::time_point now = Clock::now();
        const auto writeTimeout = state->options.writeTimeout;
        const bool timingWrite = waitingForSocket && writeTimeout.count() != 0;
        if (timingWrite && now - writeStarted >= writeTimeout) {
            writeTimedOut = true;
            beast::error_code ignored;
            socket().close(ignored);
            return;
        }
        Clock::time_point next;
        if (closeWritten) {
            next = closeWrittenAt + state->options.headerTimeout;
            if (now >= next) {
                doFinish();  // the peer did not answer our close frame
                return;
            }
        } else {
            const auto half = state->options.wsIdle / 2;
            if (now - lastRead >= state->options.wsIdle) {
                KORVANE_LOG(logger, common::logTrace) << "WebSocket closed: no answer to its ping";
                doFinish();
                return;
            }
            if (now - lastRead >= half && !pingSent) {
                pingSent = true;
                queueControl(pingFrame, DataBuffer());
            }
            next = lastRead + (pingSent ? state->options.wsIdle : half);
        }
        armDeadline(timingWrite ? std::min(next, writeStarted + writeTimeout) : next);
    }

    // ---- ending ----------------------------------------------------------------------

    // Takes no more frames from the service, writes those already queued, then the
    // close frame, and waits for the peer's.
    void doCloseSocket(websocket::close_code code) {
        if (closeRequested || finished) {
            return;
        }
        takeInbox();  // what the service wrote before the close goes ahead of it
        closeRequested = true;
        if (frameSource) {
            frameSource->stopCollecting();
        }
        if (!accepted()) {
            doFinish();
            return;
        }
        queueFrame(WebSocketFrame(closePayload(code == websocket::close_code::none && !peerClosed
                                                   ? websocket::close_code::normal
                                                   : code),
                                  closeFrame));
        closeQueued = true;
        scheduleFlush();
    }

    // Both close frames have crossed: the TLS session ends with its own close, the
    // TCP connection with our FIN, so that the peer reads every byte before the socket goes.
    void doTeardown() {
        if constexpr (plain) {
            beast::error_code ignored;
            socket().shutdown(net::socket_base::shutdown_send, ignored);
            doFinish();
        } else {
            stream.async_shutdown([self = this->shared_from_this()](beast::error_code) { self->doFinish(); });
        }
    }

    // Frames not yet under way are dropped; a write under way keeps its frames.
    void dropQueuedFrames() {
        while (writeQueue.size() > sendingFrames) {
            queuedBytes -= writeQueue.back().bytes().size();
            writeQueue.pop_back();
        }
    }

    // Ends both streams and releases the service's ends: the subscription on
    // `inbound` is cancelled (unless it ended), `outbound` completes.
    void doFinish() {
        if (finished) {
            return;
        }
        finished = true;
        if (writeTimedOut) {
            count(HostCounter::webSocketCutForWriteTimeout);
            KORVANE_LOG(logger, common::logWarning) << "WebSocket cut: a write took longer than "
                                     << state->options.writeTimeout.count() << " ms";
        }
        if (frameSource) {
            frameSource->stopCollecting();
        }
        dropQueuedFrames();
        link->cut();
        std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> messages = std::move(outbound);
        inbound.reset();
        if (messages) {
            messages->onComplete();
        }
        deadline.cancel();
        beast::error_code ignored;
        socket().close(ignored);
    }

    Stream stream;
    const Executor loopExecutor;
    // What every connect cycle reads or writes, together, beside the socket.
    bool reading = false;
    bool writing = false;
    // The write under way waits for the socket, writeTimeout from writeStarted on; a write
    // still in the loop's batch has not been tried yet.
    bool waitingForSocket = false;
    bool flushPosted = false;
    bool writeTimedOut = false;
    bool pingSent = false;
    bool closeRequested = false;  // no more frames from the service
    bool closeQueued = false;     // our close frame is in writeQueue or written
    bool closeWritten = false;
    bool peerClosed = false;
    bool finished = false;
    unsigned long readDemand = 0;
    std::size_t queuedBytes = 0;
    std::size_t sendingFrames = 0;  // at the front of writeQueue, in the write under way
    std::size_t sendingBytes = 0;
    Clock::time_point lastRead;

    const std::shared_ptr<ServerState> state;
    std::shared_ptr<reactive_streams::PublisherAPI<WebSocketFrame>> inbound;
    std::shared_ptr<reactive_streams::SubscriberAPI<WebSocketFrame>> outbound;
    std::shared_ptr<LoopLink<ServerWebSocketConnection>> link;

    std::shared_ptr<FrameSource> frameSource;
    std::shared_ptr<ReadSubscription> readSubscription;

    FrameReader reader;
    // The wait for the peer's next bytes after a read that emptied the socket (plain sockets).
    EdgeWait<ServerWebSocketConnection> readable;
    std::string fragments;  // of a message that came in several frames
    bool assembling = false;
    bool messageIsText = true;

    common::RingQueue<WebSocketFrame> writeQueue;
    LoopWrites* loopWrites = nullptr;  // the loop's; it wakes the connection and may make its writes
    std::array<std::array<std::uint8_t, maxFrameHeaderBytes>, maxFramesPerWrite> sendHeaders;
    std::vector<net::const_buffer> sendBuffers;

    DeadlineTimer<ServerWebSocketConnection> deadline;
    Clock::time_point writeStarted;
    Clock::time_point closeWrittenAt;
    std::uint64_t trackerId = 0;
    // Only while the upgrade is answered.
    std::unique_ptr<websocket::stream<Stream&>> handshake;
    std::unique_ptr<UpgradeRequest> upgradeRequest;
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
