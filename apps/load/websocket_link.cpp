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
        : io_(io), target_(target), events_(std::move(events)) {}

    void send(std::string message) {
        queued_.push_back(std::move(message));
        if (!stream_) {
            open();
        } else if (open_ && !writing_ && !flushPosted_) {
            // Messages sent by the same handler go out together in one write.
            flushPosted_ = true;
            boost::asio::post(io_, [self = shared_from_this(), generation = generation_] {
                self->flushPosted_ = false;
                if (generation == self->generation_ && self->open_ && !self->writing_ && !self->queued_.empty()) {
                    self->writeQueued();
                }
            });
        }
    }

    void close() {
        closed_ = true;
        if (stream_) {
            beast::error_code ignored;
            beast::get_lowest_layer(*stream_).socket().close(ignored);
        }
    }

private:
    void open() {
        stream_ = std::make_shared<websocket::stream<beast::tcp_stream>>(io_);
        stream_->read_message_max(64 * 1024 * 1024);
        auto& socket = beast::get_lowest_layer(*stream_).socket();
        if (auto ec = prepareSocket(socket, target_.server, target_.source)) {
            boost::asio::post(io_, [self = shared_from_this(), what = "socket: " + ec.message()] { self->fail(what); });
            return;
        }
        beast::get_lowest_layer(*stream_).async_connect(
            target_.server,
            [self = shared_from_this(), stream = stream_, generation = generation_](beast::error_code ec) {
                if (generation == self->generation_) self->onConnected(ec);
            });
    }

    void onConnected(beast::error_code ec) {
        if (closed_) {
            return;
        }
        if (ec) {
            return fail("connect: " + ec.message());
        }
        if (!cookie_.empty()) {
            stream_->set_option(websocket::stream_base::decorator([cookie = cookie_](websocket::request_type& request) {
                request.set(beast::http::field::cookie, cookie);
            }));
        }
        stream_->async_handshake(
            upgrade_, target_.hostHeader, target_.path,
            [self = shared_from_this(), stream = stream_, generation = generation_](beast::error_code ec) {
                if (generation == self->generation_) self->onUpgraded(ec);
            });
    }

    void onUpgraded(beast::error_code ec) {
        if (closed_) {
            return;
        }
        if (ec) {
            return fail("upgrade: " + ec.message());
        }
        const auto setCookie = upgrade_.find(beast::http::field::set_cookie);
        if (setCookie != upgrade_.end()) {
            const std::string value(setCookie->value());
            cookie_ = value.substr(0, value.find(';'));
        }
        open_ = true;
        readNext();
        if (!queued_.empty()) {
            writeQueued();
        }
    }

    void readNext() {
        stream_->async_read(buffer_, [self = shared_from_this(), stream = stream_, generation = generation_](
                                         beast::error_code ec, std::size_t) {
            if (generation == self->generation_) {
                self->onRead(ec);
            }
        });
    }

    void onRead(beast::error_code ec) {
        if (closed_) {
            return;
        }
        if (ec) {
            return fail("read: " + ec.message());
        }
        const auto data = buffer_.cdata();
        events_.onBody(std::string_view(static_cast<const char*>(data.data()), data.size()));
        buffer_.consume(buffer_.size());
        if (!closed_ && open_) {
            readNext();
        }
    }

    void writeQueued() {
        writing_ = true;
        outgoing_.clear();
        outgoing_.push_back('[');
        for (std::size_t i = 0; i < queued_.size(); ++i) {
            if (i != 0) {
                outgoing_.push_back(',');
            }
            outgoing_ += queued_[i];
        }
        outgoing_.push_back(']');
        queued_.clear();
        stream_->text(true);
        stream_->async_write(
            boost::asio::buffer(outgoing_),
            [self = shared_from_this(), stream = stream_, generation = generation_](beast::error_code ec, std::size_t) {
                if (generation == self->generation_) {
                    self->onWritten(ec);
                }
            });
    }

    void onWritten(beast::error_code ec) {
        writing_ = false;
        if (closed_) {
            return;
        }
        if (ec) {
            return fail("write: " + ec.message());
        }
        if (!queued_.empty()) {
            writeQueued();
        }
    }

    // Drops the connection; the next send() opens a new one.
    void fail(const std::string& what) {
        if (stream_) {
            beast::error_code ignored;
            beast::get_lowest_layer(*stream_).socket().close(ignored);
        }
        stream_.reset();
        ++generation_;
        open_ = false;
        writing_ = false;
        queued_.clear();
        events_.onFailure(what);
    }

    boost::asio::io_context& io_;
    const LinkTarget target_;
    LinkEvents events_;
    std::shared_ptr<websocket::stream<beast::tcp_stream>> stream_;
    // Bumped when a stream is dropped, so that the handlers of the old one, which
    // keep it alive until they run, do nothing.
    unsigned generation_ = 0;
    websocket::response_type upgrade_;
    beast::flat_buffer buffer_;
    std::vector<std::string> queued_;
    std::string outgoing_;
    std::string cookie_;
    bool open_ = false;
    bool writing_ = false;
    bool flushPosted_ = false;
    bool closed_ = false;
};

class WebSocketLink : public Link {
public:
    WebSocketLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events)
        : state_(std::make_shared<WebSocketState>(io, target, std::move(events))) {}
    ~WebSocketLink() override { state_->close(); }
    void send(std::string message, bool) override { state_->send(std::move(message)); }
    void close() override { state_->close(); }

private:
    std::shared_ptr<WebSocketState> state_;
};

}  // namespace

std::unique_ptr<Link> makeWebSocketLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events) {
    return std::make_unique<WebSocketLink>(io, target, std::move(events));
}

}  // namespace korvane::load
