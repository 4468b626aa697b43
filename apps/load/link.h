#pragma once

// How a load client reaches the server: a WebSocket, or the two HTTP connections of
// a long-polling browser. The client hands it single Bayeux messages; the link
// batches those that wait into one array per write or request, and hands every
// reply body back. A link belongs to one client and runs on that client's thread;
// its callbacks run there too and never inline from send().

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korvane::load {

struct LinkEvents {
    // A reply body: a JSON array of messages.
    std::function<void(std::string_view body)> onBody;
    // The connection broke or the server answered with an error status. The link is
    // closed; send() reopens it.
    std::function<void(const std::string& what)> onFailure;
};

struct LinkTarget {
    boost::asio::ip::tcp::endpoint server;
    std::string hostHeader;  // host:port
    std::string path;        // the Bayeux path
    // The local address to bind to, or unspecified for the system's choice.
    boost::asio::ip::address source;
};

class Link {
public:
    virtual ~Link() = default;
    // Queues one message. `isConnect` marks a /meta/connect, which a long-polling
    // browser sends on its own connection while the other one carries the rest.
    virtual void send(std::string message, bool isConnect) = 0;
    // Closes the connections at once; no callback follows.
    virtual void close() = 0;
};

// Appends the queued messages to `out` as one JSON array, and empties the queue.
inline void moveIntoArray(std::vector<std::string>& queued, std::string& out) {
    out.push_back('[');
    for (std::size_t i = 0; i < queued.size(); ++i) {
        if (i != 0) {
            out.push_back(',');
        }
        out += queued[i];
    }
    out.push_back(']');
    queued.clear();
}

std::unique_ptr<Link> makeWebSocketLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events);
std::unique_ptr<Link> makeLongPollingLink(boost::asio::io_context& io, const LinkTarget& target, LinkEvents events);

}  // namespace korvane::load
