#pragma once

// The server's side of one remote Bayeux client, for whatever transport it uses.
// Messages for the client wait in `pendingMessages` while no connect is open; each
// connect opens one BayeuxQueue through which that connect's messages, and finally
// its ConnectResponse, flow to the transport, or hands them straight to the sink that
// the transport gives (connectTo): one for all of a WebSocket's connects, one per long poll.
//
// Threading and locks: every operation may be called from any thread (transport
// threads, the publisher's thread through deliver, the timers' thread). `mutex` guards
// every mutable field. Lock order is queue mutex before session mutex, because a
// queue that ends runs a continuation that takes `mutex`; so the session never calls
// into a queue or the routing core with `mutex` held; a connect's queue is made and
// filled only while no other thread can reach it. The one exception is the routing
// core's pattern index: `channels` and the patterns declared to the core change
// together under `mutex`, which is safe because the core's lock is a leaf. The
// session declares its patterns to its own server, so that server offers it only
// the publishes they can match, and forgets them in the destructor. One rearmable timer ends
// all of the session's connects, by their deadlines and their batches: it is armed under
// `mutex` (an arming never waits for a running callback) and released with `mutex` released,
// in the destructor. A connect records its deadline and arms the timer only if it is not armed
// for that deadline or earlier; a batch arms it for the buffer period. When it fires it answers
// the batch, or a connect whose deadline has come, or arms itself again for a later deadline; a
// firing overtaken by a newer arming, made while it waited for `mutex`, does nothing.
// `notifying` keeps one thread at a time in the drain loop; only connectStream waits for a
// drain on another thread to end (on `drainEnded`, with `mutex` released), so that the connect
// it replaces is answered first.
// Internal operations taking a std::unique_lock are entered with it held and may
// release and retake it. The session must be owned by a std::shared_ptr.
// A client that lets more than `pendingLimit.maxMessages` messages, or more than
// `pendingLimit.maxBytes` bytes of them, pile up is reported once through
// `pendingLimit.onExceeded`, called by deliver on the publisher's thread with `mutex`
// released; from then on deliver keeps nothing more. The `outgoing` hook sees each
// message as it goes into a connect's queue, on the thread that drains the pending
// messages, with `mutex` released.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/ring_queue.h"
#include "korvane/frame/timers.h"
#include "korvane/export.h"

namespace korvane::bayeux {

class BayeuxQueue;

// How many messages may wait in a session for its client, and whom to tell when more
// arrive. A limit of 0 means no limit.
struct KORVANE_EXPORT PendingLimit {
    std::size_t maxMessages = 0;
    // Bytes of the waiting messages, counted as the size of the channel name plus the size
    // of the data's JSON text of each; the rest of a message is not counted.
    std::size_t maxBytes = 0;
    // Gets the session's id; called at most once, with no session lock held.
    std::function<void(const std::string& clientId)> onExceeded;
};

// The embedding host's look at a message on its way out to a client, before it is written:
// it may change the message, or drop it by returning false. The data is shared with the
// other receivers: replace `data` rather than write into it. It runs on the thread that
// drains the session and must answer at once, without blocking.
using OutgoingHook = std::function<bool(const std::string& clientId, PublishRequest& message)>;

class KORVANE_EXPORT LongPollSession : public BayeuxSession, public std::enable_shared_from_this<LongPollSession> {
public:
    LongPollSession(std::shared_ptr<BayeuxServer> server, std::shared_ptr<Context> context,
                    PendingLimit pendingLimit = PendingLimit(), OutgoingHook outgoing = nullptr);
    ~LongPollSession() override;
    LongPollSession(const LongPollSession&) = delete;
    LongPollSession& operator=(const LongPollSession&) = delete;

    std::shared_ptr<Context> getContext() const override;
    std::string getId() const override;
    bool hasId(const std::string& other) const override;
    void deliver(const std::vector<std::string>& segments,
                 const std::shared_ptr<const PublishRequest>& message) override;
    void deliverDeclaredMatch(const std::vector<std::string>& segments,
                              const std::shared_ptr<const PublishRequest>& message) override;
    void deliver(const std::shared_ptr<const SubscribeRequest>& message) override;
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) override;
    bool declaresPatternsTo(const BayeuxServer& routing) const override;

