#pragma once

// A stream layer under a WebSocket that sends the frames made ready together in one
// socket write. A write_some is taken into `pending` and completed at once; the socket
// write that carries it starts from a posted flush, after the handlers already queued on
// the strand have run, so a delivery's message frame and the connect reply written right
// behind it leave in one TCP send instead of two. Frames written while a socket write is
// under way wait in `pending` and leave together when it completes. The bytes and their
// order are those the WebSocket wrote; only their grouping into sends changes.
//
// Backpressure: past `highWater` bytes in `pending`, a write_some waits until the socket
// write under way completes, so a peer that stops reading stalls the WebSocket's writes as
// it would without this layer. Holding at most highWater bytes plus one frame here, and
// the socket write's bytes, is what the layer adds to a connection's write backlog.
//
// A write error is kept: every later write_some fails with it. Teardown waits for the
// bytes already taken to be written, then tears the next layer down.
//
// Write timeout: a socket write under way for longer than the time given to
// setWriteTimeout closes the socket, which fails that write and every operation of the
// stream. One timer per stream is armed when a write starts and none is armed, and
// re-armed for what remains of the write under way when it fires early.
//
// Threading: like the stream under it, every member runs on the connection's strand. The
// socket writes and posted flushes hold the owner given to setOwner (the connection that
// holds this stream), so the layer outlives its own operations.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/defer.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/async_base.hpp>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/stream_traits.hpp>
#include <boost/beast/websocket/teardown.hpp>

namespace korvane::host {

template <class NextLayer>
class CoalescingStream {
public:
    using next_layer_type = NextLayer;
    using executor_type = typename NextLayer::executor_type;

    static constexpr std::size_t highWater = 64 * 1024;

    template <class... Args>
    explicit CoalescingStream(Args&&... args)
        : next(std::forward<Args>(args)...), flushed(next.get_executor()), writeWatch(next.get_executor()) {
        flushed.expires_at(boost::asio::steady_timer::time_point::max());
    }

    // What the socket writes and posted flushes keep alive; set before the first write.
    void setOwner(std::weak_ptr<void> owner) { owningConnection = std::move(owner); }
    // Zero, the default, lets a socket write wait for ever.
    void setWriteTimeout(std::chrono::milliseconds timeout) { writeTimeout = timeout; }
    // Whether a socket write outlived the write timeout and the socket was closed for it.
    bool timedOut() const noexcept { return writeTimedOut; }

    executor_type get_executor() noexcept { return next.get_executor(); }
    NextLayer& next_layer() noexcept { return next; }
    const NextLayer& next_layer() const noexcept { return next; }

    // Bytes taken and not yet written to the socket, the socket write's own included.
    std::size_t bufferedBytes() const noexcept { return pending.size() + sending.size(); }

    template <class MutableBuffers, class ReadHandler>
    auto async_read_some(const MutableBuffers& buffers, ReadHandler&& handler) {
        return next.async_read_some(buffers, std::forward<ReadHandler>(handler));
    }

    template <class ConstBuffers, class WriteHandler>
    BOOST_ASIO_INITFN_RESULT_TYPE(WriteHandler, void(boost::beast::error_code, std::size_t))
    async_write_some(const ConstBuffers& buffers, WriteHandler&& handler) {
        return boost::asio::async_initiate<WriteHandler, void(boost::beast::error_code, std::size_t)>(
            [this](auto&& completion, const ConstBuffers& data) {
                using Completion = std::decay_t<decltype(completion)>;
                WriteSomeOp<Completion, ConstBuffers>(std::forward<decltype(completion)>(completion), *this, data);
            },
            handler, buffers);
    }

    template <class TeardownHandler>
    friend void async_teardown(boost::beast::role_type role, CoalescingStream& stream, TeardownHandler&& handler) {
        TeardownOp<std::decay_t<TeardownHandler>>(std::forward<TeardownHandler>(handler), stream, role);
    }

private:
    // Takes the buffers once `pending` has room, then completes, posted when it did not wait.
    template <class Handler, class ConstBuffers>
    class WriteSomeOp : public boost::beast::async_base<Handler, executor_type> {
    public:
        WriteSomeOp(Handler&& handler, CoalescingStream& stream, const ConstBuffers& buffers)
            : boost::beast::async_base<Handler, executor_type>(std::move(handler), stream.get_executor()),
              stream(stream),
              buffers(buffers) {
            (*this)(boost::beast::error_code(), false);
        }

