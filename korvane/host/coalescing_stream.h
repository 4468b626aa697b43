#pragma once

// A stream layer under a WebSocket that sends the frames made ready together in one
// socket write. A write_some is taken into `pending_` and completed at once; the socket
// write that carries it starts from a posted flush, after the handlers already queued on
// the strand have run, so a delivery's message frame and the connect reply written right
// behind it leave in one TCP send instead of two. Frames written while a socket write is
// under way wait in `pending_` and leave together when it completes. The bytes and their
// order are those the WebSocket wrote; only their grouping into sends changes.
//
// Backpressure: past `highWater` bytes in `pending_`, a write_some waits until the socket
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
        : next_(std::forward<Args>(args)...), flushed_(next_.get_executor()), writeWatch_(next_.get_executor()) {
        flushed_.expires_at(boost::asio::steady_timer::time_point::max());
    }

    // What the socket writes and posted flushes keep alive; set before the first write.
    void setOwner(std::weak_ptr<void> owner) { owner_ = std::move(owner); }
    // Zero, the default, lets a socket write wait for ever.
    void setWriteTimeout(std::chrono::milliseconds timeout) { writeTimeout_ = timeout; }
    // Whether a socket write outlived the write timeout and the socket was closed for it.
    bool timedOut() const noexcept { return timedOut_; }

    executor_type get_executor() noexcept { return next_.get_executor(); }
    NextLayer& next_layer() noexcept { return next_; }
    const NextLayer& next_layer() const noexcept { return next_; }

    // Bytes taken and not yet written to the socket, the socket write's own included.
    std::size_t bufferedBytes() const noexcept { return pending_.size() + sending_.size(); }

    template <class MutableBuffers, class ReadHandler>
    auto async_read_some(const MutableBuffers& buffers, ReadHandler&& handler) {
        return next_.async_read_some(buffers, std::forward<ReadHandler>(handler));
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
    // Takes the buffers once `pending_` has room, then completes, posted when it did not wait.
    template <class Handler, class ConstBuffers>
    class WriteSomeOp : public boost::beast::async_base<Handler, executor_type> {
    public:
        WriteSomeOp(Handler&& handler, CoalescingStream& stream, const ConstBuffers& buffers)
            : boost::beast::async_base<Handler, executor_type>(std::move(handler), stream.get_executor()),
              stream_(stream),
              buffers_(buffers) {
            (*this)(boost::beast::error_code(), false);
        }

        // Runs first from the initiation, then after each wait on `flushed_`, whose
        // cancellation (operation_aborted) is the wake-up.
        void operator()(boost::beast::error_code = {}, bool continuation = true) {
            if (!stream_.error_ && stream_.pending_.size() >= highWater) {
                stream_.flushed_.async_wait(std::move(*this));
                return;
            }
            if (stream_.error_) {
                this->complete(continuation, stream_.error_, std::size_t{0});
                return;
            }
            const std::size_t taken = boost::asio::buffer_size(buffers_);
            for (const auto buffer : boost::beast::buffers_range_ref(buffers_)) {
                stream_.pending_.append(static_cast<const char*>(buffer.data()), buffer.size());
            }
            if (continuation) {
                // Woken by a completed socket write, which has already started the next one.
                stream_.scheduleFlush();
                this->complete(true, boost::beast::error_code(), taken);
                return;
            }
            // The completion is posted before the flush, so the writer's next frame, if it
            // has one ready, joins this one before the socket write starts. The stream is
            // still alive here: the caller's operation is on the stack.
            this->complete(false, boost::beast::error_code(), taken);
            stream_.scheduleFlush();
        }

    private:
        CoalescingStream& stream_;
        ConstBuffers buffers_;
    };

    // Waits until every byte taken has been written (or the writes failed), then hands
    // over to the next layer's own teardown.
    template <class Handler>
    class TeardownOp : public boost::beast::async_base<Handler, executor_type> {
    public:
        TeardownOp(Handler&& handler, CoalescingStream& stream, boost::beast::role_type role)
            : boost::beast::async_base<Handler, executor_type>(std::move(handler), stream.get_executor()),
              stream_(stream),
              role_(role) {
            (*this)(boost::beast::error_code(), false);
        }

        void operator()(boost::beast::error_code = {}, bool = true) {
            if (!stream_.error_ && stream_.bufferedBytes() != 0) {
                stream_.flushed_.async_wait(std::move(*this));
                return;
            }
            using boost::beast::websocket::async_teardown;
            async_teardown(role_, stream_.next_, this->release_handler());
        }

    private:
        CoalescingStream& stream_;
        boost::beast::role_type role_;
    };

    void scheduleFlush() {
        if (writing_ || flushPosted_) {
            return;
        }
        std::shared_ptr<void> owner = owner_.lock();
        if (!owner) {
            return;
        }
        flushPosted_ = true;
        boost::asio::defer(get_executor(), [this, owner = std::move(owner)]() mutable {
            flushPosted_ = false;
            flush(std::move(owner));
        });
    }

    void flush(std::shared_ptr<void> owner) {
        if (writing_ || error_ || pending_.empty()) {
            return;
        }
        writing_ = true;
        writeStarted_ = std::chrono::steady_clock::now();
        sending_.swap(pending_);
        watchWrite(owner);
        boost::asio::async_write(next_, boost::asio::buffer(sending_),
                                 [this, owner = std::move(owner)](boost::beast::error_code error, std::size_t) mutable {
                                     onWritten(error, std::move(owner));
                                 });
    }

    void onWritten(boost::beast::error_code error, std::shared_ptr<void> owner) {
        writing_ = false;
        sending_.clear();
        if (error && !error_) {
            error_ = error;
            pending_.clear();
        }
        // Wakes the writers waiting for room and a teardown waiting for the last byte.
        flushed_.cancel();
        flush(std::move(owner));
    }

    // Arms the write timer unless it is armed or there is no timeout. The wait holds the
    // owner weakly: a stream whose owner is gone is not touched.
    void watchWrite(const std::shared_ptr<void>& owner) {
        if (writeTimeout_.count() == 0 || watching_) {
            return;
        }
        watching_ = true;
        writeWatch_.expires_at(writeStarted_ + writeTimeout_);
        writeWatch_.async_wait([this, weakOwner = std::weak_ptr<void>(owner)](boost::beast::error_code) {
            if (std::shared_ptr<void> alive = weakOwner.lock()) {
                onWriteWatch(alive);
            }
        });
    }

    void onWriteWatch(const std::shared_ptr<void>& owner) {
        watching_ = false;
        if (!writing_) {
            return;
        }
        if (std::chrono::steady_clock::now() - writeStarted_ < writeTimeout_) {
            watchWrite(owner);
            return;
        }
        timedOut_ = true;
        boost::beast::error_code ignored;
        boost::beast::get_lowest_layer(next_).socket().close(ignored);
    }

    NextLayer next_;
    boost::asio::steady_timer flushed_;
    boost::asio::steady_timer writeWatch_;
    std::chrono::steady_clock::time_point writeStarted_;
    std::chrono::milliseconds writeTimeout_{0};
    std::weak_ptr<void> owner_;
    std::string pending_;
    std::string sending_;
    boost::beast::error_code error_;
    bool writing_ = false;
    bool flushPosted_ = false;
    bool watching_ = false;
    bool timedOut_ = false;
};

}  // namespace korvane::host