    // This client publishes: stamps clientId and context, then hands the request to the routing core.
    // False when the routing core refuses it; the request then stays with the caller.
    bool publish(std::unique_ptr<PublishRequest>&& request);
    // False, with nothing changed and nothing sent, for a malformed pattern.
    bool subscribe(const std::string& pattern);
    // False for a malformed pattern or one that is not held.
    bool unsubscribe(const std::string& pattern);

    // Opens a connect held for up to `timeoutTicks`; an open connect is answered first.
    // The returned queue may already hold the whole answer.
    std::shared_ptr<BayeuxQueue> connectStream(const std::string& messageId, long long timeoutTicks,
                                               bool bufferResponses, bool holdResponses);
    // Opens a connect like connectStream whose messages, and then its ConnectResponse, go to `sink`,
    // perhaps before this returns. Once the sink is gone they go nowhere.
    void connectTo(const std::shared_ptr<ConnectSink>& sink, const std::string& messageId, long long timeoutTicks,
                   bool bufferResponses, bool holdResponses);
    // A connect answered at once with what is pending, ending with retry advice; leaves no open connect.
    std::shared_ptr<BayeuxQueue> korvaneShortPoll(const std::string& messageId);
    bool hasActiveConnect();
    // Marks an open connect for answering; it is answered by the next message or connect.
    void flush();

private:
    // The queue of one connect, with the continuation that takes it out of tempPublishers when it ends.
    // Made with no lock held: attaching the continuation takes the queue's mutex.
    struct TempPublisher {
        std::shared_ptr<BayeuxQueue> queue;
        unsigned long key;
    };
    TempPublisher makeTempPublisher(std::string name);
    // Where the open connect's messages go: its queue, or the transport's sink. Both null once the
    // sink is gone.
    struct ConnectOutlet {
        std::shared_ptr<BayeuxQueue> queue;
        std::shared_ptr<ConnectSink> sink;
        void put(std::unique_ptr<Message>&& message) const;
        // A publish as the session's copy of it; a sink may write it without one.
        void putPublish(const std::shared_ptr<const PublishRequest>& message) const;
        // The connect's successful reply, its last message; end() follows.
        void putConnectReply(const std::string& messageId, const std::string& clientId) const;
        // A sink's last publish and the reply behind it, in one call.
        void putPublishAndReply(const std::shared_ptr<const PublishRequest>& message, const std::string& messageId,
                                const std::string& clientId) const;
        // Called after the ConnectResponse was put.
        void end() const;
    };
    // Answers an open connect, and makes the open one's fields ready for the next; entered by both
    // ways of opening one.
    void doOpenConnect(std::unique_lock<std::mutex>& lock, const std::string& messageId, long long timeoutTicks,
                       bool bufferResponses, bool holdResponses);
    // The name of a connect's queue: the session's id, "_", the connect's message id.
    std::string queueName(const std::string& messageId) const;
    // Keeps the queue alive in tempPublishers until it ends.
    std::shared_ptr<BayeuxQueue> saveTempPublisher(std::unique_lock<std::mutex>& lock, TempPublisher&& publisher);
    // Takes an ended queue out of tempPublishers; called with `mutex` held.
    void doForgetTempPublisher(unsigned long key);
    void doCompleteQueue(std::unique_lock<std::mutex>& lock);
    void doSendConnectResponse(std::unique_lock<std::mutex>& lock);
    void doNotifyQueue(std::unique_lock<std::mutex>& lock);
    // Queues a publish that matched the session; `lock` is released on return.
    void doDeliver(std::unique_lock<std::mutex>& lock, const std::shared_ptr<const PublishRequest>& message);
    // True the one time that the pending messages first exceed the limit.
    bool doCheckPendingLimit(std::unique_lock<std::mutex>& lock);
    // True when the connect was answered with the last message: a sink with nothing between them
    // takes both in one call, and the connect ends there.
    bool doDrainPending(std::unique_lock<std::mutex>& lock, ConnectOutlet& outlet);
    // Puts the session's copy of one publish out to a connect, past the outgoing hook if
    // there is one. Called with `mutex` released.
    void sendOut(const ConnectOutlet& outlet, const std::shared_ptr<const PublishRequest>& message) const;
    // Answers the connect of `outlet`, behind `last` if given; its references are dropped with the lock released.
    void doEndConnect(std::unique_lock<std::mutex>& lock, ConnectOutlet outlet,
                      const std::shared_ptr<const PublishRequest>* last = nullptr);
    // Clears `notifying` and wakes connects waiting for the drain to end.
    // The transport let go of the open connect (its client went away): it is forgotten
    // unanswered, and the messages wait for the next connect instead of reaching nobody.
    bool connectGone() const;
    void doForgetGoneConnect(std::unique_lock<std::mutex>& lock);
    void doFinishDrain();
    // Answers a connect that is still open, if need be after the drain running on another thread.
    void doAnswerOpenConnect(std::unique_lock<std::mutex>& lock);

