#include "korvane/host/edge_wait.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include <boost/asio/write.hpp>

namespace korvane::host {
namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

struct Reader {
    void onReadable(const boost::system::error_code& error) { told = error ? error.message() : "readable"; }
    std::string& told;
    EdgeWait<Reader> wait;
};

// The wait starts on a socket whose peer has sent nothing: the reactor's immediate try of
// a new operation must not count as the edge. The wait holds its owner, which holds the
// wait: a loop that goes with the wait pending must let the owner go too.
TEST(EdgeWait, ComesOnTheNextBytesOrTheCloseAndLetsItsOwnerGoWithTheLoop) {
    using Then = void (*)(tcp::socket& quiet, tcp::socket& peer);
    const std::pair<Then, std::string> cases[] = {
        {[](tcp::socket&, tcp::socket&) {}, "(nothing)"},
        {[](tcp::socket&, tcp::socket& peer) { net::write(peer, net::buffer("x", 1)); }, "readable"},
        {[](tcp::socket& quiet, tcp::socket&) { quiet.close(); },
         net::error::make_error_code(net::error::operation_aborted).message()},
    };
    for (const auto& [then, expected] : cases) {
        std::string told = "(nothing)";
        std::weak_ptr<Reader> owner;
        {
            net::io_context loop{1};
            tcp::socket quiet{loop}, peer{loop};
            tcp::acceptor acceptor(loop, tcp::endpoint(net::ip::address_v4::loopback(), 0));
            peer.connect(acceptor.local_endpoint());
            acceptor.accept(quiet);
            quiet.non_blocking(true);
            std::shared_ptr<Reader> reader(new Reader{told});
            owner = reader;
            reader->wait.start(quiet, std::move(reader));
            then(quiet, peer);
            loop.poll();
            EXPECT_EQ(told, expected);
        }
        EXPECT_TRUE(owner.expired()) << expected;
    }
}

}  // namespace
}  // namespace korvane::host
