#include "korvane/host/connection_tracker.h"

namespace korvane::host {

ConnectionTracker::Tracked::~Tracked() = default;

std::uint64_t ConnectionTracker::add(const std::weak_ptr<Tracked>& connection) {
    std::lock_guard<std::mutex> guard(mutex);
    if (stopping) {
        return 0;
    }
    const std::uint64_t id = nextId++;
    connections.emplace(id, connection);
    return id;
}

void ConnectionTracker::remove(std::uint64_t id) {
    std::lock_guard<std::mutex> guard(mutex);
    if (connections.erase(id) != 0 && connections.empty()) {
        emptied.notify_all();
    }
}

std::size_t ConnectionTracker::count() const {
    std::lock_guard<std::mutex> guard(mutex);
    return connections.size();
}

void ConnectionTracker::shutdownAll() {
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
    }
    for (const auto& entry : doSnapshot()) {
        if (std::shared_ptr<Tracked> connection = entry.second.lock()) {
            connection->shutdown();
        }
    }
}

bool ConnectionTracker::waitUntilEmpty(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex);
    return emptied.wait_until(lock, deadline, [this] { return connections.empty(); });
}

void ConnectionTracker::abandonAll() {
    for (const auto& entry : doSnapshot()) {
        if (std::shared_ptr<Tracked> connection = entry.second.lock()) {
            connection->abandon();
        }
    }
}

std::unordered_map<std::uint64_t, std::weak_ptr<ConnectionTracker::Tracked>> ConnectionTracker::doSnapshot() const {
    std::lock_guard<std::mutex> guard(mutex);
    return connections;
}

}  // namespace korvane::host
