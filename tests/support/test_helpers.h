#pragma once

// Small helpers shared by the unit tests of several areas.

#include <chrono>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace korvane::test_support {

// The text of the E that `action` throws; any other exception type fails the test.
template <class E = std::exception>
std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const E& error) {
        return error.what();
    }
    return "(no exception)";
}

// Runs `body(index)` for each index below `count`, each on a thread of its own, all at once;
// returns once every one has returned.
inline void onThreads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index) {
        threads.emplace_back(body, index);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Whether `done()` holds within `limit`, checked every millisecond: a bound against a hang, never a timing check.
inline bool eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    for (const auto end = std::chrono::steady_clock::now() + limit; !done() && std::chrono::steady_clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

}  // namespace korvane::test_support
