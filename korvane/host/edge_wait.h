#pragma once

// A wait for a socket's next bytes that costs no system call to start.
//
// Asio's epoll reactor registers every socket once, edge-triggered, for reading. A read
// operation it starts tries the socket at once, and after a read that drained the socket
// that try is a recv that finds it empty; a wait for readability re-arms the descriptor
// with an epoll_ctl instead. Both are a system call per connect cycle that learns nothing.
// A TCP socket whose last read returned fewer bytes than it asked for had nothing more
// queued at that moment, so the next bytes to arrive raise a new edge: an EdgeWait started
// right after such a read, in the same handler, is queued on the descriptor as it is and
// completes on that edge (or on an error, a hang-up or the socket's close). Started at any
// other time it could miss an edge the reactor took while nothing waited: the caller then
// waits with async_wait, which re-arms.
//
// Owner::onReadable(const boost::system::error_code&) is called on the socket's loop;
// the wait holds the owner until then. A loop destroyed with the wait queued drops it
// without the call. Used by the host's WebSocket connections and the load tool's.
//
// Threading: start() and the call run on the socket's loop (one thread per io_context);
// one wait at a time per EdgeWait.

#include <memory>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
// After the two above, which complete the reactor's own types.
#include <boost/asio/detail/epoll_reactor.hpp>

#ifndef BOOST_ASIO_HAS_EPOLL
#error "EdgeWait queues its operation on Asio's epoll reactor"
#endif

namespace korvane::host {

template <class Owner>
class EdgeWait final : private boost::asio::detail::reactor_op {
    using Reactor = boost::asio::detail::epoll_reactor;

public:
    EdgeWait() : reactor_op(boost::system::error_code(), &EdgeWait::perform, &EdgeWait::complete) {}
    EdgeWait(const EdgeWait&) = delete;
    EdgeWait& operator=(const EdgeWait&) = delete;

    // Precondition: the caller's last read of `socket`, made in the handler now running,
    // found it drained (a short read or would_block), and no wait of this EdgeWait is
    // queued. An Asio read whose immediate try succeeded does not count: its completion
    // is posted, and the reactor may take an edge before it runs.
    template <class Executor>
    void start(boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>& socket, std::shared_ptr<Owner> owner) {
        auto& implementation = SocketAccess<Executor>::implementationOf(socket);
        if (reactor == nullptr) {
            reactor = &boost::asio::use_service<Reactor>(socket.get_executor().context());
        }
        pending = std::move(owner);
        ec_ = boost::system::error_code();
        // The reactor tries a new read operation at once when it last saw the socket
        // readable; this one answers "not yet" to that try, and so is only queued.
        starting = this;
        reactor->start_op(Reactor::read_op, implementation.socket_, implementation.reactor_data_, this, false, true);
        starting = nullptr;
    }

private:
    // The socket's implementation is a protected member of Asio's socket; a member
    // pointer named through a derived class reaches it.
    template <class Executor>
    struct SocketAccess : boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor> {
        using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>;
        static auto& implementationOf(Socket& socket) { return (socket.*(&SocketAccess::impl_)).get_implementation(); }
    };

    static status perform(reactor_op* operation) { return operation == starting ? not_done : done; }

    // `scheduler` is null when the loop is destroyed with the wait queued.
    static void complete(void* scheduler, boost::asio::detail::scheduler_operation* operation,
                         const boost::system::error_code&, std::size_t) {
        auto* wait = static_cast<EdgeWait*>(operation);
        // The owner may start the wait again from its call, or be the one holding it.
        std::shared_ptr<Owner> owner = std::move(wait->pending);
        const boost::system::error_code error = wait->ec_;
        if (scheduler != nullptr && owner) {
            owner->onReadable(error);
        }
    }

    static inline thread_local reactor_op* starting = nullptr;
    Reactor* reactor = nullptr;
    std::shared_ptr<Owner> pending;
};

}  // namespace korvane::host
