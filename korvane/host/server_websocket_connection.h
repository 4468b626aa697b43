#pragma once

// One WebSocket of the host's server, taken over from an HTTP connection whose
// upgrade the Bayeux service answered with an http::WebSocket. Internal to the
// server: included only by its .cpp files.

#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include "korvane/frame/http.h"
#include "korvane/host/handler_pool.h"

namespace korvane::host {

struct ServerState;

// A connection's executor is its loop's: each loop is run by one thread only, so the
// handlers of a connection already run one at a time, in the order they were queued,
// without a strand. It is the socket's own executor type: with Asio's polymorphic
// executor, every read and write copied and destroyed a type-erased one.
using ConnectionExecutor = boost::asio::io_context::executor_type;
using ConnectionSocket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, ConnectionExecutor>;
// A plain connection's stream is its bare socket: its reads and writes need no wrapper,
// and its deadlines are the connection's own.
using PlainStream = ConnectionSocket;
using TlsStream = boost::beast::ssl_stream<PlainStream>;
// Header fields on the I/O thread's block pool: each field of a request or a response is
// an allocation, made and freed on the connection's loop once per request.
using PooledFields = boost::beast::http::basic_fields<PooledAllocator<char>>;
using UpgradeRequest = boost::beast::http::request<boost::beast::http::string_body, PooledFields>;

// Accepts `upgrade` on `stream` (Set-Cookie `setCookie` on the 101 unless empty),
// then writes the frames of `inbound` to the peer and delivers the peer's messages
// to `outbound`. Instantiated for PlainStream and TlsStream.
template <class Stream>
void serveWebSocket(Stream&& stream, UpgradeRequest&& upgrade,
                    std::shared_ptr<reactive_streams::PublisherAPI<http::WebSocketFrame>> inbound,
                    std::shared_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> outbound,
                    std::shared_ptr<ServerState> state, std::string setCookie);

}  // namespace korvane::host
