#include "korvane/host/http_connection.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/one_shot_publisher.h"
#include "korvane/frame/ring_queue.h"
#include "korvane/host/ascii_case.h"
#include "korvane/host/browser_session.h"
#include "korvane/host/deadline_timer.h"
#include "korvane/host/edge_wait.h"
#include "korvane/host/handler_pool.h"
#include "korvane/host/host_context.h"
#include "korvane/host/host_counters.h"
#include "korvane/host/loop_link.h"
#include "korvane/host/relay_subscriber.h"
#include "korvane/host/response_text.h"
#include "korvane/host/server_state.h"
#include "korvane/host/server_websocket_connection.h"
#include "korvane/transport/long_poll_provider.h"

namespace korvane::host {

namespace {

namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
namespace net = boost::asio;
using common::DataBuffer;

common::diagnostic_logger logger("korvane::host::http");

// After a response that ends the connection, the peer's leftovers are read and
// dropped for this long, so that closing does not reset the response away.
constexpr std::chrono::seconds lingerTimeout(1);
// How much a streaming response reads ahead of pipelined requests while it
// watches for the peer going away (over TLS).
constexpr std::size_t watchReadBytes = 4096;
// The most a plain connection's read asks for, as Beast's reads do.
constexpr std::size_t maxReadBytes = 64 * 1024;
constexpr std::string_view continueLine = "HTTP/1.1 100 Continue\r\n\r\n";
// Chunks of a streaming response asked for ahead of the socket. A held connect's answer
// comes as one chunk a message: the window is wide enough for a busy client's batch to
// leave in one write (at 16, a batch of 20 took two), and one write takes no more than
// `bodyWriteBytes` of chunks (at least one), so that a window of large chunks is not
// copied whole.
constexpr unsigned long bodyWindow = 64;
constexpr std::size_t bodyWriteBytes = 64 * 1024;

using Request = UpgradeRequest;
using FullResponse = bhttp::response<bhttp::string_body, PooledFields>;
using StreamHead = bhttp::response<bhttp::empty_body, PooledFields>;
using BodySignal = StreamSignal<DataBuffer>;

template <class Stream>
constexpr bool isTls = std::is_same_v<Stream, TlsStream>;

bool isBayeuxPath(std::string_view path, std::string_view bayeuxPath) {
    return !bayeuxPath.empty() && path.compare(0, bayeuxPath.size(), bayeuxPath) == 0 &&
           (path.size() == bayeuxPath.size() || path[bayeuxPath.size()] == '/');
}

bool isUpgrade(const Request& request) {
    return request.method() == bhttp::verb::get && beast::iequals(request[bhttp::field::upgrade], "websocket") &&
           bhttp::token_list(request[bhttp::field::connection]).exists("upgrade");
}

// Header names that describe this connection's framing, which the server sets itself.
bool isFramingHeader(std::string_view name) {
    return beast::iequals(name, "content-length") || beast::iequals(name, "transfer-encoding") ||
           beast::iequals(name, "connection");
}

std::string failureText(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& failure) {
        return failure.what();
    } catch (...) {
        return "Unknown error";
    }
}

// Subscribes to the body of an answer that nobody will send, and cancels at once,
// so that a stream behind it learns that its reader has gone.
void discardAnswer(Message* answer) {
    if (auto* response = dynamic_cast<http::HttpResponse*>(answer); response && response->body) {
        auto relay = std::make_shared<RelaySubscriber<DataBuffer>>(nullptr, true);
        response->body->subscribe(relay);
        relay->detach();
    } else if (auto* socket = dynamic_cast<http::WebSocket*>(answer)) {
        if (socket->inbound) {
            auto relay = std::make_shared<RelaySubscriber<http::WebSocketFrame>>(nullptr, true);
            socket->inbound->subscribe(relay);
            relay->detach();
        }
        if (socket->outbound) {
            socket->outbound->onComplete();
        }
    }
}

// One connection: reads a request, answers it, and only then reads the next, so
// that pipelined requests are answered in order. A Bayeux request goes to the
// service, whose answer (on any thread) comes back through `link`; a streaming
// body's signals wait in `bodyRelay`, which wakes the connection through `link`.
//
// A plain connection reads its socket itself and parses with Beast's parser: one wait
// for readability, started after the read that emptied the socket, stays queued from a
// request through its response to the next request. Bytes that come while a response
// is under way are kept for the next request, and the peer's close ends the connection
// if a held response streams. A long poll thus costs one receive a request and no
// cancelled read. Over TLS, Beast's reads do the same work: a read for the request, and
// a read that watches while a response streams, cancelled when it ends.
//
// Timeouts are kept here with one timer for the connection, the socket having none
// of its own, instead of a timer wait per operation: a limit set applies to the reads and
// the writes started after it, except on a side with an operation under way, which keeps
// its own; the first operation to pass its limit closes the socket. The timer is armed
// for the earliest limit under way and, when a later one replaced it meanwhile, armed
// again when it fires, so an operation costs a clock read.
//
// Threading: every member function but run(), shutdown() and abandon() runs on the
// connection's loop, whose one thread runs its handlers one at a time. run() runs on
// the accepting loop and starts only operations (a plain connection's first read goes
// to the connection's loop); shutdown() posts; abandon() runs on the stopping thread
// once no I/O thread is left. Nothing here takes a lock.
template <class Stream>
class HttpConnection : public ConnectionTracker::Tracked, public std::enable_shared_from_this<HttpConnection<Stream>> {
public:
    using Executor = typename Stream::executor_type;

