// The WebSocket link: one connection, one write at a time; messages queued while a
// write is in flight go out together as one array once it completes. Beast makes
// the HTTP upgrade; the frames that follow are read and written by hand over the
// bare socket (see websocket_frames.h for why). Writes go with the other links' of the
// loop's turn in one submission where the kernel allows (loop_writes.h).
//
// Threading: everything runs on the owning client's io_context, which one thread
// runs. The state is shared with the pending handlers and outlives close().

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "load/link.h"
#include "load/socket_setup.h"
#include "korvane/host/edge_wait.h"
#include "korvane/host/loop_writes.h"
#include "korvane/host/websocket_frames.h"

namespace korvane::load {
namespace {

using host::appendMaskedFrame;
using host::Frame;
using host::FrameReader;
using host::Opcode;

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

constexpr std::size_t kMaxMessageBytes = 64 * 1024 * 1024;

class WebSocketState : public host::LoopWriter, public std::enable_shared_from_this<WebSocketState> {
public:
    WebSocketState(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events)
        : io(io),
          target(target),
          events(std::move(events)),
          socket(io),
          maskState(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(this) >> 4) | 1) {}

    void send(std::string message) {
        queued.push_back(std::move(message));
        if (!active) {
            open();
        } else {
            flushSoon();
        }
    }

    void close() {
        closed = true;
        closeSockets();
    }

private:
    friend class korvane::host::EdgeWait<WebSocketState>;
    void open() {
        active = true;
        upgrading = std::make_shared<websocket::stream<beast::tcp_stream>>(io);
        auto& tcpSocket = beast::get_lowest_layer(*upgrading).socket();
        if (auto ec = prepareSocket(tcpSocket, target.server, target.source)) {
            boost::asio::post(io, [self = shared_from_this(), what = "socket: " + ec.message()] { self->fail(what); });
            return;
        }
        beast::get_lowest_layer(*upgrading).async_connect(
            target.server,
            [self = shared_from_this(), stream = upgrading, generation = generation](beast::error_code ec) {
                if (generation == self->generation) self->onConnected(ec);
            });
    }

    void onConnected(beast::error_code ec) {
        if (closed) {
            return;
        }
        if (ec) {
            return fail("connect: " + ec.message());
        }
        if (!cookie.empty()) {
            upgrading->set_option(
                websocket::stream_base::decorator([cookie = cookie](websocket::request_type& request) {
                    request.set(beast::http::field::cookie, cookie);
                }));
        }
        upgrading->async_handshake(
            upgrade, target.hostHeader, target.path,
            [self = shared_from_this(), stream = upgrading, generation = generation](beast::error_code ec) {
                if (generation == self->generation) self->onUpgraded(ec);
            });
    }

    // The server speaks only when spoken to, so nothing of its frames can sit in
    // Beast's buffer when the socket is taken from it.
    void onUpgraded(beast::error_code ec) {
        if (closed) {
            return;
        }
        if (ec) {
            return fail("upgrade: " + ec.message());
        }
        const auto setCookie = upgrade.find(beast::http::field::set_cookie);
        if (setCookie != upgrade.end()) {
            const std::string value(setCookie->value());
            cookie = value.substr(0, value.find(';'));
        }
        socket = beast::get_lowest_layer(*upgrading).release_socket();
        upgrading.reset();
        loopWrites = &host::LoopWrites::of(io, true);
        // Writes are tried at once and wait for the socket only for what it did not take.
        socket.non_blocking(true, ec);
        if (ec) {
            return fail("socket: " + ec.message());
        }
        isOpen = true;
        readNext();
        if (!queued.empty()) {
            writeQueued();
        }
    }

