#include "korvane/host/threaded_timer_backend.h"

#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>

namespace korvane::host {

ThreadedTimerBackend::ThreadedTimerBackend() : queue_(std::make_shared<common::TimerQueue>()) {}

ThreadedTimerBackend::~ThreadedTimerBackend() { stop(); }

void ThreadedTimerBackend::start() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (thread_.joinable()) {
        return;
    }
    stopRequested_ = false;
    thread_ = std::thread([this] { doRunTimerThread(); });
}

void ThreadedTimerBackend::stop() {
    std::thread stopping;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!thread_.joinable()) {
            return;
        }
        if (thread_.get_id() == std::this_thread::get_id()) {
            throw std::logic_error("ThreadedTimerBackend::stop called from its own timer thread.");
        }
        stopRequested_ = true;
        stopping = std::move(thread_);
    }
    wake_.notify_all();
    stopping.join();
}

bool ThreadedTimerBackend::isRunning() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return thread_.joinable();
}

long long ThreadedTimerBackend::currentTick() {
    return doNow() / std::chrono::milliseconds(common::tickMilliseconds);
}

common::TimerHandle ThreadedTimerBackend::schedule(common::TimerCallback callback,
                                                   std::chrono::milliseconds firstDelay,
                                                   std::chrono::milliseconds period) {
    bool becameEarliest = false;
    common::TimerHandle handle = queue_->arm(std::move(callback), doNow() + firstDelay, period, &becameEarliest);
    if (becameEarliest) {
        doWakeTimerThread();
    }
    return handle;
}

ThreadedTimerBackend::Duration ThreadedTimerBackend::doNow() {
    return std::chrono::steady_clock::now().time_since_epoch();
}

void ThreadedTimerBackend::doRunTimerThread() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopRequested_) {
        const std::uint64_t seenWakeups = wakeups_;
        const std::optional<Duration> next = queue_->nextDue();
        const Duration now = doNow();
        if (next && *next <= now) {
            lock.unlock();
            doRunDue(now);
            lock.lock();
            continue;
        }
        auto woken = [this, seenWakeups] { return stopRequested_ || wakeups_ != seenWakeups; };
        if (next) {
            const std::chrono::steady_clock::time_point due(
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(*next));
            wake_.wait_until(lock, due, woken);
        } else {
            wake_.wait(lock, woken);
        }
    }
}

void ThreadedTimerBackend::doRunDue(Duration now) {
    try {
        queue_->runDue(now);
    } catch (const std::exception& error) {
        std::cerr << "Timer callback failed: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "Timer callback failed with a non-standard exception." << std::endl;
    }
}

void ThreadedTimerBackend::doWakeTimerThread() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        ++wakeups_;
    }
    wake_.notify_one();
}

}  // namespace korvane::host