    HttpConnection(Stream&& stream, std::shared_ptr<ServerState> state)
        : stream(std::move(stream)),
          loopExecutor(this->stream.get_executor()),
          state(std::move(state)),
          deadline(loopExecutor) {}

    ~HttpConnection() override { state->connections.remove(trackerId); }

    const Executor& executor() const { return loopExecutor; }

    void run() {
        link = std::make_shared<LoopLink<HttpConnection>>(this->shared_from_this());
        trackerId = state->connections.add(this->weak_from_this());
        if (trackerId == 0) {
            doClose();
            return;
        }
        if constexpr (isTls<Stream>) {
            expiresAfter(options().headerTimeout);
            begin(readSide);
            begin(writeSide);
            stream.async_handshake(net::ssl::stream_base::server,
                                    [self = this->shared_from_this()](beast::error_code error) {
                                        self->end(readSide);
                                        self->end(writeSide);
                                        if (error) {
                                            self->doClose();
                                        } else {
                                            self->doReadHeader();
                                        }
                                    });
        } else {
            // Reads try the socket and answer "would block" rather than wait in the kernel.
            beast::error_code error;
            lowest().non_blocking(true, error);
            if (error) {
                doClose();
                return;
            }
            // On the connection's loop: the wait a read leaves queued misses bytes whose
            // readiness that loop takes between the read and the wait.
            net::dispatch(loopExecutor, [self = this->shared_from_this()] { self->doReadHeader(); });
        }
    }

    void shutdown() override {
        net::post(loopExecutor, [self = this->shared_from_this()] { self->doClose(); });
    }

    void abandon() override { doClose(); }

private:
    friend class DeadlineTimer<HttpConnection>;
    friend class EdgeWait<HttpConnection>;
    const HttpServerOptions& options() const { return state->options; }
    PlainStream& lowest() { return beast::get_lowest_layer(stream); }
    // A peer that does not take a response within the write timeout is cut.
    void doArmWriteTimeout() {
        if (options().writeTimeout.count() == 0) {
            expiresNever();
        } else {
            expiresAfter(options().writeTimeout);
        }
    }

    // ---- timeouts ----------------------------------------------------------------

    enum Side : std::size_t { readSide, writeSide };
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::time_point never = Clock::time_point::max();

    void expiresAfter(Clock::duration timeout) { doSetLimit(Clock::now() + timeout); }
    void expiresNever() { doSetLimit(never); }
    void doSetLimit(Clock::time_point limit) {
        for (std::size_t side : {readSide, writeSide}) {
            if (!pending[side]) {
                limits[side] = limit;
            }
        }
    }

    // An operation on `side` starts, bounded by that side's limit, or ends.
    void begin(Side side) {
        pending[side] = true;
        if (limits[side] != never) {
            armDeadline(limits[side]);
        }
    }
    void end(Side side) { pending[side] = false; }

    void armDeadline(Clock::time_point due) { deadline.arm(due, this->weak_from_this()); }

    void onDeadline() {
        if (closed) {
            return;
        }
        const Clock::time_point now = Clock::now();
        Clock::time_point next = never;
        for (std::size_t side : {readSide, writeSide}) {
            if (!pending[side] || limits[side] == never) {
                continue;
            }
            if (now >= limits[side]) {
                // What is under way fails, and its handler ends the connection.
                lowest().close();
                return;
            }
            next = std::min(next, limits[side]);
        }
        if (next != never) {
            armDeadline(next);
        }
    }

    // ---- reading ----------------------------------------------------------------

    void doReadHeader() {
        if (closed) {
            return;
        }
        freshSession = false;
        corsOrigin.clear();
        parser.emplace();
        parser->header_limit(static_cast<std::uint32_t>(std::min<std::size_t>(options().maxHeaderBytes, UINT32_MAX)));
        parser->body_limit(options().maxBodyBytes);
        expiresAfter(options().headerTimeout);
        begin(readSide);
        if constexpr (isTls<Stream>) {
            bhttp::async_read_header(stream, buffer, *parser,
                                     pooledHandler([self = this->shared_from_this()](beast::error_code error, std::size_t) {
                                         self->end(readSide);
                                         self->onHeader(error);
                                     }));
        } else {
            bodyStarted = false;
            doReadRequestBytes();
        }
    }