    // Waits for the server's bytes, then reads them straight into the frame reader in the
    // same handler. After a read that emptied the socket, the next bytes raise a new edge:
    // the link waits for it with an EdgeWait, which costs no system call. Any other time
    // (the first read, one after a read that filled its room) it waits for readability,
    // which re-arms the descriptor and so sees bytes already there; an Asio read instead
    // would try the socket at once, and a completion it posts after that try comes in a
    // later handler, too late to know that no edge went by. space() goes first: it moves
    // a partial frame to the front and may grow the room.
    void readNext(bool drainedJustNow = false) {
        waitGeneration = generation;
        if (drainedJustNow) {
            readable.start(socket, shared_from_this());
        } else {
            socket.async_wait(tcp::socket::wait_read, [self = shared_from_this(), generation = generation](beast::error_code ec) {
                if (generation == self->generation) self->onReadable(ec);
            });
        }
    }

    void onReadable(beast::error_code ec) {
        if (waitGeneration != generation || closed) {
            return;
        }
        if (ec) {
            return fail("read: " + ec.message());
        }
        char* space = reader.space();
        const std::size_t size = reader.spaceSize();
        const std::size_t bytes = socket.read_some(boost::asio::buffer(space, size), ec);
        if (ec == boost::asio::error::would_block) {
            return readNext(true);
        }
        onRead(ec, bytes, !ec && bytes < size);
    }

    // `drained`: the read got less than it asked for, so the socket is empty.
    void onRead(beast::error_code ec, std::size_t bytes, bool drained) {
        if (closed) {
            return;
        }
        if (ec) {
            return fail("read: " + ec.message());
        }
        reader.commit(bytes);
        inRead = true;
        const bool open = deliverFrames();
        inRead = false;
        if (!open) {
            return;  // a frame ended the connection, or a callback closed the link
        }
        if (flushAfterRead) {
            flushAfterRead = false;
            if (!writing && hasOutgoing()) {
                writeQueued();
                if (closed || !isOpen) {
                    return;
                }
            }
        }
        readNext(drained);
    }

    // Hands every whole frame read so far on; false once the connection failed.
    bool deliverFrames() {
        const unsigned current = generation;
        Frame frame;
        for (;;) {
            const FrameReader::Status status = reader.next(frame);
            if (status == FrameReader::Status::needMore) {
                return true;
            }
            if (status != FrameReader::Status::frame) {
                fail("read: malformed frame");
                return false;
            }
            onFrame(frame);
            if (closed || generation != current) {
                return false;
            }
        }
    }

    void onFrame(const Frame& frame) {
        switch (frame.opcode) {
            case Opcode::text:
            case Opcode::binary:
                if (frame.final) {
                    events.onBody(frame.payload);
                } else {
                    fragments.assign(frame.payload);
                }
                return;
            case Opcode::continuation:
                fragments.append(frame.payload);
                if (fragments.size() > kMaxMessageBytes) {
                    return fail("read: message too big");
                }
                if (frame.final) {
                    const std::string whole = std::move(fragments);
                    fragments.clear();
                    events.onBody(whole);
                }
                return;
            case Opcode::ping:
                appendMaskedFrame(control, Opcode::pong, frame.payload, nextMask());
                return flushSoon();
            case Opcode::pong:
                return;
            case Opcode::close:
                return fail("read: closed by the server");
        }
        fail("read: unknown opcode");
    }

    // What is queued by the same handler goes out together in one write: within a read,
    // once its frames are handled; otherwise by a posted flush.
    void flushSoon() {
        if (!isOpen || writing) {
            return;
        }
        if (inRead) {
            flushAfterRead = true;
            return;
        }
        if (!flushPosted) {
            flushPosted = true;
            loopWrites->wake(shared_from_this());
        }
    }

    // The loop's turn after flushSoon(): on whichever connection is open by then.
    void onWoken() override {
        flushPosted = false;
        if (isOpen && !writing && hasOutgoing()) {
            writeQueued();
        }
    }

    bool hasOutgoing() const { return !queued.empty() || !control.empty(); }

    void writeQueued() {
        writing = true;
        outgoing.swap(control);
        control.clear();
        if (!queued.empty()) {
            array.clear();
            moveIntoArray(queued, array);
            appendMaskedFrame(outgoing, Opcode::text, array, nextMask());
        }
        writeGeneration = generation;
        const boost::asio::const_buffer whole = boost::asio::buffer(outgoing);
        if (loopWrites->add(shared_from_this(), &whole, 1)) {
            return;  // onBatchWritten goes on
        }
        beast::error_code ec;
        const std::size_t sent = socket.write_some(boost::asio::buffer(outgoing), ec);
        onTried(ec, sent);
    }

