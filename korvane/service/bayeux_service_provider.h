#pragma once

// The protocol service: every Bayeux request of every transport arrives here. It
// owns the registry of remote clients (which clientIds exist, when each was last
// heard of, over which connection type, for which host session), answers every
// meta request and publish with an already resolved future, drops clients that
// stop calling by a periodic sweep, and turns connects beyond a host session's
// limit into short polls.
//
// Threading and locks: handle overloads run on any host thread, concurrently, also
// for the same client; the sweep runs on the timers' thread. A successful subscribe
// waits, with no lock held and for 100 ms at most, until the routing core's interest
// listener has settled (see InterestListener::awaitSettled). `mutex` guards
// `clients`, `sweeper`, every ClientInfo and the notes that connects leave on their
// sinks, and is held only for the map work and for starting the sweep. Calls into a
// session are made with `mutex` released, except in the count of a browser's active
// connects, flush and census, where `mutex` is the outer lock and the session's own the
// inner one; a connect that its sink's note does not answer also asks the request's
// context for its host session id under `mutex`, which is then the outer lock and the
// context's the inner one (a context calls nothing back). A session calls back into the
// provider only when its client exceeds the pending limit, from its deliver with no
// session lock held, through a callback that holds the provider weakly. The policy
// and the incoming hook are called with no lock held (see bayeux_policy.h). Sessions
// and the sweeper handle are always let go of after `mutex` is released. The sweep
// callback holds the provider by plain pointer: the destructor releases the sweeper,
// which waits for a sweep running on another thread, before any member is destroyed. The provider must be owned by a std::shared_ptr.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "korvane/codec/bayeux_service.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/timers.h"
#include "korvane/frame/warning_throttle.h"
#include "korvane/service/bayeux_policy.h"
#include "korvane/session/long_poll_session.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// The bounds that an embedding host sets on the protocol service.
struct KORVANE_EXPORT BayeuxServiceOptions {
    // Messages that may wait in one session for its client; past it the client is
    // dropped from the registry as if it had timed out. 0 means no limit.
    std::size_t maxPendingMessages = 0;
    // Bytes of the messages waiting in one session (channel name plus data text of each),
    // past which the client is dropped as past maxPendingMessages. 0 means no limit.
    std::size_t maxPendingBytes = 0;
    // Asked before each handshake, subscribe and publish; none allows everything.
    std::shared_ptr<BayeuxPolicy> policy;
    // Requests from clients before they act, and messages to clients before they are
    // written; either may be unset.
    IncomingHook incoming;
    OutgoingHook outgoing;
};

class KORVANE_EXPORT BayeuxServiceProviderImpl : public BayeuxServiceProvider {
public:
    // Starts the sweep and reads TORVEX_KORVANE_BAYEUX_FORCE_ID_CLEAR.
    explicit BayeuxServiceProviderImpl(std::shared_ptr<BayeuxServer> server,
                                       BayeuxServiceOptions options = BayeuxServiceOptions());
    ~BayeuxServiceProviderImpl() override;
    BayeuxServiceProviderImpl(const BayeuxServiceProviderImpl&) = delete;
    BayeuxServiceProviderImpl& operator=(const BayeuxServiceProviderImpl&) = delete;