    void onHeader(beast::error_code error) {
        if (error) {
            doReadFailed(error);
            return;
        }
        if (parser->is_done()) {
            onRequest();
            return;
        }
        if (expectsContinue()) {
            doSendContinue();
            return;
        }
        doReadBody();
    }

    bool expectsContinue() const { return beast::iequals(parser->get()[bhttp::field::expect], "100-continue"); }

    // The client waits for a go-ahead before it sends the body.
    void doSendContinue() {
        doArmWriteTimeout();
        begin(writeSide);
        net::async_write(stream, net::buffer(continueLine),
                         [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                             self->end(writeSide);
                             if (error) {
                                 self->doClose();
                             } else {
                                 self->doReadBody();
                             }
                         });
    }

    void doReadBody() {
        expiresAfter(options().headerTimeout);
        begin(readSide);
        if constexpr (isTls<Stream>) {
            bhttp::async_read(stream, buffer, *parser,
                              pooledHandler([self = this->shared_from_this()](beast::error_code error, std::size_t) {
                                  self->end(readSide);
                                  if (error) {
                                      self->doReadFailed(error);
                                  } else {
                                      self->onRequest();
                                  }
                              }));
        } else {
            doReadRequestBytes();
        }
    }

    void doReadFailed(beast::error_code error) {
        if (closed) {
            return;
        }
        keepAlive = false;
        if (error == bhttp::error::header_limit) {
            count(HostCounter::refusedForHeader);
            doSendText(bhttp::status::request_header_fields_too_large, "Request header too large");
        } else if (error == bhttp::error::body_limit) {
            count(HostCounter::refusedForBody);
            doSendText(bhttp::status::payload_too_large, "Request body too large");
        } else if (error.category() == bhttp::make_error_code(bhttp::error::bad_method).category() &&
                   error != bhttp::error::end_of_stream && error != bhttp::error::partial_message) {
            doSendText(bhttp::status::bad_request, "Malformed request");
        } else {
            doClose();
        }
    }

    // ---- reading a plain connection -------------------------------------------------

    // What the bytes read are for: the request being read, or, while a response is under
    // way (or a 100 Continue goes out), the next request; they then wait in `buffer`.
    enum class ReadMode { request, watch };

    std::size_t watchLimit() const { return options().maxHeaderBytes + options().maxBodyBytes; }

    // Parses what `buffer` holds; while the request needs more and no wait is queued, reads on.
    void doReadRequestBytes() {
        readMode = ReadMode::request;
        if (doTakeRequestBytes(false) && !waitQueued) {
            doReadAvailable();
        }
    }

    // Reads until the socket is empty, then waits for its next bytes; while watching,
    // stops once `buffer` holds as much as a request may.
    void doReadAvailable() {
        for (;;) {
            if (readMode == ReadMode::watch && buffer.size() >= watchLimit()) {
                return;
            }
            const std::size_t room = beast::read_size(buffer, maxReadBytes);
            beast::error_code error;
            const std::size_t bytes = lowest().read_some(buffer.prepare(room), error);
            if (error == net::error::would_block) {
                doWaitReadable();
                return;
            }
            if (error) {
                doReadEnded(error);
                return;
            }
            buffer.commit(bytes);
            // A read that got less than it asked for emptied the socket.
            const bool drained = bytes < room;
            if (readMode == ReadMode::request && !doTakeRequestBytes(drained)) {
                return;
            }
            if (drained) {
                doWaitReadable();
                return;
            }
        }
    }

    // Parses `buffer` into the request being read. Returns true while the request needs
    // more bytes; otherwise the request has been taken or refused. `drained`: the read
    // just made emptied the socket, so the wait may start before the request is taken
    // (never for an upgrade, whose socket goes to the WebSocket connection).
    bool doTakeRequestBytes(bool drained) {
        for (;;) {
            if (buffer.size() == 0) {
                return true;
            }
            beast::error_code error;
            const std::size_t used = parser->put(buffer.data(), error);
            buffer.consume(used);
            if (error == bhttp::error::need_more) {
                return true;
            }
            if (error) {
                end(readSide);
                doReadFailed(error);
                return false;
            }
            if (parser->is_done()) {
                end(readSide);
                readMode = ReadMode::watch;
                if (drained && !isUpgrade(parser->get())) {
                    doWaitReadable();
                }
                onRequest();
                return false;
            }
            if (parser->is_header_done() && !bodyStarted) {
                bodyStarted = true;
                parser->eager(true);
                if (expectsContinue()) {
                    end(readSide);
                    readMode = ReadMode::watch;
                    if (drained) {
                        doWaitReadable();
                    }
                    doSendContinue();
                    return false;
                }
            } else if (used == 0) {
                return true;
            }
        }
    }