        // Runs first from the initiation, then after each wait on `flushed`, whose
        // cancellation (operation_aborted) is the wake-up.
        void operator()(boost::beast::error_code = {}, bool continuation = true) {
            if (!stream.writeError && stream.pending.size() >= highWater) {
                stream.flushed.async_wait(std::move(*this));
                return;
            }
            if (stream.writeError) {
                this->complete(continuation, stream.writeError, std::size_t{0});
                return;
            }
            const std::size_t taken = boost::asio::buffer_size(buffers);
            for (const auto buffer : boost::beast::buffers_range_ref(buffers)) {
                stream.pending.append(static_cast<const char*>(buffer.data()), buffer.size());
            }
            if (continuation) {
                // Woken by a completed socket write, which has already started the next one.
                stream.scheduleFlush();
                this->complete(true, boost::beast::error_code(), taken);
                return;
            }
            // The completion is posted before the flush, so the writer's next frame, if it
            // has one ready, joins this one before the socket write starts. The stream is
            // still alive here: the caller's operation is on the stack.
            this->complete(false, boost::beast::error_code(), taken);
            stream.scheduleFlush();
        }

    private:
        CoalescingStream& stream;
        ConstBuffers buffers;
    };

    // Waits until every byte taken has been written (or the writes failed), then hands
    // over to the next layer's own teardown.
    template <class Handler>
    class TeardownOp : public boost::beast::async_base<Handler, executor_type> {
    public:
        TeardownOp(Handler&& handler, CoalescingStream& stream, boost::beast::role_type role)
            : boost::beast::async_base<Handler, executor_type>(std::move(handler), stream.get_executor()),
              stream(stream),
              role(role) {
            (*this)(boost::beast::error_code(), false);
        }

        void operator()(boost::beast::error_code = {}, bool = true) {
            if (!stream.writeError && stream.bufferedBytes() != 0) {
                stream.flushed.async_wait(std::move(*this));
                return;
            }
            using boost::beast::websocket::async_teardown;
            async_teardown(role, stream.next, this->release_handler());
        }

    private:
        CoalescingStream& stream;
        boost::beast::role_type role;
    };

    void scheduleFlush() {
        if (writing || flushPosted) {
            return;
        }
        std::shared_ptr<void> owner = owningConnection.lock();
        if (!owner) {
            return;
        }
        flushPosted = true;
        boost::asio::defer(get_executor(), [this, owner = std::move(owner)]() mutable {
            flushPosted = false;
            flush(std::move(owner));
        });
    }

    void flush(std::shared_ptr<void> owner) {
        if (writing || writeError || pending.empty()) {
            return;
        }
        writing = true;
        writeStarted = std::chrono::steady_clock::now();
        sending.swap(pending);
        watchWrite(owner);
        boost::asio::async_write(next, boost::asio::buffer(sending),
                                 [this, owner = std::move(owner)](boost::beast::error_code error, std::size_t) mutable {
                                     onWritten(error, std::move(owner));
                                 });
    }

    void onWritten(boost::beast::error_code error, std::shared_ptr<void> owner) {
        writing = false;
        // Its storage goes too: most connections sit idle between writes, and the next
        // write's bytes are gathered in `pending` anyway.
        std::string().swap(sending);
        if (error && !writeError) {
            writeError = error;
            pending.clear();
        }
        // Wakes the writers waiting for room and a teardown waiting for the last byte.
        flushed.cancel();
        flush(std::move(owner));
    }

    // Arms the write timer unless it is armed or there is no timeout. The wait holds the
    // owner weakly: a stream whose owner is gone is not touched.
    void watchWrite(const std::shared_ptr<void>& owner) {
        if (writeTimeout.count() == 0 || watching) {
            return;
        }
        watching = true;
        writeWatch.expires_at(writeStarted + writeTimeout);
        writeWatch.async_wait([this, weakOwner = std::weak_ptr<void>(owner)](boost::beast::error_code) {
            if (std::shared_ptr<void> alive = weakOwner.lock()) {
                onWriteWatch(alive);
            }
        });
    }

    void onWriteWatch(const std::shared_ptr<void>& owner) {
        watching = false;
        if (!writing) {
            return;
        }
        if (std::chrono::steady_clock::now() - writeStarted < writeTimeout) {
            watchWrite(owner);
            return;
        }
        writeTimedOut = true;
        boost::beast::error_code ignored;
        boost::beast::get_lowest_layer(next).socket().close(ignored);
    }

    NextLayer next;
    boost::asio::steady_timer flushed;
    boost::asio::steady_timer writeWatch;
    std::chrono::steady_clock::time_point writeStarted;
    std::chrono::milliseconds writeTimeout{0};
    std::weak_ptr<void> owningConnection;
    std::string pending;
    std::string sending;
    boost::beast::error_code writeError;
    bool writing = false;
    bool flushPosted = false;
    bool watching = false;
    bool writeTimedOut = false;
};

}  // namespace korvane::host
