#include "korvane/host/edge_wait.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/write.hpp>

namespace korvane::host {
namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

// What the wait told, as text: "readable" or the error's message.
struct Reader {
    void onReadable(const boost::system::error_code& error) { told += error ? error.message() : "readable"; }
    std::string told;
    EdgeWait<Reader> wait;
};

// Connects `quiet` to `peer`; the wait goes on `quiet`, whose peer has sent nothing yet.
void connectPair(net::io_context& loop, tcp::socket& quiet, tcp::socket& peer) {
    tcp::acceptor acceptor(loop, tcp::endpoint(net::ip::address_v4::loopback(), 0));
    peer.connect(acceptor.local_endpoint());
    acceptor.accept(quiet);
    quiet.non_blocking(true);
}

struct EdgeWaitTest : ::testing::Test {
    void SetUp() override {
        connectPair(loop, quiet, peer);
        reader->wait.start(quiet, reader);
    }
    net::io_context loop{1};
    tcp::socket quiet{loop};
    tcp::socket peer{loop};
    std::shared_ptr<Reader> reader = std::make_shared<Reader>();
};

// The reactor tries a new read on a socket it has not seen drained: the wait must not
// take that try for the edge, and must come on the bytes that follow.
TEST_F(EdgeWaitTest, ComesOnThePeersNextBytesOnly) {
    loop.poll();
    EXPECT_EQ(reader->told, "");
    net::write(peer, net::buffer("x", 1));
    loop.run_one();
    EXPECT_EQ(reader->told, "readable");
}

TEST_F(EdgeWaitTest, ClosingTheSocketEndsTheWait) {
    quiet.close();
    loop.run_one();
    EXPECT_EQ(reader->told, net::error::make_error_code(net::error::operation_aborted).message());
}

// The wait holds its owner, which holds the wait: a loop that goes first must break that.
TEST(EdgeWait, ALoopDestroyedWithTheWaitPendingLetsTheOwnerGo) {
    std::weak_ptr<Reader> owner;
    {
        net::io_context loop{1};
        tcp::socket quiet{loop};
        tcp::socket peer{loop};
        connectPair(loop, quiet, peer);
        auto reader = std::make_shared<Reader>();
        owner = reader;
        reader->wait.start(quiet, std::move(reader));
    }
    EXPECT_TRUE(owner.expired());
}

}  // namespace
}  // namespace korvane::host