    // Precondition: a read made in the handler now running emptied the socket (EdgeWait).
    void doWaitReadable() {
        waitQueued = true;
        readable.start(lowest(), this->shared_from_this());
    }

    void onReadable(beast::error_code error) {
        waitQueued = false;
        if (closed) {
            return;
        }
        if (error) {
            doReadEnded(error);
            return;
        }
        doReadAvailable();
    }

    // The peer's end cuts a request short and ends a streaming response. A peer that ends
    // its side while a whole response (or a 100 Continue) is written still gets it: the
    // read after it sees the end again.
    void doReadEnded(beast::error_code error) {
        if (readMode == ReadMode::watch && !bodyRelay && error == net::error::eof) {
            return;
        }
        doClose();
    }

    void onRequest() {
        request = parser->release();
        parser.reset();
        keepAlive = request.keep_alive();
        doReadSession();
        const std::string_view target = request.target();
        const std::string_view path = target.substr(0, target.find('?'));
        if (isBayeuxPath(path, options().bayeuxPath)) {
            doBayeux();
        } else if (path == "/healthz") {
            doSendText(bhttp::status::ok, "serving\n");
        } else if (path == "/readyz") {
            doReadiness();
        } else if (path == "/metrics" && state->metrics) {
            doSendText(bhttp::status::ok, state->metrics->render(), "text/plain; version=0.0.4; charset=utf-8");
        } else {
            doStatic(path);
        }
    }

    void doReadiness() {
        const std::string reason = options().notReadyReason ? options().notReadyReason() : std::string();
        if (reason.empty()) {
            doSendText(bhttp::status::ok, "ready\n");
        } else {
            doSendText(bhttp::status::service_unavailable, reason + "\n");
        }
    }

    void doReadSession() {
        sessionId.clear();
        auto cookies = request.equal_range(bhttp::field::cookie);
        for (auto field = cookies.first; field != cookies.second && sessionId.empty(); ++field) {
            // Assigned in place: the previous request's id leaves its storage for this one.
            sessionId.assign(findBrowserSessionId(field->value(), options().cookieName));
        }
        if (sessionId.empty()) {
            sessionId = newBrowserSessionId();
            freshSession = true;
        }
    }

    // ---- the Bayeux path -----------------------------------------------------------

    void doBayeux() {
        const std::string_view origin = request[bhttp::field::origin];
        if (state->origins.isListed(origin)) {
            corsOrigin = std::string(origin);
            if (request.method() == bhttp::verb::options) {
                doPreflight();
                return;
            }
        }
        upgrade = isUpgrade(request);
        if (upgrade && !state->origins.allowsUpgrade(origin, request[bhttp::field::host])) {
            count(HostCounter::refusedForOrigin);
            doSendText(bhttp::status::forbidden, "Origin not allowed");
            return;
        }
        doDeliver();
    }

    void doPreflight() {
        auto response = doMakeResponse(bhttp::status::no_content);
        response->set(bhttp::field::access_control_allow_methods, "POST, GET, OPTIONS");
        const std::string_view requested = request[bhttp::field::access_control_request_headers];
        response->set(bhttp::field::access_control_allow_headers, requested.empty() ? "Content-Type" : requested);
        response->set(bhttp::field::access_control_max_age, "86400");
        doWriteFull(std::move(response), false);
    }

    void doDeliver() {
        if (!upgrade) {
            count(HostCounter::longPollBytesIn, request.body().size());
        }
        const bool longPoll = goesToLongPoll();
        http::Headers headers;
        if (!longPoll || options().requestInContext) {
            for (const auto& field : request) {
                headers.emplace(asciiLowered(field.name_string()), std::string(field.value()));
            }
        }
        auto context = HostContext::create(state->registry);
        context->set("sessionId", boost::any(sessionId));
        if (options().requestInContext) {
            doDescribeRequest(*context, headers);
        }
        Future<std::unique_ptr<Message>> answer =
            longPoll ? bayeux::answerLongPollBody(DataBuffer(request.body()), options().longPollAddress, context,
                                                  &longPollConnects)
                     : doDispatch(std::move(headers), context);
        // Runs on whichever thread resolves the answer. An answer that is ready runs it
        // inside then(), on this thread, and is taken here instead of posted.
        typename LoopLink<HttpConnection>::InPlace inPlace(*link);
        answer.then([link = link](Future<std::unique_ptr<Message>>&& resolved) {
            Answer answer;
            try {
                answer.message = resolved.get();
                if (!answer.message) {
                    answer.failure = "The service gave no answer";
                }
            } catch (...) {
                answer.failure = failureText(std::current_exception());
            }
            // A link that is cut leaves the answer here, untaken.
            if (!link->post(std::move(answer))) {
                discardAnswer(answer.message.get());
            }
            return true;
        });
    }

