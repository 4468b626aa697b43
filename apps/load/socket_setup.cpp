#include "load/socket_setup.h"

#include <netinet/in.h>
#include <sys/socket.h>

namespace korvane::load {

boost::system::error_code prepareSocket(boost::asio::ip::tcp::socket& socket,
                                        const boost::asio::ip::tcp::endpoint& server,
                                        const boost::asio::ip::address& source) {
    boost::system::error_code ec;
    socket.open(server.protocol(), ec);
    if (ec) {
        return ec;
    }
    socket.set_option(boost::asio::ip::tcp::no_delay(true), ec);
    if (!source.is_unspecified()) {
        // Without this, bind() reserves a port for every destination and one address
        // runs out after some 28,000 connections.
        const int on = 1;
        ::setsockopt(socket.native_handle(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        socket.bind(boost::asio::ip::tcp::endpoint(source, 0), ec);
    }
    return ec;
}

}  // namespace korvane::load
