#pragma once

// The live connections of one HTTP server: counted for the connection limit, and
// reachable by stop() so that it can end each of them.
//
// Threading: every operation may be called from any thread; `mutex` guards the
// map and the stopping flag and is never held while a connection is called.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace korvane::host {

class ConnectionTracker {
public:
    // A connection as stop() sees it.
    class Tracked {
    public:
        virtual ~Tracked();
        // Ends the connection gracefully on its own loop; callable from any thread.
        virtual void shutdown() = 0;
        // Ends it at once, for when no I/O thread runs any more: called on the stopping thread.
        virtual void abandon() = 0;
    };

    // Registers a connection; its destructor calls remove(). Returns 0, and does not
    // register it, once the server is stopping.
    std::uint64_t add(const std::weak_ptr<Tracked>& connection);
    void remove(std::uint64_t id);
    std::size_t count() const;

    // Refuses further connections and asks every live one to shut down.
    void shutdownAll();
    // Waits until no connection is left or the deadline passed; true when none is left.
    bool waitUntilEmpty(std::chrono::steady_clock::time_point deadline);
    void abandonAll();

private:
    std::unordered_map<std::uint64_t, std::weak_ptr<Tracked>> doSnapshot() const;

    mutable std::mutex mutex;
    std::condition_variable emptied;
    std::unordered_map<std::uint64_t, std::weak_ptr<Tracked>> connections;
    std::uint64_t nextId = 1;
    bool stopping = false;
};

}  // namespace korvane::host