    // The Bayeux dispatch sends a POST to the long-poll transport unless an Upgrade header
    // says "websocket"; one with any Upgrade header takes the dispatch's own way.
    bool goesToLongPoll() const {
        return options().longPollAddress && request.method() == bhttp::verb::post &&
               request.find(bhttp::field::upgrade) == request.end();
    }

    Future<std::unique_ptr<Message>> doDispatch(http::Headers&& headers, const std::shared_ptr<HostContext>& context) {
        auto body = std::make_shared<reactive_streams::OneShotPublisher<DataBuffer>>(DataBuffer(request.body()));
        auto message = std::make_unique<http::HttpRequest>(asciiLowered(request.method_string()),
                                                           std::string(request.target()), std::move(headers),
                                                           std::move(body));
        return context->handle(std::unique_ptr<Message>(std::move(message)), Address(options().bayeuxAddress));
    }

    // A service's answer on its way to the connection's loop.
    struct Answer {
        std::unique_ptr<Message> message;
        std::string failure;
        void operator()(HttpConnection& connection) { connection.onAnswer(*this); }
    };

    void doDescribeRequest(Context& context, const http::Headers& headers) {
        context.set("headers", boost::any(headers));
        boost::system::error_code error;
        const auto peer = lowest().remote_endpoint(error);
        context.set("remoteAddress", boost::any(error ? std::string() : peer.address().to_string()));
    }

    void onAnswer(const Answer& answer) {
        if (closed) {
            discardAnswer(answer.message.get());
            return;
        }
        if (!answer.failure.empty()) {
            doSendText(bhttp::status::internal_server_error, answer.failure);
            return;
        }
        if (auto* response = messageAs<http::HttpResponse>(answer.message.get())) {
            doRespond(*response);
            return;
        }
        if (auto* socket = dynamic_cast<http::WebSocket*>(answer.message.get())) {
            if (upgrade && socket->inbound && socket->outbound) {
                doHandOver(*socket);
            } else {
                discardAnswer(socket);
                doSendText(bhttp::status::internal_server_error, "A WebSocket cannot answer this request");
            }
            return;
        }
        doSendText(bhttp::status::internal_server_error, "The service gave an answer that is not HTTP");
    }

    void doHandOver(http::WebSocket& socket) {
        // The stream now belongs to the WebSocket connection; this one ends with its handlers.
        closed = true;
        link->cut();
        deadline.cancel();
        if (waitQueued) {
            // A pipelined upgrade, parsed while the wait watched: the wait ends before the socket moves.
            beast::error_code ignored;
            lowest().cancel(ignored);
        }
        std::string cookie =
            freshSession ? browserSessionCookie(options().cookieName, sessionId, isTls<Stream>) : std::string();
        serveWebSocket<Stream>(std::move(stream), std::move(request), std::move(socket.inbound),
                               std::move(socket.outbound), state, std::move(cookie));
    }

    // ---- responses ---------------------------------------------------------------

    void doRespond(http::HttpResponse& answer) {
        if (!answer.body) {
            auto response = doMakeResponse(static_cast<bhttp::status>(answer.status));
            doCopyHeaders(answer.headers, *response);
            doWriteFull(std::move(response), true);
            return;
        }
        try {
            doSubscribeBody(answer.body);
        } catch (...) {
            doEndBody();
            doSendText(bhttp::status::internal_server_error, failureText(std::current_exception()));
            return;
        }
        const bool endedAtOnce = !arrivedBody.empty() && arrivedBody.back().ended;
        if (endedAtOnce && arrivedBody.back().error) {
            const std::exception_ptr error = arrivedBody.back().error;
            doEndBody();
            doSendText(bhttp::status::internal_server_error, failureText(error));
            return;
        }
        if (endedAtOnce) {
            auto response = doMakeResponse(static_cast<bhttp::status>(answer.status));
            doCopyHeaders(answer.headers, *response);
            for (const BodySignal& signal : arrivedBody) {
                if (signal.item) {
                    response->body().append(signal.item->view());
                }
            }
            doEndBody();
            count(HostCounter::longPollBytesOut, response->body().size());
            doWriteFull(std::move(response), true);
            return;
        }
        doStartStreaming(answer);
    }

    // Subscribes a relay to the body and asks for the first chunk; what came at once waits
    // in `arrivedBody`. Later signals wake the connection once the handler that made them
    // has returned, so that a held connect's messages, its reply and the end of the body,
    // made together, are taken together.
    void doSubscribeBody(const std::shared_ptr<http::BodyPublisher>& body) {
        bodyPublisher = body;
        arrivedBody.clear();
        bodyRelay = std::make_shared<RelaySubscriber<DataBuffer>>(
            [link = link, relay = ++relayCount] {
                link->defer([relay](HttpConnection& connection) { connection.onBodyReady(relay); });
            },
            true);
        body->subscribe(bodyRelay);
        bodyRelay->request(1);
        bodyRelay->takeAll(arrivedBody);
    }