    Future<std::unique_ptr<Message>> handle(std::unique_ptr<HandshakeRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<ConnectRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<ConnectStreamRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<DisconnectRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<SubscribeRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<UnsubscribeRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;
    Future<std::unique_ptr<Message>> handle(std::unique_ptr<PublishRequest>&& request, Address&& address,
                                            std::shared_ptr<Context>&& context) override;

    // Makes a session, registers it with the routing core and the registry, and
    // (re)starts the sweep. `grant` is what the policy attached to the client.
    std::shared_ptr<LongPollSession> createSession(const std::string& sessionId, std::shared_ptr<Context>& context,
                                                   std::shared_ptr<const ClientGrant> grant = nullptr);
    // The client's session, or null if unknown. Counts as contact; a non-empty
    // connection type replaces the stored one. A non-null `grant` receives the client's.
    std::shared_ptr<LongPollSession> getSession(const std::string& clientId, const std::string& connectionType,
                                                std::shared_ptr<const ClientGrant>* grant = nullptr);
    // True if the client existed. The last removal ends the sweep.
    bool deleteSession(const std::string& clientId);

    // One sweep at `tick`: drops every client not heard of for clientTimeoutTicks.
    void sweepClients(long long tick);
    // Active connects of the clients of one host session over one connection type.
    std::size_t getActiveConnectCountForSessionId(const std::string& sessionId, const std::string& connectionType);
    // 0 for a connection type that has no limit of its own.
    std::size_t getActiveConnectCountLimit(const std::string& connectionType) const;
    // Marks every open connect for answering; each is answered by its session's
    // next message or connect.
    void flush();

    // What the metrics report of the registry: its clients by the connection type of their
    // last connect ("none" before the first, "other" for a type the server has no limit
    // for, so that clients cannot make up labels), and the connects held open.
    struct ClientCensus {
        std::map<std::string, std::size_t> byConnectionType;
        std::size_t heldConnects = 0;
    };
    ClientCensus census();

private:
    struct ClientInfo;
    using BrowserClients = std::vector<ClientInfo*>;
    struct ClientInfo {
        std::string sessionId;
        BrowserClients* browser = nullptr;  // its entry in `clientsBySession`
        std::string connectionType;
        long long tick = 0;
        std::shared_ptr<LongPollSession> session;
        std::shared_ptr<const ClientGrant> grant;
        std::size_t browserSlot = 0;  // where the record sits in its browser's list
    };

    using ClientMap = std::unordered_map<std::string, ClientInfo>;
    // The clients of each host session, so that counting one browser's connects visits
    // that browser's records only. The records are the nodes of `clients`, whose
    // addresses stay put until they are erased; each knows its slot in the list, so that
    // forgetting one costs the same however many clients share the browser.
    using ClientsBySession = std::unordered_map<std::string, BrowserClients>;

    // Entered with `mutex` held: the client's record, or null if unknown, its contact and
    // connection type brought up to date as getSession describes.
    ClientInfo* doTouch(const std::string& clientId, const std::string& connectionType);
    // Entered with `mutex` held: the client was heard from now, over `connectionType` if named.
    void doRefresh(const std::string& clientId, ClientInfo& info, const std::string& connectionType);
    // Entered with `mutex` held: the active connects of `browser`'s clients over one type.
    std::size_t doCountActiveConnects(const BrowserClients& browser, const std::string& connectionType) const;
    // The session of a connect, or null if its client is unknown, with `shortPoll` set when
    // the browser of `context` already holds as many connects of the type as it may: one
    // look into the registry under one lock, the browser's list reached from the record.
    // A connect through a `sink` that serves later connects leaves a ConnectNote there when
    // its browser is below the type's limit, and the same client's next connect through it,
    // while the note holds, takes the record from the note instead of the map and asks the
    // context nothing.
    std::shared_ptr<LongPollSession> sessionForConnect(const std::string& clientId, const std::string& connectionType,
                                                       const std::shared_ptr<Context>& context, ConnectSink* sink,
                                                       bool& shortPoll);
    struct ConnectNote;
    // Entered with `mutex` held: the record that `sink`'s note names for this connect, or
    // null when the sink has no note that still holds for it.
    ClientInfo* doNotedRecord(ConnectSink* sink, const std::string& clientId, const std::string& connectionType,
                              const std::shared_ptr<Context>& context) const;
    // Entered with `mutex` held: leaves on `sink` a note of the record found for a connect.
    void doNote(ConnectSink& sink, ClientInfo& record, const std::string& clientId, const std::string& connectionType,
                const std::shared_ptr<Context>& context, std::uint64_t contextChanges) const;
    // Entered with `mutex` held (the lock is the proof); arms the sweep unless it runs.
    void startSweeping(std::unique_lock<std::mutex>& lock);
    // Entered with `mutex` held: hands the sweeper over to the caller once no client
    // is left, so that the caller drops it with the lock released.
    common::TimerHandle takeSweeperIfIdle(std::unique_lock<std::mutex>& lock);
    // Entered with `mutex` held: erases the record and its entry in `clientsBySession`,
    // handing the record back so that its session dies after the lock is released.
    ClientInfo doForget(ClientMap::iterator client);
    // Removes a client whose session exceeded the pending-message limit, and warns,
    // at most once a second, with the number of clients dropped since the last line.
    void dropOverflowingClient(const std::string& clientId);
    // Entered with `mutex` held: writes the warning if there is something to say and a
    // second has passed since the last one.
    void doWarnAboutDroppedClients(std::unique_lock<std::mutex>& lock, long long tick);
    // False, with the refusal in `response`, when the incoming hook drops the request.
    bool admitted(BayeuxBase& request, BayeuxResponse& response, const std::shared_ptr<Context>& context) const;
    // The session of a subscribe or publish that the policy allows to touch `target`, or null
    // with the refusal in `response` (unknown client, or "403:<target>:<deniedMessage>").
    // `ask` puts the question to the policy.
    template <class Ask>
    std::shared_ptr<LongPollSession> permittedSession(const std::string& clientId, const std::string& target,
                                                      const char* deniedMessage, BayeuxResponse& response, Ask&& ask);
    // Drops the request's id where the channel, or forceIdClear, asks for it.
    void clearPublishedId(PublishRequest& request) const;
    // The hold time of a long-poll connect, in ticks.
    long long connectHoldTicks(const ConnectStreamRequest& request) const;
    // Opens the connect, its stream in `response` unless the request's sink takes its messages.
    // False when the client is unknown. Throws whatever the session or the context throws.
    bool openConnect(const ConnectStreamRequest& request, const std::shared_ptr<Context>& context,
                     ConnectStreamResponse& response);

    std::mutex mutex;
    const std::string version;
    const std::string minimumVersion;
    const std::vector<std::string> supportedConnectionTypes;
    const long long clientTimeoutTicks;
    const long long connectTimeoutTicks;
    common::TimerHandle sweeper;
    const std::shared_ptr<BayeuxServer> server;
    ClientMap clients;
    ClientsBySession clientsBySession;
    // Moves on with every record erased and every browser's list grown, so that a
    // ConnectNote made before is known to be stale.
    std::uint64_t registryChanges = 0;
    const std::unordered_map<std::string, std::size_t> activeConnectLimits;
    const std::vector<std::string> idClearPrefixes;
    const bool forceIdClear;
    // This provider's number among the process's, which the notes it leaves carry.
    const std::uint64_t instance;
    const BayeuxServiceOptions options;
    // Clients dropped over the pending-message limit since the last warning.
    std::size_t droppedSinceWarning = 0;
    common::WarningThrottle dropWarnings{std::chrono::seconds(1)};
};

}  // namespace korvane::bayeux
