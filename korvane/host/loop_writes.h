#pragma once

// A loop's WebSocket writes, gathered over one turn of the loop.
//
// A publish fans out to many connections of a loop at once. Each one woken (wake(),
// from any thread) joins the loop's list instead of posting a handler of its own, and
// one handler, the turn, lets every connection of the list take its frames and write
// them (LoopWriter::onWoken), behind the handlers already queued: a connection woken
// from a handler of its own loop is woken once that handler has returned.
//
// The writes a turn gathers (add()) leave together in one io_uring submission once
// every woken connection has had its say. The kernel makes each as a sendmsg that does
// not block (MSG_DONTWAIT), so every one has completed when that call returns, with the
// bytes its socket took or an error (would_block when it took none), which its writer
// is then told. Where
// the kernel offers no io_uring (an old kernel, a container's system call filter), or
// the server is told not to use it, add() refuses and each writer sends by itself.
//
// Threading: wake() may be called on any thread while the loop's io_context lives
// (the host's connections call it under their frame source's lock, which they stop
// collecting from as they end, and stop() ends them all before the contexts go).
// Everything else runs on the loop's one thread. `mutex` guards `woken`, `turnPosted`
// and `shutDown` (set as the context goes, once no thread runs the loop; the loop's own
// reads go without it). A context destroyed with a turn
// pending drops the writers it holds without a call.

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include <sys/socket.h>
#include <sys/uio.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>

struct io_uring;

namespace korvane::host {

class LoopWriter {
public:
    // The turn has come: take what there is to write, and write it.
    virtual void onWoken() = 0;
    // The socket to write to, asked just before the send; -1 once it is closed, and the
    // writer is then told operation_aborted without a send (its number may be another's by then).
    virtual int batchedSocket() = 0;
    // What the socket took: `written` bytes, or none and `error` (would_block when it was full).
    virtual void onBatchWritten(boost::system::error_code error, std::size_t written) = 0;

protected:
    ~LoopWriter() = default;
};

class LoopWrites final : public boost::asio::execution_context::service {
public:
    static boost::asio::execution_context::id id;

    explicit LoopWrites(boost::asio::io_context& loop);
    ~LoopWrites() override;
    LoopWrites(const LoopWrites&) = delete;
    LoopWrites& operator=(const LoopWrites&) = delete;

    // The loop's, made on first use, on the loop's thread; its writes are batched if
    // `batched` was asked at that first use and the kernel grants io_uring.
    static LoopWrites& of(boost::asio::io_context& loop, bool batched);

    // Any thread: `writer` is called on the loop at the next turn, once for each wake.
    void wake(std::shared_ptr<LoopWriter> writer);

    // Loop thread: queues a write of `count` buffers (whose bytes stay valid until the writer is told)
    // for the end of the turn, or answers false and the caller writes by itself.
    bool add(std::shared_ptr<LoopWriter> writer, const boost::asio::const_buffer* buffers, std::size_t count);

private:
    struct Write {
        std::shared_ptr<LoopWriter> writer;
        std::size_t firstBuffer;  // in `iovecs`
        std::size_t bufferCount;
        int result = 0;
    };
    // The writes and their buffers, gathered or under way.
    struct Writes {
        std::vector<Write> writes;
        std::vector<iovec> iovecs;
        void clear();
    };

    void shutdown() override;
    void postTurn();
    void runTurn();
    // Sends writes [first, first + count) of `sending` in one submission, the ring's size at most.
    void submit(std::size_t first, std::size_t count);
    void reap(std::size_t count);

    boost::asio::io_context& loop;
    std::unique_ptr<io_uring> ring;  // null when writes are not batched
    std::mutex mutex;
    std::vector<std::shared_ptr<LoopWriter>> woken;
    bool turnPosted = false;
    std::vector<std::shared_ptr<LoopWriter>> waking;  // the turn's, taken from `woken`
    Writes waiting;
    Writes sending;
    std::vector<msghdr> headers;  // one per send, read by the kernel while it is submitted
    bool gathering = false;       // the turn is calling its woken writers
    bool shutDown = false;
};

}  // namespace korvane::host