    void doStartStreaming(http::HttpResponse& answer) {
        countResponse(answer.status);
        doMakeStreamHead(answer);
        doReleaseRequest();
        headPending = true;
        doDropPendingBody();
        doTakeArrivedBody();
        // The first chunk is asked for already; the rest of the window lets chunks that are
        // made together wait here while a write is under way, and leave in one write.
        bodyRelay->request(bodyWindow - 1);
        // The read side watches for the peer going away and never times out: a held
        // response lasts as long as the service keeps it.
        expiresNever();
        doWatch();
        doPumpBody();
    }

    // Puts the head's bytes in `headBytes`. A connection's held connects answer with the
    // same head, one after the other: its bytes are kept and taken again while what they
    // are made of stays the same. A head with a fresh session's cookie is never kept.
    void doMakeStreamHead(const http::HttpResponse& answer) {
        const unsigned version = request.version();
        if (!freshSession && keptHead.makes(answer, version, keepAlive, corsOrigin)) {
            headBytes.assign(keptHead.bytes);
            return;
        }
        // The head's fields go as soon as its bytes are made: a held response keeps only those.
        StreamHead head(static_cast<bhttp::status>(answer.status), version);
        doCopyHeaders(answer.headers, head);
        doDecorate(head);
        head.keep_alive(keepAlive);
        head.chunked(true);
        headBytes.clear();
        appendSerializedHead(head, headBytes);
        if (!freshSession) {
            keptHead = KeptHead{answer.status, answer.headers, version, keepAlive, corsOrigin, headBytes};
        }
    }

    void onBodyReady(std::uint64_t relay) {
        if (closed || relay != relayCount || !bodyRelay) {
            return;
        }
        bodyRelay->takeAll(arrivedBody);
        doTakeArrivedBody();
        doPumpBody();
    }

    void doTakeArrivedBody() {
        for (BodySignal& signal : arrivedBody) {
            pendingBody.push_back(std::move(signal));
        }
        arrivedBody.clear();
    }

    // Writes in one go the head, if it has not gone out, and the waiting chunks up to the
    // end of the body or `bodyWriteBytes`; the head goes out alone when no chunk waits, so
    // that a held response shows at once. A failure waiting behind the chunks is handled
    // once they are written.
    void doPumpBody() {
        if (writing || closed || (pendingBody.empty() && !headPending)) {
            return;
        }
        outgoing.clear();
        if (headPending) {
            headPending = false;
            outgoing.swap(headBytes);
        }
        std::size_t taken = 0;
        bool ended = false;
        while (!pendingBody.empty() && !ended && !pendingBody.front().error) {
            BodySignal& signal = pendingBody.front();
            if (signal.item && taken != 0 && outgoing.size() >= bodyWriteBytes) {
                break;
            }
            if (!signal.item) {
                outgoing += lastChunk;
                ended = true;
            } else {
                ++taken;
                // An empty chunk would read as the end of the body: it is only taken.
                if (!signal.item->empty()) {
                    count(HostCounter::longPollBytesOut, signal.item->size);
                    appendChunk(signal.item->view(), outgoing);
                }
            }
            pendingBody.pop_front();
        }
        if (outgoing.empty()) {
            doTakeEmptyChunksOrFail(taken);
            return;
        }
        writing = true;
        doArmWriteTimeout();
        begin(writeSide);
        net::async_write(stream, net::buffer(outgoing),
                         pooledHandler([self = this->shared_from_this(), taken, ended](beast::error_code error,
                                                                                       std::size_t) {
                             self->end(writeSide);
                             self->onBodyWritten(error, taken, ended);
                         }));
    }

    // Nothing to write: the chunks taken were empty, or a failure is at the front.
    void doTakeEmptyChunksOrFail(std::size_t taken) {
        if (pendingBody.empty()) {
            doRenewDemand(taken);
            return;
        }
        // The head is out (a body that fails at once is answered 500 before streaming
        // starts): the peer learns of the failure from a body that never ends.
        KORVANE_LOG(logger, common::logFailure) << "Response body failed: " << failureText(pendingBody.front().error);
        doClose();
    }

    void onBodyWritten(beast::error_code error, std::size_t taken, bool ended) {
        writing = false;
        if (error) {
            doClose();
            return;
        }
        if (closed) {
            return;
        }
        if (ended) {
            doEndBody();
            doNextRequest();
            return;
        }
        doRenewDemand(taken);
        doPumpBody();
    }

    void doRenewDemand(std::size_t taken) {
        if (taken != 0) {
            bodyRelay->request(taken);
        }
    }

    // Drops the body's relay: cancels the stream unless it ended.
    void doEndBody() {
        if (bodyRelay) {
            bodyRelay->detach();
            bodyRelay.reset();
        }
        bodyPublisher.reset();
        doDropPendingBody();
        arrivedBody.clear();
    }

