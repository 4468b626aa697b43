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
        : io_(io), target_(target), cookie_(cookie), events_(events) {}

    void send(std::string message) {
        queued_.push_back(std::move(message));
        if (!busy_ && !flushPosted_) {
            // Messages sent by the same handler go out together in one request.
            flushPosted_ = true;
            boost::asio::post(io_, [self = shared_from_this()] {
                self->flushPosted_ = false;
                if (!self->closed_ && !self->busy_ && !self->queued_.empty()) {
                    self->startRequest();
                }
            });
        }
    }

    void close() {
        closed_ = true;
        dropConnection();
    }

private:
    using Stream = beast::tcp_stream;

    void startRequest() {
        busy_ = true;
        request_ = {http::verb::post, target_.path, 11};
        request_.set(http::field::host, target_.hostHeader);
        request_.set(http::field::content_type, "application/json;charset=UTF-8");
        if (!cookie_.empty()) {
            request_.set(http::field::cookie, cookie_);
        }
        std::string& body = request_.body();
        body.push_back('[');
        for (std::size_t i = 0; i < queued_.size(); ++i) {
            if (i != 0) {
                body.push_back(',');
            }
            body += queued_[i];
        }
        body.push_back(']');
        queued_.clear();
        request_.prepare_payload();
        retried_ = false;
        if (stream_) {
            writeRequest();
        } else {
            connect();
        }
    }

    void connect() {
        stream_ = std::make_shared<Stream>(io_);
        ++generation_;
        reused_ = false;
        if (auto ec = prepareSocket(stream_->socket(), target_.server, target_.source)) {
            boost::asio::post(io_, [self = shared_from_this(), what = "socket: " + ec.message()] { self->fail(what); });
            return;
        }
        stream_->async_connect(target_.server, [self = shared_from_this(), stream = stream_,
                                                generation = generation_](beast::error_code ec) {
            if (generation == self->generation_ && !self->closed_) {
                ec ? self->fail("connect: " + ec.message()) : self->writeRequest();
            }
        });
    }

    void writeRequest() {
        http::async_write(
            *stream_, request_,
            [self = shared_from_this(), stream = stream_, generation = generation_](beast::error_code ec, std::size_t) {
                if (generation == self->generation_ && !self->closed_) {
                    ec ? self->retryOrFail("write: " + ec.message()) : self->readResponse();
                }
            });
    }

    void readResponse() {
        response_ = {};
        http::async_read(
            *stream_, buffer_, response_,
            [self = shared_from_this(), stream = stream_, generation = generation_](beast::error_code ec, std::size_t) {
                if (generation == self->generation_ && !self->closed_) {
                    ec ? self->retryOrFail("read: " + ec.message()) : self->onResponse();
                }
            });
    }

    // A kept-alive connection the server closed while idle fails the next request
    // before any answer: that request goes again once on a new connection.
    void retryOrFail(const std::string& what) {
        if (reused_ && !retried_) {
            retried_ = true;
            dropConnection();
            connect();
            return;
        }
        fail(what);
    }

    void onResponse() {
        reused_ = true;
        const auto setCookie = response_.find(http::field::set_cookie);
        if (setCookie != response_.end()) {
            const std::string value(setCookie->value());
            cookie_ = value.substr(0, value.find(';'));
        }
        if (!response_.keep_alive()) {
            dropConnection();
        }
        if (response_.result() != http::status::ok) {
            return fail("HTTP " + std::to_string(response_.result_int()));
        }
        busy_ = false;
        events_.onBody(response_.body());
        if (!closed_ && !busy_ && !queued_.empty()) {
            startRequest();
        }
    }

    void dropConnection() {
        if (stream_) {
            beast::error_code ignored;
            stream_->socket().close(ignored);
            stream_.reset();
        }
        ++generation_;
        buffer_.clear();
    }

    void fail(const std::string& what) {
        dropConnection();
        busy_ = false;
        queued_.clear();
        events_.onFailure(what);
    }

    boost::asio::io_context& io_;
    const LinkTarget& target_;
    std::string& cookie_;
    LinkEvents& events_;
    std::shared_ptr<Stream> stream_;
    // Bumped when a connection is dropped, so that the handlers of the old one do nothing.
    unsigned generation_ = 0;
    http::request<http::string_body> request_;
    http::response<http::string_body> response_;
    beast::flat_buffer buffer_;
    std::vector<std::string> queued_;
    bool busy_ = false;
    bool flushPosted_ = false;
    bool reused_ = false;
    bool retried_ = false;
    bool closed_ = false;
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
        : state_(std::make_shared<LongPollingState>(target, std::move(events))),
          commands_(std::make_shared<HttpChannel>(io, state_->target, state_->cookie, state_->events)),
          connects_(std::make_shared<HttpChannel>(io, state_->target, state_->cookie, state_->events)) {}
    ~LongPollingLink() override { close(); }

    void send(std::string message, bool isConnect) override {
        (isConnect ? connects_ : commands_)->send(std::move(message));
    }
    void close() override {
        commands_->close();
        connects_->close();
    }

private:
    std::shared_ptr<LongPollingState> state_;
    std::shared_ptr<HttpChannel> commands_;
    std::shared_ptr<HttpChannel> connects_;
};

}  // namespace

std::unique_ptr<Link> makeLongPollingLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events) {
    return std::make_unique<LongPollingLink>(io, target, std::move(events));
}

}  // namespace korvane::load