    // The socket of the connection the write was made for, -1 once it is dropped.
    int batchedSocket() override { return writeGeneration == generation ? socket.native_handle() : -1; }

    void onBatchWritten(boost::system::error_code error, std::size_t written) override {
        if (writeGeneration == generation) {
            onTried(error, written);
        }
    }

    // After a write tried without blocking: what the socket did not take waits for it.
    void onTried(beast::error_code ec, std::size_t sent) {
        if (ec != boost::asio::error::would_block && (ec || sent == outgoing.size())) {
            return onWritten(ec);
        }
        boost::asio::async_write(
            socket, boost::asio::buffer(outgoing) + sent,
            [self = shared_from_this(), generation = generation](beast::error_code ec, std::size_t) {
                if (generation == self->generation) {
                    self->onWritten(ec);
                }
            });
    }

    void onWritten(beast::error_code ec) {
        writing = false;
        if (closed) {
            return;
        }
        if (ec) {
            return fail("write: " + ec.message());
        }
        if (hasOutgoing()) {
            writeQueued();
        }
    }

    // Clients must mask; the key's unpredictability guards proxies a load tool never
    // passes through, so a cheap generator does.
    std::uint32_t nextMask() {
        maskState ^= maskState << 13;
        maskState ^= maskState >> 17;
        maskState ^= maskState << 5;
        return maskState;
    }

    void closeSockets() {
        beast::error_code ignored;
        socket.close(ignored);
        if (upgrading) {
            beast::get_lowest_layer(*upgrading).socket().close(ignored);
        }
    }

    // Drops the connection; the next send() opens a new one.
    void fail(const std::string& what) {
        closeSockets();
        upgrading.reset();
        ++generation;
        active = false;
        isOpen = false;
        writing = false;
        flushAfterRead = false;
        queued.clear();
        control.clear();
        fragments.clear();
        reader.clear();
        events.onFailure(what);
    }

    boost::asio::io_context& io;
    const LinkTarget target;
    LinkEvents events;
    // The stream that makes the upgrade, then hands its socket over.
    std::shared_ptr<websocket::stream<beast::tcp_stream>> upgrading;
    tcp::socket socket;
    // Bumped when a connection is dropped, so that the handlers of the old one do nothing.
    unsigned generation = 0;
    // The wait for the next bytes after a read that emptied the socket, and the
    // connection it was started for.
    korvane::host::EdgeWait<WebSocketState> readable;
    unsigned waitGeneration = 0;
    unsigned writeGeneration = 0;  // of the write under way
    host::LoopWrites* loopWrites = nullptr;  // the loop's, from the upgrade on
    websocket::response_type upgrade;
    FrameReader reader{kMaxMessageBytes, false};
    std::string fragments;  // a message that came in several frames, so far
    std::vector<std::string> queued;
    std::string control;  // pongs waiting for the next write
    std::string array;    // the queued messages as one body
    std::string outgoing;
    std::string cookie;
    std::uint32_t maskState;
    bool active = false;  // a connection is being opened or is open
    bool isOpen = false;
    bool writing = false;
    bool flushPosted = false;
    bool inRead = false;          // frames of a read are being handled
    bool flushAfterRead = false;  // and queued messages that go out once they are
    bool closed = false;
};

class WebSocketLink : public Link {
public:
    WebSocketLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events)
        : state(std::make_shared<WebSocketState>(io, target, std::move(events))) {}
    ~WebSocketLink() override { state->close(); }
    void send(std::string message, bool) override { state->send(std::move(message)); }
    void close() override { state->close(); }

private:
    std::shared_ptr<WebSocketState> state;
};

}  // namespace

std::unique_ptr<Link> makeWebSocketLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events) {
    return std::make_unique<WebSocketLink>(io, target, std::move(events));
}

}  // namespace korvane::load