    // The ring keeps its slots for the next body: a held connect's answer passes a few
    // signals through it every cycle.
    void doDropPendingBody() {
        while (!pendingBody.empty()) {
            pendingBody.pop_front();
        }
    }

    // Reads ahead while a response streams, to see the peer go away. Pipelined
    // requests that come meanwhile wait in `buffer`. Over TLS, a read that is cancelled
    // when the response ends; a plain connection keeps its wait.
    void doWatch() {
        if constexpr (isTls<Stream>) {
            if (watching || closed || buffer.size() >= watchLimit()) {
                return;
            }
            watching = true;
            begin(readSide);
            stream.async_read_some(buffer.prepare(watchReadBytes),
                                   pooledHandler([self = this->shared_from_this()](beast::error_code error, std::size_t bytes) {
                                       self->end(readSide);
                                       self->onWatch(error, bytes);
                                   }));
        } else if (!waitQueued && !closed) {
            // Normally the wait started with the request's last read is still queued.
            doReadAvailable();
        }
    }

    void onWatch(beast::error_code error, std::size_t bytes) {
        watching = false;
        if (closed) {
            return;
        }
        buffer.commit(bytes);
        if (resumeAfterWatch) {
            resumeAfterWatch = false;
            if (!error || error == net::error::operation_aborted) {
                doReadHeader();
            } else {
                doClose();
            }
        } else if (error) {
            doClose();
        } else if (bodyRelay) {
            doWatch();
        }
    }

    void doNextRequest() {
        if (!keepAlive) {
            // A read or wait still queued has taken what the peer sent: nothing is left to linger for.
            if (watching || waitQueued) {
                doClose();
            } else {
                doLingerClose();
            }
        } else if (watching) {
            // The watch read still waits; once cancelled, its handler reads the next request.
            resumeAfterWatch = true;
            lowest().cancel();
        } else {
            doReadHeader();
        }
    }

    // Frees the request's fields and body once its response is made, while they are still
    // in the cache: left to the next request, a held connect's fields were freed some
    // 50 ms later, a cache miss on every field.
    void doReleaseRequest() {
        request.clear();
        std::string().swap(request.body());
    }

    std::unique_ptr<FullResponse> doMakeResponse(bhttp::status status) {
        return std::make_unique<FullResponse>(status, request.version() == 10 ? 10 : 11);
    }

    template <class Head>
    static void doCopyHeaders(const http::Headers& headers, Head& head) {
        for (const auto& [name, value] : headers) {
            if (!isFramingHeader(name)) {
                head.insert(name, value);
            }
        }
    }

    void doDecorate(PooledFields& fields) {
        fields.set(bhttp::field::server, "korvane");
        if (freshSession) {
            fields.insert(bhttp::field::set_cookie,
                          browserSessionCookie(options().cookieName, sessionId, isTls<Stream>));
        }
        if (!corsOrigin.empty()) {
            fields.set(bhttp::field::access_control_allow_origin, corsOrigin);
            fields.set(bhttp::field::access_control_allow_credentials, "true");
            fields.set(bhttp::field::vary, "Origin");
        }
    }

    void doSendText(bhttp::status status, std::string_view text,
                    std::string_view contentType = "text/plain; charset=utf-8") {
        auto response = doMakeResponse(status);
        response->set(bhttp::field::content_type, contentType);
        response->body() = std::string(text);
        doWriteFull(std::move(response), true);
    }

    // Writes a whole response; with `withPayload` its Content-Length is that of its body.
    void doWriteFull(std::unique_ptr<FullResponse> response, bool withPayload) {
        doDecorate(*response);
        response->keep_alive(keepAlive);
        if (withPayload) {
            response->prepare_payload();
        }
        full = std::move(response);
        doReleaseRequest();
        countResponse(full->result_int());
        doArmWriteTimeout();
        begin(writeSide);
        bhttp::async_write(stream, *full, pooledHandler([self = this->shared_from_this()](beast::error_code error,
                                                                                         std::size_t) {
            self->end(writeSide);
            self->full.reset();
            if (error) {
                self->doClose();
            } else {
                self->doNextRequest();
            }
        }));
    }

    // ---- static files ---------------------------------------------------------------