    // Holds the open connect to a deadline `ticks` from now.
    void setConnectTimeout(std::unique_lock<std::mutex>& lock, long long ticks);
    void setBufferTimeout(std::unique_lock<std::mutex>& lock);
    // The answer timer fired: the batch being collected, or else a connect whose deadline came, is
    // answered. Holds the session weakly: a timer never keeps a session alive.
    static void onAnswerTimer(const std::weak_ptr<LongPollSession>& weakSelf, long long tick);
    void doConnectTimeout(std::unique_lock<std::mutex>& lock, long long tick);
    void doBufferTimeout(std::unique_lock<std::mutex>& lock, long long tick);
    // Arms the answer timer for `connectDeadline`.
    void armForDeadline(long long now);
    void notifyUnsubscribeAll();

    // What a delivery reads and writes (the flags, the pending count, the lock, the timer and
    // its deadlines, the queue of pending messages, the limit) comes first, so that the fan-out
    // of a publish touches about four cache lines of each receiver rather than seven; what a
    // connect cycle adds follows, and what seldom changes comes last.
    //
    // The first eight bytes of `id`: hasId tells another session's id apart by them, without
    // reading the id's own block (its 16 characters are one more than a string keeps inline).
    // Set by the constructor, never changed.
    std::uint64_t idHead = 0;
    // The bytes of `pendingMessages`, as PendingLimit counts them.
    std::size_t pendingBytes = 0;
    // The limit was exceeded: the owner has been told, and nothing more is kept.
    bool pendingLimitExceeded = false;
    // A pattern was withdrawn: an index match found before that may be stale.
    bool patternWithdrawn = false;
    bool activeConnect = false;
    bool open = true;
    bool sendResponse = false;
    bool bufferTimeoutSet = false;
    bool notifying = false;
    bool bufferResponses = true;
    bool holdResponses = false;
    // The thread that set `notifying`; `drainEnded` wakes connects waiting on its drain.
    std::thread::id drainingThread;
    std::mutex mutex;
    // The one timer that answers a connect, made at the first connect: armed for the connect's
    // deadline, or for its batch's buffer period, which replaces the deadline. A connect answered
    // early leaves it armed: it then finds a later deadline, a batch or nothing when it fires.
    std::unique_ptr<common::RearmableTimer> answerTimer;
    // The tick at which the open connect is answered if nothing answers it first; none while no
    // connect is held to one (none open, a batch being collected, a flushed one).
    std::optional<long long> connectDeadline;
    // The tick that the timer is armed for while armed for a deadline, at or before `connectDeadline`.
    std::optional<long long> timerDeadline;
    // The publishes themselves, shared with their other receivers: the session's copy is
    // made as one goes out, so that a copy lives only while it is written (a copy per
    // waiting message made a burst of allocations that outlived the allocator's caches).
    common::RingQueue<std::shared_ptr<const PublishRequest>> pendingMessages;
    // The sink of a transport that takes the open connect's messages itself, or else
    // `connectQueue`, the open connect's queue.
    std::weak_ptr<ConnectSink> connectSink;
    const PendingLimit pendingLimit;
    std::shared_ptr<BayeuxQueue> connectQueue;
    std::string connectMessageId;
    const OutgoingHook outgoing;
    std::condition_variable drainEnded;
    const std::string id;
    // Every unfinished queue, by key. Seldom more than two, so a vector, which keeps its
    // room between connects, where a map made and freed a node on every one.
    std::vector<std::pair<unsigned long, std::shared_ptr<BayeuxQueue>>> tempPublishers;
    Channel channels;
    const std::shared_ptr<BayeuxServer> server;
    const std::shared_ptr<Context> context;

    // Key source for tempPublishers, shared by every session of the process.
    static std::atomic<unsigned long> publisherCounter;
};

}  // namespace korvane::bayeux
