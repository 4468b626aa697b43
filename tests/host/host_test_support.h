#pragma once

// What the host's tests share: a self-signed certificate for 127.0.0.1 (its files), made once
// for the whole run with the openssl command and removed when the run ends, a raw client's
// requests, and the names of WebSocket opcodes in the texts of frames. Threading: any test thread.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include "korvane/host/websocket_frames.h"

namespace korvane::host::test {

struct TestCertificate {
    TestCertificate() {
        char pattern[] = "/tmp/korvane-host-tls-XXXXXX";
        folder = ::mkdtemp(pattern);
        cert = folder + "/cert.pem";
        key = folder + "/key.pem";
        const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                                    " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                    key + " -out " + cert + " 2>/dev/null";
        if (std::system(command.c_str()) != 0) {
            throw std::runtime_error("openssl could not make a test certificate");
        }
    }
    ~TestCertificate() { std::filesystem::remove_all(folder); }
    std::string folder, cert, key;
};

inline const TestCertificate& certificate() {
    static const TestCertificate made;
    return made;
}

// A raw client's connection to `port`, `request` sent.
inline boost::asio::ip::tcp::socket sent(boost::asio::io_context& io, unsigned short port, const std::string& request) {
    boost::asio::ip::tcp::socket socket(io);
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), port});
    boost::asio::write(socket, boost::asio::buffer(request));
    return socket;
}

// All that the server writes back to `request` until it closes the connection.
inline std::string exchange(unsigned short port, const std::string& request) {
    boost::asio::io_context io;
    auto socket = sent(io, port, request);
    std::string response;
    boost::system::error_code ended;
    boost::asio::read(socket, boost::asio::dynamic_buffer(response), ended);
    return response;
}

inline std::string opcodeName(Opcode opcode) {
    static const char* const names[16] = {"cont", "text", "binary", "", "", "", "", "", "close", "ping", "pong"};
    return names[static_cast<int>(opcode)];
}

}  // namespace korvane::host::test