    void doStatic(std::string_view path) {
        const bool head = request.method() == bhttp::verb::head;
        if (!head && request.method() != bhttp::verb::get) {
            auto response = doMakeResponse(bhttp::status::method_not_allowed);
            response->set(bhttp::field::allow, "GET, HEAD");
            doWriteFull(std::move(response), true);
            return;
        }
        std::optional<StaticFile> file = state->staticFiles.find(path);
        std::string content;
        if (file && !head && !readWholeFile(file->path, content)) {
            file.reset();
        }
        if (!file) {
            doSendText(bhttp::status::not_found, "Not Found");
            return;
        }
        const bool current = StaticFiles::isNotModified(*file, request[bhttp::field::if_none_match],
                                                        request[bhttp::field::if_modified_since]);
        auto response = doMakeResponse(current ? bhttp::status::not_modified : bhttp::status::ok);
        response->set(bhttp::field::etag, file->etag);
        response->set(bhttp::field::last_modified, file->lastModified);
        response->set(bhttp::field::cache_control, "no-cache");
        if (current) {
            doWriteFull(std::move(response), false);
            return;
        }
        response->set(bhttp::field::content_type, file->contentType);
        if (head) {
            response->content_length(file->size);
            doWriteFull(std::move(response), false);
        } else {
            response->body() = std::move(content);
            doWriteFull(std::move(response), true);
        }
    }

    static bool readWholeFile(const std::filesystem::path& path, std::string& content) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            return false;
        }
        content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        return !in.bad();
    }

    // ---- ending ------------------------------------------------------------------

    // Sends no more, drops what the peer still sends for a moment, then closes.
    void doLingerClose() {
        if (closed) {
            return;
        }
        beast::error_code ignored;
        lowest().shutdown(net::socket_base::shutdown_send, ignored);
        expiresAfter(lingerTimeout);
        doLinger();
    }

    void doLinger() {
        begin(readSide);
        lowest().async_read_some(net::buffer(scratch),
                                 [self = this->shared_from_this()](beast::error_code error, std::size_t) {
                                     self->end(readSide);
                                     if (error) {
                                         self->doClose();
                                     } else {
                                         self->doLinger();
                                     }
                                 });
    }

    void doClose() {
        if (closed) {
            return;
        }
        closed = true;
        doEndBody();
        link->cut();
        deadline.cancel();
        lowest().close();
    }

    Stream stream;
    const Executor loopExecutor;
    const std::shared_ptr<ServerState> state;
    std::shared_ptr<LoopLink<HttpConnection>> link;
    std::uint64_t trackerId = 0;

    beast::flat_buffer buffer;
    std::optional<bhttp::request_parser<bhttp::string_body, PooledAllocator<char>>> parser;
    Request request;
    std::string sessionId;
    bool freshSession = false;
    // The connection's last long-poll connect, so that the next ones are read without parsing.
    bayeux::ConnectTemplate longPollConnects;
    std::string corsOrigin;
    bool keepAlive = false;
    bool upgrade = false;

    std::unique_ptr<FullResponse> full;
    std::shared_ptr<http::BodyPublisher> bodyPublisher;
    std::shared_ptr<RelaySubscriber<DataBuffer>> bodyRelay;
    // Numbers the bodies, so that a signal of an earlier one is not taken for the current one's.
    std::uint64_t relayCount = 0;
    // Signals taken from the relay, on their way to `pendingBody`; keeps its room.
    std::vector<BodySignal> arrivedBody;
    common::RingQueue<BodySignal> pendingBody;
    // The bytes of the body write under way.
    std::string outgoing;
    // A streamed response's head while it waits for the first write; it then trades
    // storage with `outgoing`.
    std::string headBytes;
    // The last streamed head without a cookie, and what it was made of.
    struct KeptHead {
        unsigned short status = 0;
        http::Headers headers;
        unsigned version = 0;
        bool keepAlive = false;
        std::string corsOrigin;
        std::string bytes;

        bool makes(const http::HttpResponse& answer, unsigned otherVersion, bool otherKeepAlive,
                   const std::string& otherOrigin) const {
            return !bytes.empty() && status == answer.status && version == otherVersion &&
                   keepAlive == otherKeepAlive && corsOrigin == otherOrigin &&
                   // In the order they are written: equal maps may iterate differently.
                   std::equal(headers.begin(), headers.end(), answer.headers.begin(), answer.headers.end());
        }
    } keptHead;
    bool headPending = false;
    bool writing = false;
    // Over TLS: a watch read is under way, and the next request is read once it is cancelled.
    bool watching = false;
    bool resumeAfterWatch = false;
    // A plain connection's reading: see "reading a plain connection".
    ReadMode readMode = ReadMode::request;
    bool waitQueued = false;
    bool bodyStarted = false;
    EdgeWait<HttpConnection> readable;
    bool closed = false;
    std::array<char, 4096> scratch{};

    // Indexed by Side: the limit for operations started from now on, and whether one is under way.
    Clock::time_point limits[2] = {never, never};
    bool pending[2] = {false, false};
    DeadlineTimer<HttpConnection> deadline;
};

}  // namespace

void serveHttpConnection(ConnectionSocket&& socket, const std::shared_ptr<ServerState>& state) {
    if (state->tls != nullptr) {
        std::make_shared<HttpConnection<TlsStream>>(TlsStream(std::move(socket), *state->tls), state)->run();
    } else {
        std::make_shared<HttpConnection<PlainStream>>(std::move(socket), state)->run();
    }
}

}  // namespace korvane::host
