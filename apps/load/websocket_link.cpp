// The WebSocket link: one connection, one write at a time; messages queued while a
// write is in flight go out together as one array once it completes.
//
// Threading: everything runs on the owning client's io_context, which one thread
// runs. The state is shared with the pending handlers and outlives close().

#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <string>
#include <utility>
#include <vector>

#include "load/link.h"
#include "load/socket_setup.h"

namespace korvane::load {
namespace {

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;

class WebSocketState : public std::enable_shared_from_this<WebSocketState> {
public:
    WebSocketState(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events)
        : io(io), target(target), events(std::move(events)) {}

    void send(std::string message) {
        queued.push_back(std::move(message));
        if (!stream) {
            open();
        } else if (isOpen && !writing && !flushPosted) {
            // Messages sent by the same handler go out together in one write.
            flushPosted = true;
            boost::asio::post(io, [self = shared_from_this(), generation = generation] {
                self->flushPosted = false;
                if (generation == self->generation && self->isOpen && !self->writing && !self->queued.empty()) {
                    self->writeQueued();
                }
            });
        }
    }

    void close() {
        closed = true;
        if (stream) {
            beast::error_code ignored;
            beast::get_lowest_layer(*stream).socket().close(ignored);
        }
    }

private:
    void open() {
        stream = std::make_shared<websocket::stream<beast::tcp_stream>>(io);
        stream->read_message_max(64 * 1024 * 1024);
        auto& socket = beast::get_lowest_layer(*stream).socket();
        if (auto ec = prepareSocket(socket, target.server, target.source)) {
            boost::asio::post(io, [self = shared_from_this(), what = "socket: " + ec.message()] { self->fail(what); });
            return;
        }
        beast::get_lowest_layer(*stream).async_connect(
            target.server,
            [self = shared_from_this(), stream = stream, generation = generation](beast::error_code ec) {
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
            stream->set_option(websocket::stream_base::decorator([cookie = cookie](websocket::request_type& request) {
                request.set(beast::http::field::cookie, cookie);
            }));
        }
        stream->async_handshake(
            upgrade, target.hostHeader, target.path,
            [self = shared_from_this(), stream = stream, generation = generation](beast::error_code ec) {
                if (generation == self->generation) self->onUpgraded(ec);
            });
    }

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
        isOpen = true;
        readNext();
        if (!queued.empty()) {
            writeQueued();
        }
    }

    void readNext() {
        stream->async_read(buffer, [self = shared_from_this(), stream = stream, generation = generation](
                                         beast::error_code ec, std::size_t) {
            if (generation == self->generation) {
                self->onRead(ec);
            }
        });
    }

    void onRead(beast::error_code ec) {
        if (closed) {
            return;
        }
        if (ec) {
            return fail("read: " + ec.message());
        }
        const auto data = buffer.cdata();
        events.onBody(std::string_view(static_cast<const char*>(data.data()), data.size()));
        buffer.consume(buffer.size());
        if (!closed && isOpen) {
            readNext();
        }
    }

    void writeQueued() {
        writing = true;
        outgoing.clear();
        outgoing.push_back('[');
        for (std::size_t i = 0; i < queued.size(); ++i) {
            if (i != 0) {
                outgoing.push_back(',');
            }
            outgoing += queued[i];
        }
        outgoing.push_back(']');
        queued.clear();
        stream->text(true);
        stream->async_write(
            boost::asio::buffer(outgoing),
            [self = shared_from_this(), stream = stream, generation = generation](beast::error_code ec, std::size_t) {
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
        if (!queued.empty()) {
            writeQueued();
        }
    }

    // Drops the connection; the next send() opens a new one.
    void fail(const std::string& what) {
        if (stream) {
            beast::error_code ignored;
            beast::get_lowest_layer(*stream).socket().close(ignored);
        }
        stream.reset();
        ++generation;
        isOpen = false;
        writing = false;
        queued.clear();
        events.onFailure(what);
    }

    boost::asio::io_context& io;
    const LinkTarget target;
    LinkEvents events;
    std::shared_ptr<websocket::stream<beast::tcp_stream>> stream;
    // Bumped when a stream is dropped, so that the handlers of the old one, which
    // keep it alive until they run, do nothing.
    unsigned generation = 0;
    websocket::response_type upgrade;
    beast::flat_buffer buffer;
    std::vector<std::string> queued;
    std::string outgoing;
    std::string cookie;
    bool isOpen = false;
    bool writing = false;
    bool flushPosted = false;
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
