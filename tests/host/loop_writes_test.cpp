#include "korvane/host/loop_writes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/post.hpp>

namespace korvane::host {
namespace {

namespace net = boost::asio;

struct Writer : LoopWriter, std::enable_shared_from_this<Writer> {
    Writer(LoopWrites& writes, int socket, std::string text) : writes(writes), socket(socket), text(std::move(text)) {}
    void onWoken() override {
        ++wakes;
        const net::const_buffer buffer = net::buffer(text);
        added = writes.add(shared_from_this(), &buffer, 1);
    }
    int batchedSocket() override { return socket; }
    void onBatchWritten(boost::system::error_code error, std::size_t written) override {
        results.push_back(error ? -error.value() : static_cast<int>(written));
        if (then) {
            std::exchange(then, nullptr)(*this);
        }
    }
    LoopWrites& writes;
    int socket;
    std::string text;
    int wakes = 0;
    bool added = false;
    std::vector<int> results;
    std::function<void(Writer&)> then;
};

// A connected pair of non-blocking stream sockets; closes what is left open.
struct SocketPair {
    SocketPair() { ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends); }
    ~SocketPair() {
        for (int end : ends) {
            ::close(end);
        }
    }
    std::string received() const {
        char bytes[64];
        const ssize_t count = ::recv(ends[1], bytes, sizeof bytes, 0);
        return std::string(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    int ends[2];
};

// A loop whose writes go to the kernel together. A kernel that refuses io_uring leaves
// each write to its writer; http_test's conformance table runs that path.
struct BatchedLoopWrites : ::testing::Test {
    void SetUp() override {
        LoopWrites& batched = LoopWrites::of(loop, true);
        auto probe = std::make_shared<Writer>(batched, -1, "");
        batched.wake(probe);
        loop.poll();
        loop.restart();
        if (!probe->added) {
            GTEST_SKIP() << "the kernel refuses io_uring here";
        }
        writes = &batched;
    }
    net::io_context loop{1};
    LoopWrites* writes = nullptr;
};

// Woken from another thread, each writer adds its write in the turn; the turn's writes are
// made together and each writer is told what its socket did.
TEST_F(BatchedLoopWrites, MakesATurnsWritesTogetherAndTellsEachWriter) {
    SocketPair open, peerGone, full;
    ::close(peerGone.ends[1]);
    peerGone.ends[1] = -1;
    const std::string filler(1 << 16, 'f');
    while (::send(full.ends[0], filler.data(), filler.size(), MSG_DONTWAIT) > 0) {
    }
    const std::pair<int, int> cases[] = {  // socket, told
        {open.ends[0], 11},
        {-1, -ECANCELED},  // closed before the turn: nothing is sent
        {peerGone.ends[0], -EPIPE},
        {full.ends[0], -EAGAIN},
    };
    std::vector<std::shared_ptr<Writer>> writers;
    for (const auto& [socket, told] : cases) {
        writers.push_back(std::make_shared<Writer>(*writes, socket, "hello world"));
    }
    std::thread([&] {
        for (auto& writer : writers) {
            writes->wake(writer);
        }
    }).join();
    loop.poll();
    for (std::size_t i = 0; i < writers.size(); ++i) {
        EXPECT_EQ(writers[i]->wakes, 1) << i;
        EXPECT_EQ(writers[i]->results, std::vector<int>{cases[i].second}) << i;
    }
    EXPECT_EQ(open.received(), "hello world");
}

// A wake from a handler of the loop comes once that handler has returned; a write added
// while a writer is told goes at a later turn, and is told in its turn.
TEST_F(BatchedLoopWrites, WakesAfterTheWakingHandlerAndSendsALaterWriteAtALaterTurn) {
    SocketPair pair;
    auto writer = std::make_shared<Writer>(*writes, pair.ends[0], "one");
    writer->then = [&](Writer& self) {
        self.text = "two";
        const net::const_buffer buffer = net::buffer(self.text);
        EXPECT_TRUE(writes->add(self.shared_from_this(), &buffer, 1));
        EXPECT_EQ(self.results.size(), 1u);  // not told within this call
    };
    net::post(loop, [&] {
        writes->wake(writer);
        EXPECT_EQ(writer->wakes, 0);
    });
    loop.poll();
    EXPECT_EQ(writer->results, (std::vector<int>{3, 3}));
    EXPECT_EQ(pair.received(), "onetwo");
}

// Unbatched, writers are still woken but write by themselves; a loop that goes with a
// turn pending lets its writers go without a call.
TEST(LoopWrites, UnbatchedRefusesWritesAndALoopGoneDropsItsWriters) {
    std::weak_ptr<Writer> dropped;
    {
        net::io_context loop{1};
        LoopWrites& writes = LoopWrites::of(loop, false);
        auto writer = std::make_shared<Writer>(writes, -1, "x");
        writes.wake(writer);
        loop.poll();
        EXPECT_EQ(writer->wakes, 1);
        EXPECT_FALSE(writer->added);
        writes.wake(writer);
        dropped = writer;
        writer.reset();
        EXPECT_FALSE(dropped.expired());
    }
    EXPECT_TRUE(dropped.expired());
}

}  // namespace
}  // namespace korvane::host
