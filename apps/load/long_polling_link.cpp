// The long-polling link: two keep-alive HTTP connections as a browser keeps them,
// one for /meta/connect and one for everything else. Each carries one request at a
// time; messages queued meanwhile go out together in the next request's body. The
// Set-Cookie value of any response goes back on every later request.
//
// Threading: everything runs on the owning client's io_context, which one thread
// runs. The state is shared with the pending handlers and outlives close().

#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <string>
#include <utility>
#include <vector>

#include "load/link.h"
#include "load/socket_setup.h"

namespace korvane::load {
namespace {

namespace beast = boost::beast;
namespace http = boost::beast::http;

// One HTTP connection with its queue. Threading: the owning client's thread.
class HttpChannel : public std::enable_shared_from_this<HttpChannel> {
public:
    HttpChannel(boost::asio::io_context& io, const LinkTarget& target, std::string& cookie, LinkEvents& events)
        : io(io), target(target), cookie(cookie), events(events) {}

    void send(std::string message) {
        queued.push_back(std::move(message));
        if (!busy && !flushPosted) {
            // Messages sent by the same handler go out together in one request.
            flushPosted = true;
            boost::asio::post(io, [self = shared_from_this()] {
                self->flushPosted = false;
                if (!self->closed && !self->busy && !self->queued.empty()) {
                    self->startRequest();
                }
            });
        }
    }

    void close() {
        closed = true;
        dropConnection();
    }

private:
    using Stream = beast::tcp_stream;

    void startRequest() {
        busy = true;
        request = {http::verb::post, target.path, 11};
        request.set(http::field::host, target.hostHeader);
        request.set(http::field::content_type, "application/json;charset=UTF-8");
        if (!cookie.empty()) {
            request.set(http::field::cookie, cookie);
        }
        moveIntoArray(queued, request.body());
        request.prepare_payload();
        retried = false;
        if (stream) {
            writeRequest();
        } else {
            connect();
        }
    }

    void connect() {
        stream = std::make_shared<Stream>(io);
        ++generation;
        reused = false;
        if (auto ec = prepareSocket(stream->socket(), target.server, target.source)) {
            boost::asio::post(io, [self = shared_from_this(), what = "socket: " + ec.message()] { self->fail(what); });
            return;
        }
        stream->async_connect(target.server, [self = shared_from_this(), stream = stream,
                                                generation = generation](beast::error_code ec) {
            if (generation == self->generation && !self->closed) {
                ec ? self->fail("connect: " + ec.message()) : self->writeRequest();
            }
        });
    }

    void writeRequest() {
        http::async_write(
            *stream, request,
            [self = shared_from_this(), stream = stream, generation = generation](beast::error_code ec, std::size_t) {
                if (generation == self->generation && !self->closed) {
                    ec ? self->retryOrFail("write: " + ec.message()) : self->readResponse();
                }
            });
    }

    void readResponse() {
        response = {};
        http::async_read(
            *stream, buffer, response,
            [self = shared_from_this(), stream = stream, generation = generation](beast::error_code ec, std::size_t) {
                if (generation == self->generation && !self->closed) {
                    ec ? self->retryOrFail("read: " + ec.message()) : self->onResponse();
                }
            });
    }

    // A kept-alive connection the server closed while idle fails the next request
    // before any answer: that request goes again once on a new connection.
    void retryOrFail(const std::string& what) {
        if (reused && !retried) {
            retried = true;
            dropConnection();
            connect();
            return;
        }
        fail(what);
    }

    void onResponse() {
        reused = true;
        const auto setCookie = response.find(http::field::set_cookie);
        if (setCookie != response.end()) {
            const std::string value(setCookie->value());
            cookie = value.substr(0, value.find(';'));
        }
        if (!response.keep_alive()) {
            dropConnection();
        }
        if (response.result() != http::status::ok) {
            return fail("HTTP " + std::to_string(response.result_int()));
        }
        busy = false;
        events.onBody(response.body());
        if (!closed && !busy && !queued.empty()) {
            startRequest();
        }
    }

    void dropConnection() {
        if (stream) {
            beast::error_code ignored;
            stream->socket().close(ignored);
            stream.reset();
        }
        ++generation;
        buffer.clear();
    }

    void fail(const std::string& what) {
        dropConnection();
        busy = false;
        queued.clear();
        events.onFailure(what);
    }

    boost::asio::io_context& io;
    const LinkTarget& target;
    std::string& cookie;
    LinkEvents& events;
    std::shared_ptr<Stream> stream;
    // Bumped when a connection is dropped, so that the handlers of the old one do nothing.
    unsigned generation = 0;
    http::request<http::string_body> request;
    http::response<http::string_body> response;
    beast::flat_buffer buffer;
    std::vector<std::string> queued;
    bool busy = false;
    bool flushPosted = false;
    bool reused = false;
    bool retried = false;
    bool closed = false;
};

// The link's shared parts: the target, the cookie jar and the events both channels use.
struct LongPollingState {
    LongPollingState(const LinkTarget& target, LinkEvents events) : target(target), events(std::move(events)) {}
    const LinkTarget target;
    std::string cookie;
    LinkEvents events;
};

class LongPollingLink : public Link {
public:
    LongPollingLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events)
        : state(std::make_shared<LongPollingState>(target, std::move(events))),
          commands(std::make_shared<HttpChannel>(io, state->target, state->cookie, state->events)),
          connects(std::make_shared<HttpChannel>(io, state->target, state->cookie, state->events)) {}
    ~LongPollingLink() override { close(); }

    void send(std::string message, bool isConnect) override {
        (isConnect ? connects : commands)->send(std::move(message));
    }
    void close() override {
        commands->close();
        connects->close();
    }

private:
    std::shared_ptr<LongPollingState> state;
    std::shared_ptr<HttpChannel> commands;
    std::shared_ptr<HttpChannel> connects;
};

}  // namespace

std::unique_ptr<Link> makeLongPollingLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events) {
    return std::make_unique<LongPollingLink>(io, target, std::move(events));
}

}  // namespace korvane::load
