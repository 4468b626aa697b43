#pragma once

// The queue of one connect: a single-subscriber publisher of messages with an
// unbounded FIFO in front of it. Producers push at any time from any thread; the
// subscriber receives messages in push order and never more than it requested.
// The end is told to the subscriber (onComplete/onError) and through getFuture().
//
// Locking: `mutex` guards every field but `name`, and is released around every
// subscriber callback, so a callback may call back into the queue. The drain loop
// is never entered twice: the `delivering` flag keeps one thread in it, and any
// other caller only updates the FIFO or the demand and leaves, so onNext calls of
// one queue never overlap. The future's continuation runs with `mutex` held, so
// whoever attaches one must take its own locks after this queue's.
//
// Always made by std::make_shared: subscribe needs a weak pointer to the queue.

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

#include "korvane/frame/future.h"
#include "korvane/frame/message.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/frame/ring_queue.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class KORVANE_EXPORT BayeuxQueue : public reactive_streams::PublisherAPI<std::unique_ptr<Message>>,
                    public std::enable_shared_from_this<BayeuxQueue> {
public:
    using Subscriber = reactive_streams::SubscriberAPI<std::unique_ptr<Message>>;

    enum QueueState : std::int32_t { Open = 0, DoneWhenEmpty = 1, Done = 2, Failed = 4 };

    // Handed to the subscriber as a weak pointer; holds its queue only weakly, so a
    // subscriber may outlive the queue. Using it after the queue is gone is a
    // lifetime fault: it logs, prints a stack trace to standard error and throws.
    class BayeuxQueueSubscription : public reactive_streams::Subscription {
    public:
        explicit BayeuxQueueSubscription(std::weak_ptr<BayeuxQueue> queue);
        ~BayeuxQueueSubscription() override;

        void request(unsigned long n) override;
        void cancel() override;

    private:
        std::weak_ptr<BayeuxQueue> queue;
    };

    // `name` prefixes the id in the queue's log lines, which ends in "_" and this object's address.
    explicit BayeuxQueue(std::string name);
    // Completes a queue that is still open: the subscriber gets onComplete and the
    // future true; messages still queued are dropped.
    ~BayeuxQueue() override;
    BayeuxQueue(const BayeuxQueue&) = delete;
    BayeuxQueue& operator=(const BayeuxQueue&) = delete;

    // The queue's end: true when done, false when failed. Only one future is handed out.
    Future<bool> getFuture() override;
    // Attaches the one subscriber; throws std::invalid_argument while another is attached.
    void subscribe(std::shared_ptr<Subscriber> subscriber) override;

    // Pushes and drains. On an ended queue the message is left with the caller.
    void setValue(std::unique_ptr<Message>&& message);
    // Ends with an error, unless the queue has already been told to end.
    void setError(std::exception_ptr&& error);
    // Ends at once; what is still queued is never delivered.
    void done();
    // Ends as soon as a drain finds the FIFO empty.
    void doneWhenEmpty();
    std::uint64_t bufferSize();

    // Reached through the subscription.
    void request(unsigned long n);
    void cancel();
    // Whether the subscriber cancelled: what is pushed from then on reaches nobody. Takes no
    // lock, so that an owner may ask under its own.
    bool cancelled() const noexcept { return subscriberCancelled.load(std::memory_order_acquire); }

private:
    // All three are entered with `mutex` held through `lock` and may release and
    // retake it. They return with it held, except that `deliver` returns with it
    // released when a subscriber callback threw.
    void deliver(std::unique_lock<std::mutex>& lock);
    void checkComplete(std::unique_lock<std::mutex>& lock);
    void doDone(std::unique_lock<std::mutex>& lock);
    void doDrainLoop(std::unique_lock<std::mutex>& lock);

    std::mutex mutex;
    const std::string name;
    common::RingQueue<std::unique_ptr<Message>> messages;
    Promise<bool> promise;
    std::exception_ptr error;
    std::shared_ptr<Subscriber> subscriber;
    std::shared_ptr<reactive_streams::Subscription> subscription;
    std::uint64_t demand = 0;
    QueueState state = Open;
    bool delivering = false;
    std::atomic<bool> subscriberCancelled{false};
};

}  // namespace korvane::bayeux
