#include "korvane/host/coalescing_stream.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <gtest/gtest.h>

namespace korvane::host {
namespace {

namespace net = boost::asio;
using boost::beast::error_code;

// A stream that records what reaches it: each socket write as "write:<bytes>", a
// teardown as "teardown", a close as "close". While `holdWrites` is set, a write waits for
// releaseWrite() to complete it, with `failure` if that is set; otherwise it completes at once.
class RecordingStream {
public:
    using executor_type = net::io_context::executor_type;

    explicit RecordingStream(net::io_context& io) : io_(io) {}

    executor_type get_executor() noexcept { return io_.get_executor(); }

    template <class ConstBuffers, class Handler>
    void async_write_some(const ConstBuffers& buffers, Handler&& handler) {
        const std::string bytes = boost::beast::buffers_to_string(buffers);
        events.push_back("write:" + bytes);
        auto shared = std::make_shared<std::decay_t<Handler>>(std::forward<Handler>(handler));
        held_ = [this, shared, size = bytes.size()] {
            net::post(io_, [shared, size, failure = failure] { (*shared)(failure, failure ? 0 : size); });
        };
        if (!holdWrites) {
            releaseWrite();
        }
    }

    void releaseWrite() {
        std::function<void()> release = std::move(held_);
        held_ = nullptr;
        if (release) {
            release();
        }
    }

    // What the write timeout closes: the socket, which fails the write under way.
    struct Socket {
        RecordingStream& stream;
        void close(error_code&) {
            stream.events.push_back("close");
            stream.failure = net::error::operation_aborted;
            stream.releaseWrite();
        }
    };
    Socket socket() { return Socket{*this}; }

    template <class Handler>
    friend void async_teardown(boost::beast::role_type, RecordingStream& stream, Handler&& handler) {
        stream.events.push_back("teardown");
        net::post(stream.io_, [handler = std::forward<Handler>(handler)]() mutable { handler(error_code()); });
    }

    std::vector<std::string> events;
    bool holdWrites = true;
    error_code failure;

private:
    net::io_context& io_;
    std::function<void()> held_;
};

class CoalescingStreamTest : public ::testing::Test {
protected:
    CoalescingStreamTest() : stream(io) { stream.setOwner(owner); }

    // Writes the frames one after another, as a WebSocket does: each from the completion of
    // the one before. Completions are recorded as "<size>" or "error".
    void writeInTurn(std::vector<std::string> frames) {
        auto queue = std::make_shared<std::vector<std::string>>(std::move(frames));
        startNext(queue, 0);
    }

    void startNext(std::shared_ptr<std::vector<std::string>> queue, std::size_t index) {
        if (index == queue->size()) {
            return;
        }
        stream.async_write_some(net::buffer((*queue)[index]), [this, queue, index](error_code error, std::size_t size) {
            completions.push_back(error ? "error" : std::to_string(size));
            if (!error) {
                startNext(queue, index + 1);
            }
        });
    }

    // Runs every handler that is ready. A write held by the recording stream is not work
    // to the io_context, which stops whenever it runs out: hence the restart.
    void drain() {
        io.restart();
        io.poll();
    }

    net::io_context io;
    std::shared_ptr<int> owner = std::make_shared<int>(0);
    CoalescingStream<RecordingStream> stream;
    RecordingStream& socket = stream.next_layer();
    std::vector<std::string> completions;
};

TEST_F(CoalescingStreamTest, FramesReadyTogetherLeaveInOneWriteAndTheRestFollowInTheNext) {
    writeInTurn({"a", "bb", "ccc", "d"});
    drain();
    // The first write starts once the second frame has joined; the frames taken while it
    // is under way wait, and leave together when it completes.
    EXPECT_EQ(socket.events, (std::vector<std::string>{"write:abb"}));
    EXPECT_EQ(completions, (std::vector<std::string>{"1", "2", "3", "1"}));
    EXPECT_EQ(stream.bufferedBytes(), 7u);
    socket.holdWrites = false;
    socket.releaseWrite();
    drain();
    EXPECT_EQ(socket.events, (std::vector<std::string>{"write:abb", "write:cccd"}));
    EXPECT_EQ(stream.bufferedBytes(), 0u);
}

TEST_F(CoalescingStreamTest, APeerThatDoesNotReadStallsTheWriterPastTheHighWaterMark) {
    const std::string frame(16 * 1024, 'x');
    writeInTurn(std::vector<std::string>(8, frame));
    drain();
    // Two frames went into the socket write, which hangs; four more fill the buffer to
    // the mark, and the seventh writer waits.
    EXPECT_EQ(socket.events.size(), 1u);
    EXPECT_EQ(completions.size(), 6u);
    EXPECT_EQ(stream.bufferedBytes(), 6 * frame.size());
    socket.releaseWrite();
    drain();
    EXPECT_EQ(socket.events.size(), 2u) << "the waiting four left at once";
    EXPECT_EQ(completions.size(), 8u) << "room made, the writer went on";
    socket.holdWrites = false;
    socket.releaseWrite();
    drain();
    EXPECT_EQ(socket.events.size(), 3u);
    std::string written;
    for (const std::string& event : socket.events) {
        written += event.substr(std::string("write:").size());
    }
    EXPECT_TRUE(written == std::string(8 * frame.size(), 'x')) << "every byte, once, in order";
}

TEST_F(CoalescingStreamTest, AFailedWriteFailsEveryLaterWriteAndTeardownStillRuns) {
    writeInTurn({"a", "b", "c"});
    drain();
    socket.failure = net::error::broken_pipe;
    socket.releaseWrite();
    drain();
    EXPECT_EQ(completions, (std::vector<std::string>{"1", "1", "1"}));
    EXPECT_EQ(stream.bufferedBytes(), 0u) << "bytes that cannot be written are dropped";
    writeInTurn({"d"});
    bool tornDown = false;
    async_teardown(boost::beast::role_type::server, stream, [&tornDown](error_code) { tornDown = true; });
    drain();
    EXPECT_EQ(completions.back(), "error");
    EXPECT_TRUE(tornDown);
    EXPECT_EQ(socket.events, (std::vector<std::string>{"write:ab", "teardown"}));
}

TEST_F(CoalescingStreamTest, TeardownWaitsForTheBytesAlreadyTaken) {
    writeInTurn({"close-frame"});
    drain();
    bool tornDown = false;
    async_teardown(boost::beast::role_type::server, stream, [&tornDown](error_code) { tornDown = true; });
    drain();
    EXPECT_FALSE(tornDown);
    EXPECT_EQ(socket.events, (std::vector<std::string>{"write:close-frame"}));
    socket.releaseWrite();
    drain();
    EXPECT_TRUE(tornDown);
    EXPECT_EQ(socket.events, (std::vector<std::string>{"write:close-frame", "teardown"}));
}

TEST_F(CoalescingStreamTest, ASocketWriteThatOutlivesTheWriteTimeoutClosesTheSocket) {
    stream.setWriteTimeout(std::chrono::milliseconds(30));
    writeInTurn({"in time"});
    drain();
    socket.releaseWrite();
    drain();
    writeInTurn({"stalled"});
    drain();
    // The timer armed by the first write fires during the second, and waits out its time.
    io.restart();
    io.run_for(std::chrono::seconds(5));
    EXPECT_TRUE(stream.timedOut());
    EXPECT_EQ(socket.events, (std::vector<std::string>{"write:in time", "write:stalled", "close"}));
    writeInTurn({"after"});
    drain();
    EXPECT_EQ(completions, (std::vector<std::string>{"7", "7", "error"}));
}

}  // namespace
}  // namespace korvane::host
