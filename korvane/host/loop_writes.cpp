#include "korvane/host/loop_writes.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include <liburing.h>

#include <boost/asio/defer.hpp>

#include "korvane/frame/logger.h"

namespace korvane::host {

namespace {

common::diagnostic_logger logger("korvane::host::http");

// Submission slots: a turn's writes beyond this go in several submissions.
constexpr unsigned ringEntries = 256;

std::unique_ptr<io_uring> openRing() {
    auto ring = std::make_unique<io_uring>();
    const int result = io_uring_queue_init(ringEntries, ring.get(), 0);
    if (result < 0) {
        KORVANE_LOG(logger, common::logLifecycle)
            << "io_uring unavailable (" << std::strerror(-result) << "): each WebSocket write is its own system call";
        return nullptr;
    }
    return ring;
}

// Calls `call` on each of `items`, even past one that throws; returns the first failure.
template <class Items, class Call>
std::exception_ptr callEach(Items& items, Call call) {
    std::exception_ptr failure;
    for (auto& item : items) {
        try {
            call(item);
        } catch (...) {
            failure = failure ? failure : std::current_exception();
        }
    }
    items.clear();
    return failure;
}

}  // namespace

boost::asio::execution_context::id LoopWrites::id;

LoopWrites::LoopWrites(boost::asio::io_context& loop) : boost::asio::execution_context::service(loop), loop(loop) {}

LoopWrites::~LoopWrites() {
    if (ring) {
        io_uring_queue_exit(ring.get());
    }
}

LoopWrites& LoopWrites::of(boost::asio::io_context& loop, bool batched) {
    if (!boost::asio::has_service<LoopWrites>(loop)) {
        auto made = std::make_unique<LoopWrites>(loop);
        if (batched) {
            made->ring = openRing();
        }
        boost::asio::add_service(loop, made.release());
    }
    return boost::asio::use_service<LoopWrites>(loop);
}

void LoopWrites::Writes::clear() {
    writes.clear();
    iovecs.clear();
}

void LoopWrites::wake(std::shared_ptr<LoopWriter> writer) {
    bool post = false;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (shutDown) {
            return;  // the writer goes once the lock is released
        }
        woken.push_back(std::move(writer));
        post = !std::exchange(turnPosted, true);
    }
    if (post) {
        postTurn();
    }
}

bool LoopWrites::add(std::shared_ptr<LoopWriter> writer, const boost::asio::const_buffer* buffers, std::size_t count) {
    if (!ring || shutDown) {
        return false;
    }
    waiting.writes.push_back(Write{std::move(writer), waiting.iovecs.size(), count});
    for (std::size_t i = 0; i < count; ++i) {
        waiting.iovecs.push_back(iovec{const_cast<void*>(buffers[i].data()), buffers[i].size()});
    }
    if (gathering) {
        return true;  // the turn under way sends it
    }
    bool post = false;
    {
        std::lock_guard<std::mutex> guard(mutex);
        post = !std::exchange(turnPosted, true);
    }
    if (post) {
        postTurn();
    }
    return true;
}

// A defer: from a handler of the loop, the turn runs once that handler has returned.
void LoopWrites::postTurn() {
    boost::asio::defer(loop.get_executor(), [this] { runTurn(); });
}

// The writers go after the lock is released: a writer's last reference may take others with it.
void LoopWrites::shutdown() {
    std::vector<std::shared_ptr<LoopWriter>> dropped;
    {
        std::lock_guard<std::mutex> guard(mutex);
        shutDown = true;
        dropped.swap(woken);
    }
    waking.clear();
    waiting.clear();
    sending.clear();
}

// The woken writers first, then their writes: a writer told how its write went may
// hand the loop its next one, which waits for the next turn.
void LoopWrites::runTurn() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        turnPosted = false;
        waking.swap(woken);
    }
    gathering = true;
    std::exception_ptr failure = callEach(waking, [](std::shared_ptr<LoopWriter>& writer) { writer->onWoken(); });
    gathering = false;
    if (!waiting.writes.empty()) {
        std::swap(waiting, sending);
        for (std::size_t first = 0; first < sending.writes.size() && ring; first += ringEntries) {
            submit(first, std::min<std::size_t>(ringEntries, sending.writes.size() - first));
        }
        sending.iovecs.clear();
        const std::exception_ptr told =
            callEach(sending.writes, [](Write& write) {
                if (write.result < 0) {
                    write.writer->onBatchWritten(boost::system::error_code(-write.result, boost::system::system_category()), 0);
                } else {
                    write.writer->onBatchWritten(boost::system::error_code(), static_cast<std::size_t>(write.result));
                }
            });
        failure = failure ? failure : told;
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void LoopWrites::submit(std::size_t first, std::size_t count) {
    headers.assign(count, msghdr{});
    std::size_t submitted = 0;
    for (std::size_t i = first; i < first + count; ++i) {
        Write& write = sending.writes[i];
        const int socket = write.writer->batchedSocket();
        if (socket < 0) {
            write.result = -ECANCELED;
            continue;
        }
        write.result = -EIO;  // unless its completion comes
        msghdr& header = headers[i - first];
        header.msg_iov = &sending.iovecs[write.firstBuffer];
        header.msg_iovlen = write.bufferCount;
        io_uring_sqe* entry = io_uring_get_sqe(ring.get());
        io_uring_prep_sendmsg(entry, socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
        io_uring_sqe_set_data64(entry, i);
        ++submitted;
    }
    reap(submitted);
}

// Every send was made without blocking, so their completions are all there when the
// submission returns; a signal that interrupts it only asks for another try. A ring that
// fails is not used again: the sends it did not complete are told EIO, those not yet
// submitted 0 bytes taken (their writers send the rest by themselves), and so does
// every writer after them.
void LoopWrites::reap(std::size_t count) {
    std::size_t reaped = 0;
    while (reaped < count) {
        const int result = io_uring_submit_and_wait(ring.get(), 1);
        if (result < 0 && result != -EINTR) {
            KORVANE_LOG(logger, common::logFailure) << "io_uring failed (" << std::strerror(-result)
                                                    << "): each WebSocket write is its own system call from now on";
            io_uring_queue_exit(ring.get());
            ring.reset();
            return;
        }
        io_uring_cqe* completion = nullptr;
        unsigned head = 0;
        unsigned seen = 0;
        io_uring_for_each_cqe(ring.get(), head, completion) {
            sending.writes[io_uring_cqe_get_data64(completion)].result = completion->res;
            ++seen;
        }
        io_uring_cq_advance(ring.get(), seen);
        reaped += seen;
    }
}

}  // namespace korvane::host
