#pragma once

// Opens a TCP socket bound to a chosen local address before it connects, so that a
// run can spread its connections over several loopback addresses and go past the
// ports of one. Threading: none.

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

namespace korvane::load {

// Opens `socket` for `server`'s family, binds it to `source` unless unspecified
// (leaving the port to connect time) and turns Nagle off.
boost::system::error_code prepareSocket(boost::asio::ip::tcp::socket& socket,
                                        const boost::asio::ip::tcp::endpoint& server,
                                        const boost::asio::ip::address& source);

}  // namespace korvane::load
