#include "korvane/service/bayeux_service_provider.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "korvane/frame/logger.h"
#include "korvane/frame/spare_buckets.h"
#include "korvane/routing/bayeux_counters.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/session/long_poll_session.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::service");

constexpr const char* noSuchClientText = "No such clientId.";
// Ticks between two sweeps (10 seconds).
constexpr long long sweepPeriodTicks = 100;
// The longest a subscribe's reply waits for the routing core's interest listener (the
// cluster bridge's SUBSCRIBE in Redis): one Redis round trip when all is well.
constexpr std::chrono::milliseconds subscribeSettleLimit{100};

bool readForceIdClear() {
    const char* value = std::getenv("TORVEX_KORVANE_BAYEUX_FORCE_ID_CLEAR");
    return value != nullptr && std::string(value) == "true";
}

const std::string hostSessionKey = "sessionId";

// Numbers the providers of the process, so that a note left on a sink by one that is gone is
// never taken by another made at its address.
std::atomic<std::uint64_t> instanceCount{0};

// The host session id that the context carries, or empty. A value of another type
// than std::string throws boost::bad_any_cast.
std::string hostSessionIdOf(const std::shared_ptr<Context>& context) {
    return context ? context->getString(hostSessionKey) : std::string();
}

// Whether the context carries host session id `id`, without copying its own.
bool isHostSessionOf(const std::shared_ptr<Context>& context, const std::string& id) {
    return context ? context->isString(hostSessionKey, id) : id.empty();
}

std::shared_ptr<BayeuxAdvice> handshakeAdvice() {
    auto advice = std::make_shared<BayeuxAdvice>();
    advice->reconnect = Advice::Handshake;
    return advice;
}

template <class Response>
std::unique_ptr<Response> respondTo(const BayeuxBase& request, std::unique_ptr<Response> response) {
    response->id = request.id;
    response->clientId = request.clientId;
    return response;
}

template <class Response>
Future<std::unique_ptr<Message>> resolved(std::unique_ptr<Response>&& response) {
    return makeReadyFuture<std::unique_ptr<Message>>(std::unique_ptr<Message>(std::move(response)));
}

// A refusal's error: "403:<args>:<message>", the policy's reason as the message if it gave one.
std::string deniedText(const std::string& args, const PolicyDecision& decision, const char* defaultMessage) {
    return "403:" + args + ":" + (decision.reason.empty() ? defaultMessage : decision.reason);
}

// The answer to a request that names a client the registry does not know.
void refuseUnknownClient(BayeuxResponse& response) {
    KORVANE_LOG(logger, common::logFailure) << "No session with id: " << response.clientId;
    response.successful = false;
    response.error = noSuchClientText;
}

}  // namespace

ClientGrant::~ClientGrant() = default;

BayeuxPolicy::~BayeuxPolicy() = default;

BayeuxServiceProviderImpl::BayeuxServiceProviderImpl(std::shared_ptr<BayeuxServer> server,
                                                     BayeuxServiceOptions options)
    : version("1.0"),
      minimumVersion("1.0"),
      supportedConnectionTypes{"long-polling", "websocket"},
      clientTimeoutTicks(1200),
      connectTimeoutTicks(600),
      server(std::move(server)),
      activeConnectLimits{{"long-polling", 4}, {"short-polling", 0}, {"websocket", 20}},
      idClearPrefixes{"/torvex/Venthra", "/torvex/client/"},
      forceIdClear(readForceIdClear()),
      instance(++instanceCount),
      options(options) {
    std::unique_lock<std::mutex> lock(mutex);
    startSweeping(lock);
}

BayeuxServiceProviderImpl::~BayeuxServiceProviderImpl() {
    ClientMap remaining;
    common::TimerHandle runningSweep;
    {
        std::lock_guard<std::mutex> lock(mutex);
        remaining.swap(clients);
        runningSweep = std::move(sweeper);
    }
    // Sessions die first, outside the lock; then the release of the sweeper waits
    // for a sweep that may be running on the timers' thread, before any member goes.
    remaining.clear();
    runningSweep.reset();
}

// ---- registry ----

std::shared_ptr<LongPollSession> BayeuxServiceProviderImpl::createSession(const std::string& sessionId,
                                                                          std::shared_ptr<Context>& context,
                                                                          std::shared_ptr<const ClientGrant> grant) {
    PendingLimit pendingLimit;
    pendingLimit.maxMessages = options.maxPendingMessages;
    pendingLimit.maxBytes = options.maxPendingBytes;
    if (pendingLimit.maxMessages != 0 || pendingLimit.maxBytes != 0) {
        std::weak_ptr<ServiceProvider> weakSelf = weak_from_this();
        pendingLimit.onExceeded = [weakSelf](const std::string& clientId) {
            if (std::shared_ptr<ServiceProvider> self = weakSelf.lock()) {
                static_cast<BayeuxServiceProviderImpl&>(*self).dropOverflowingClient(clientId);
            }
        };
    }
    auto session = std::make_shared<LongPollSession>(server, context, std::move(pendingLimit), options.outgoing);
    server->addSession(std::weak_ptr<BayeuxSession>(session));
    std::string clientId = session->getId();

    std::unique_lock<std::mutex> lock(mutex);
    ClientInfo& info = clients[clientId];
    BrowserClients& browser = clientsBySession[sessionId];
    info.browserSlot = browser.size();
    browser.push_back(&info);
    info.browser = &browser;
    info.sessionId = sessionId;
    info.session = session;
    info.grant = std::move(grant);
    info.tick = common::getCurrentTick();
    ++registryChanges;
    startSweeping(lock);
    KORVANE_LOG(logger, common::logLifecycle) << "New session with id: " << clientId;
    return session;
}

std::shared_ptr<LongPollSession> BayeuxServiceProviderImpl::getSession(const std::string& clientId,
                                                                       const std::string& connectionType,
                                                                       std::shared_ptr<const ClientGrant>* grant) {
    std::lock_guard<std::mutex> lock(mutex);
    ClientInfo* info = doTouch(clientId, connectionType);
    if (info == nullptr) {
        return nullptr;
    }
    if (grant != nullptr) {
        *grant = info->grant;
    }
    return info->session;
}

BayeuxServiceProviderImpl::ClientInfo* BayeuxServiceProviderImpl::doTouch(const std::string& clientId,
                                                                          const std::string& connectionType) {
    auto found = clients.find(clientId);
    if (found == clients.end()) {
        return nullptr;
    }
    doRefresh(found->first, found->second, connectionType);
    return &found->second;
}

void BayeuxServiceProviderImpl::doRefresh(const std::string& clientId, ClientInfo& info,
                                          const std::string& connectionType) {
    info.tick = common::getCurrentTick();
    if (!connectionType.empty() && info.connectionType != connectionType) {
        info.connectionType = connectionType;
    }
    KORVANE_LOG(logger, common::logFrequent) << "Tick updated for client: " << clientId << " to " << info.tick;
}

// What a connect through a sink found: its client's record, for the connection type and the
// context it came with, as the registry (`registryChanges`) and the context (its changeCount)
// stood then, its browser below the type's limit. A connect with the same client id and type
// in the same context, none of it changed, would find the same record and the same answer.
struct BayeuxServiceProviderImpl::ConnectNote : ConnectSink::Note {
    static constexpr std::size_t maxClientIdBytes = 32;

    bool isFor(const std::string& id) const {
        return id.size() == clientIdSize && std::memcmp(id.data(), clientId.data(), clientIdSize) == 0;
    }
    // The same context object, or no context for both: a weak pointer keeps the control block,
    // which tells the object apart, in place while the note lives.
    bool isIn(const std::shared_ptr<Context>& other) const {
        return !context.owner_before(other) && !other.owner_before(context);
    }

    std::uint64_t provider = 0;  // its `instance`
    std::uint64_t registryChanges = 0;
    std::weak_ptr<Context> context;
    std::uint64_t contextChanges = 0;
    // The key of the type's entry in `activeConnectLimits`, which lives as long as the provider.
    const std::string* connectionType = nullptr;
    // In the note itself, so that comparing it reads no other block.
    std::array<char, maxClientIdBytes> clientId{};
    std::size_t clientIdSize = 0;
    ClientInfo* record = nullptr;
};

BayeuxServiceProviderImpl::ClientInfo* BayeuxServiceProviderImpl::doNotedRecord(
    ConnectSink* sink, const std::string& clientId, const std::string& connectionType,
    const std::shared_ptr<Context>& context) const {
    const auto* note = sink == nullptr ? nullptr : dynamic_cast<const ConnectNote*>(sink->serviceNote.get());
    if (note == nullptr || note->provider != instance || note->registryChanges != registryChanges ||
        !note->isFor(clientId) || *note->connectionType != connectionType || !note->isIn(context) ||
        (context && note->contextChanges != context->changeCount())) {
        return nullptr;
    }
    return note->record;
}

void BayeuxServiceProviderImpl::doNote(ConnectSink& sink, ClientInfo& record, const std::string& clientId,
                                       const std::string& connectionType, const std::shared_ptr<Context>& context,
                                       std::uint64_t contextChanges) const {
    const auto limit = activeConnectLimits.find(connectionType);
    if (clientId.size() > ConnectNote::maxClientIdBytes || limit == activeConnectLimits.end()) {
        return;
    }
    auto* note = dynamic_cast<ConnectNote*>(sink.serviceNote.get());
    if (note == nullptr) {
        auto made = std::make_unique<ConnectNote>();
        note = made.get();
        sink.serviceNote = std::move(made);
    }
    note->provider = instance;
    note->registryChanges = registryChanges;
    note->context = context;
    note->contextChanges = contextChanges;
    note->connectionType = &limit->first;
    std::memcpy(note->clientId.data(), clientId.data(), clientId.size());
    note->clientIdSize = clientId.size();
    note->record = &record;
}

std::shared_ptr<LongPollSession> BayeuxServiceProviderImpl::sessionForConnect(const std::string& clientId,
                                                                              const std::string& connectionType,
                                                                              const std::shared_ptr<Context>& context,
                                                                              ConnectSink* sink, bool& shortPoll) {
    std::lock_guard<std::mutex> lock(mutex);
    if (ClientInfo* noted = doNotedRecord(sink, clientId, connectionType, context)) {
        doRefresh(clientId, *noted, connectionType);
        shortPoll = false;
        return noted->session;
    }
    auto client = clients.find(clientId);
    if (client == clients.end()) {
        return nullptr;
    }
    ClientInfo* info = &client->second;
    // Read before the context is asked: a change made meanwhile leaves the note stale.
    const std::uint64_t contextChanges = context ? context->changeCount() : 0;
    // A client connects from the browser it shook hands from, almost always: the context is
    // asked whether that is so, which copies no id out of it. A context whose id is not a
    // string throws here, before the record is touched.
    const BrowserClients* browser = info->browser;
    if (!isHostSessionOf(context, info->sessionId)) {
        auto found = clientsBySession.find(hostSessionIdOf(context));
        browser = found == clientsBySession.end() ? nullptr : &found->second;
    }
    doRefresh(client->first, *info, connectionType);
    // Counting takes the lock of each of the browser's sessions; a browser with fewer clients
    // than the limit cannot reach it, so its connects are not counted.
    const std::size_t limit = getActiveConnectCountLimit(connectionType);
    const bool belowLimit = browser == nullptr || browser->size() < limit;
    const std::size_t active = belowLimit ? 0 : doCountActiveConnects(*browser, connectionType);
    shortPoll = active >= limit;
    if (sink != nullptr && belowLimit && !shortPoll && sink->servesLaterConnects()) {
        doNote(*sink, *info, client->first, connectionType, context, contextChanges);
    }
    return info->session;
}

bool BayeuxServiceProviderImpl::deleteSession(const std::string& clientId) {
    std::shared_ptr<LongPollSession> session;
    common::TimerHandle endedSweep;
    {
        std::unique_lock<std::mutex> lock(mutex);
        auto found = clients.find(clientId);
        if (found == clients.end()) {
            return false;
        }
        session = doForget(found).session;
        common::releaseSpareBuckets(clients);
        endedSweep = takeSweeperIfIdle(lock);
    }
    // `session` and `endedSweep` are released on return, after the lock.
    return true;
}

void BayeuxServiceProviderImpl::dropOverflowingClient(const std::string& clientId) {
    if (!deleteSession(clientId)) {
        return;
    }
    count(BayeuxCounter::clientsDroppedOverPending);
    std::unique_lock<std::mutex> lock(mutex);
    ++droppedSinceWarning;
    doWarnAboutDroppedClients(lock, common::getCurrentTick());
}

void BayeuxServiceProviderImpl::doWarnAboutDroppedClients(std::unique_lock<std::mutex>& /*lock*/, long long tick) {
    const common::WarningThrottle::Clock::time_point now(std::chrono::milliseconds(tick * common::tickMilliseconds));
    if (droppedSinceWarning == 0 || !dropWarnings.allow(now)) {
        return;
    }
    std::string limit =
        options.maxPendingMessages == 0 ? "" : std::to_string(options.maxPendingMessages) + " pending messages";
    if (options.maxPendingBytes != 0) {
        limit += (limit.empty() ? "" : " or ") + std::to_string(options.maxPendingBytes) + " pending bytes";
    }
    KORVANE_LOG(logger, common::logWarning) << "Dropped " << droppedSinceWarning << " client(s) over the limit of "
                                            << limit;
    droppedSinceWarning = 0;
}

// ---- sweep and limits ----

void BayeuxServiceProviderImpl::startSweeping(std::unique_lock<std::mutex>& /*lock*/) {
    if (sweeper) {
        return;
    }
    sweeper = common::periodic([this](long long tick) { sweepClients(tick); }, sweepPeriodTicks);
}

common::TimerHandle BayeuxServiceProviderImpl::takeSweeperIfIdle(std::unique_lock<std::mutex>& /*lock*/) {
    if (!clients.empty()) {
        return nullptr;
    }
    return std::move(sweeper);
}

void BayeuxServiceProviderImpl::sweepClients(long long tick) {
    std::vector<ClientInfo> expired;
    common::TimerHandle endedSweep;
    std::unique_lock<std::mutex> lock(mutex);
    for (auto it = clients.begin(); it != clients.end();) {
        if (clientTimeoutTicks + it->second.tick > tick) {
            ++it;
            continue;
        }
        KORVANE_LOG(logger, common::logLifecycle) << "Client timed out: " << it->first;
        auto next = std::next(it);
        expired.push_back(doForget(it));
        it = next;
    }
    count(BayeuxCounter::clientsSwept, expired.size());
    common::releaseSpareBuckets(clients);
    // Drops that came too soon after a warning are reported here once their second is over.
    doWarnAboutDroppedClients(lock, tick);
    endedSweep = takeSweeperIfIdle(lock);
    // Nothing of the provider is touched after this unlock: a destructor running on
    // another thread may find the sweeper already gone and proceed. The expired
    // sessions and, possibly, this sweep's own handle are released with the locals.
    lock.unlock();
}

BayeuxServiceProviderImpl::ClientInfo BayeuxServiceProviderImpl::doForget(ClientMap::iterator client) {
    ++registryChanges;
    auto browser = clientsBySession.find(client->second.sessionId);
    if (browser != clientsBySession.end()) {
        BrowserClients& records = browser->second;
        const std::size_t slot = client->second.browserSlot;
        if (slot < records.size() && records[slot] == &client->second) {
            records[slot] = records.back();
            records[slot]->browserSlot = slot;
            records.pop_back();
        }
        if (records.empty()) {
            clientsBySession.erase(browser);
            common::releaseSpareBuckets(clientsBySession);
        } else if (records.capacity() > 4 * records.size()) {
            records.shrink_to_fit();
        }
    }
    ClientInfo forgotten = std::move(client->second);
    clients.erase(client);
    return forgotten;
}

std::size_t BayeuxServiceProviderImpl::getActiveConnectCountForSessionId(const std::string& sessionId,
                                                                         const std::string& connectionType) {
    std::lock_guard<std::mutex> lock(mutex);
    auto browser = clientsBySession.find(sessionId);
    return browser == clientsBySession.end() ? 0 : doCountActiveConnects(browser->second, connectionType);
}

std::size_t BayeuxServiceProviderImpl::doCountActiveConnects(const BrowserClients& browser,
                                                             const std::string& connectionType) const {
    std::size_t count = 0;
    for (const ClientInfo* client : browser) {
        if (client->connectionType == connectionType && client->session->hasActiveConnect()) {
            ++count;
        }
    }
    return count;
}

std::size_t BayeuxServiceProviderImpl::getActiveConnectCountLimit(const std::string& connectionType) const {
    // The table is never written after construction, so concurrent look-ups need no
    // lock, and a connection type made up by a client cannot grow it.
    auto found = activeConnectLimits.find(connectionType);
    return found == activeConnectLimits.end() ? 0 : found->second;
}

void BayeuxServiceProviderImpl::flush() {
    std::lock_guard<std::mutex> lock(mutex);
    KORVANE_LOG(logger, common::logTrace) << "Manually flushing pending connections";
    for (const auto& entry : clients) {
        entry.second.session->flush();
    }
}

BayeuxServiceProviderImpl::ClientCensus BayeuxServiceProviderImpl::census() {
    ClientCensus census;
    for (const auto& limit : activeConnectLimits) {
        census.byConnectionType[limit.first] = 0;
    }
    census.byConnectionType["none"] = 0;
    census.byConnectionType["other"] = 0;
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [clientId, info] : clients) {
        const bool known = activeConnectLimits.count(info.connectionType) != 0;
        ++census.byConnectionType[info.connectionType.empty() ? "none" : known ? info.connectionType : "other"];
        if (info.session->hasActiveConnect()) {
            ++census.heldConnects;
        }
    }
    return census;
}

// ---- requests ----

bool BayeuxServiceProviderImpl::admitted(BayeuxBase& request, BayeuxResponse& response,
                                         const std::shared_ptr<Context>& context) const {
    if (!options.incoming || options.incoming(request, context)) {
        return true;
    }
    KORVANE_LOG(logger, common::logFailure) << "Message dropped by the host: " << request.channel << ", "
                                            << request.clientId;
    response.successful = false;
    response.error = "403:" + request.channel + ":message dropped";
    return false;
}

template <class Ask>
std::shared_ptr<LongPollSession> BayeuxServiceProviderImpl::permittedSession(const std::string& clientId,
                                                                             const std::string& target,
                                                                             const char* deniedMessage,
                                                                             BayeuxResponse& response, Ask&& ask) {
    std::shared_ptr<const ClientGrant> grant;
    std::shared_ptr<LongPollSession> session = getSession(clientId, std::string(), options.policy ? &grant : nullptr);
    if (!session) {
        refuseUnknownClient(response);
        return nullptr;
    }
    if (!options.policy) {
        return session;
    }
    const PolicyDecision decision = ask(*options.policy, PolicyClient{clientId, grant.get()});
    if (decision.allowed) {
        return session;
    }
    KORVANE_LOG(logger, common::logFailure) << "Session with id: " << clientId << " denied " << target << ": "
                                            << decision.reason;
    response.successful = false;
    response.error = deniedText(target, decision, deniedMessage);
    return nullptr;
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<HandshakeRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    std::string sessionId = hostSessionIdOf(context);
    auto response = std::make_unique<HandshakeResponse>();
    response->id = request->id;
    response->version = version;
    response->minimumVersion = minimumVersion;
    response->supportedConnectionTypes = supportedConnectionTypes;
    if (!admitted(*request, *response, context)) {
        return resolved(std::move(response));
    }
    HandshakeDecision decision;
    if (options.policy) {
        decision = options.policy->mayHandshake(context, request->ext);
    }
    if (!decision.allowed) {
        KORVANE_LOG(logger, common::logFailure) << "Handshake denied: " << decision.reason;
        response->error = deniedText(std::string(), decision, "handshake denied");
        // A client that retried would only be refused again.
        response->advice = std::make_shared<BayeuxAdvice>();
        response->advice->reconnect = Advice::None;
        return resolved(std::move(response));
    }
    response->clientId = createSession(sessionId, context, std::move(decision.grant))->getId();
    response->successful = true;
    count(BayeuxCounter::handshakes);
    return resolved(std::move(response));
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<ConnectRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& /*context*/) {
    auto response = respondTo(*request, std::make_unique<ConnectResponse>());
    response->error = "ConnectRequest isn't supported anymore.";
    response->successful = false;
    return resolved(std::move(response));
}

long long BayeuxServiceProviderImpl::connectHoldTicks(const ConnectStreamRequest& request) const {
    if (request.advice && request.advice->timeout >= 0) {
        return request.advice->timeout / common::tickMilliseconds;
    }
    return connectTimeoutTicks;
}

bool BayeuxServiceProviderImpl::openConnect(const ConnectStreamRequest& request, const std::shared_ptr<Context>& context,
                                            ConnectStreamResponse& response) {
    const std::string connectionType = request.connectionType.empty() ? "long-polling" : request.connectionType;
    bool shortPoll = false;
    std::shared_ptr<ConnectSink> sink = request.sink.lock();
    std::shared_ptr<LongPollSession> session =
        sessionForConnect(request.clientId, connectionType, context, sink.get(), shortPoll);
    if (!session) {
        return false;
    }
    if (shortPoll) {
        KORVANE_LOG(logger, common::logTrace) << "Connecting with stream response (short poll): " << request.clientId << ", "
                                                  << hostSessionIdOf(context);
        count(BayeuxCounter::shortPolls);
        response.stream = session->korvaneShortPoll(request.id);
        return true;
    }
    KORVANE_LOG(logger, common::logTrace) << "Connecting with stream response (long poll): " << request.clientId << ", "
                                                  << hostSessionIdOf(context);
    if (sink) {
        session->connectTo(sink, request.id, connectHoldTicks(request), request.bufferResponses, request.holdResponses);
    } else {
        response.stream = session->connectStream(request.id, connectHoldTicks(request), request.bufferResponses,
                                                 request.holdResponses);
    }
    return true;
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<ConnectStreamRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    auto response = std::make_unique<ConnectStreamResponse>();
    bool opened = false;
    bool failed = false;
    try {
        opened = openConnect(*request, context, *response);
    } catch (...) {
        failed = true;
    }
    // The request is spent: its ids move to the reply.
    response->id = std::move(request->id);
    response->clientId = std::move(request->clientId);
    if (opened) {
        response->successful = true;
        return resolved(std::move(response));
    }
    if (failed) {
        // The exception's own text is deliberately not passed on to the client.
        response->error = "Error while processing connect request";
    } else {
        refuseUnknownClient(*response);
    }
    response->successful = false;
    response->advice = handshakeAdvice();
    return resolved(std::move(response));
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<DisconnectRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    auto response = respondTo(*request, std::make_unique<DisconnectResponse>());
    if (!admitted(*request, *response, context)) {
        return resolved(std::move(response));
    }
    if (deleteSession(request->clientId)) {
        KORVANE_LOG(logger, common::logLifecycle) << "Disconnect session with id: " << request->clientId;
        response->successful = true;
        count(BayeuxCounter::disconnects);
    } else {
        refuseUnknownClient(*response);
    }
    return resolved(std::move(response));
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<SubscribeRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    auto response = respondTo(*request, std::make_unique<SubscribeResponse>());
    response->subscription = request->subscription;
    if (!admitted(*request, *response, context)) {
        return resolved(std::move(response));
    }
    std::shared_ptr<LongPollSession> session = permittedSession(
        request->clientId, request->subscription, "subscription denied", *response,
        [&](BayeuxPolicy& policy, const PolicyClient& client) {
            return policy.maySubscribe(client, request->subscription, context);
        });
    if (!session) {
        return resolved(std::move(response));
    }
    KORVANE_LOG(logger, common::logLifecycle) << "Subscribe session with id: " << request->clientId
                            << " to pattern: " << request->subscription;
    try {
        response->successful = session->subscribe(request->subscription);
    } catch (const std::exception& error) {
        // A pattern count that is full: refused like any other pattern the session turns down.
        KORVANE_LOG(logger, common::logFailure) << "Session with id: " << request->clientId << " unable to subscribe to pattern: "
                                 << request->subscription << ", " << error.what();
    }
    if (response->successful) {
        // So that a message published elsewhere after the client has its reply reaches it.
        server->awaitInterestSettled(subscribeSettleLimit);
    }
    return resolved(std::move(response));
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<UnsubscribeRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    auto response = respondTo(*request, std::make_unique<UnsubscribeResponse>());
    response->subscription = request->subscription;
    if (!admitted(*request, *response, context)) {
        return resolved(std::move(response));
    }
    std::shared_ptr<LongPollSession> session = getSession(request->clientId, std::string());
    if (!session) {
        refuseUnknownClient(*response);
        return resolved(std::move(response));
    }
    response->successful = session->unsubscribe(request->subscription);
    if (!response->successful) {
        response->error = "No such subscription.";
    }
    return resolved(std::move(response));
}

void BayeuxServiceProviderImpl::clearPublishedId(PublishRequest& request) const {
    for (const std::string& prefix : idClearPrefixes) {
        if (request.channel.compare(0, prefix.size(), prefix) == 0 || forceIdClear) {
            request.id.clear();
            return;
        }
    }
}

Future<std::unique_ptr<Message>> BayeuxServiceProviderImpl::handle(std::unique_ptr<PublishRequest>&& request,
                                                                   Address&& /*address*/,
                                                                   std::shared_ptr<Context>&& context) {
    // The response keeps the client's id, whatever the clearing below does.
    auto response = respondTo(*request, std::make_unique<PublishResponse>(request->channel));
    if (!admitted(*request, *response, context)) {
        return resolved(std::move(response));
    }
    clearPublishedId(*request);

    std::shared_ptr<LongPollSession> session = permittedSession(
        request->clientId, request->channel, "publish denied", *response,
        [&](BayeuxPolicy& policy, const PolicyClient& client) {
            return policy.mayPublish(client, request->channel, context);
        });
    if (!session) {
        return resolved(std::move(response));
    }

    std::string failure = "Unknown error";
    response->successful = false;
    try {
        response->successful = session->publish(std::move(request));
    } catch (const std::exception& error) {
        failure = error.what();
    } catch (...) {
        // Not a standard exception: there is no text to report, "Unknown error" stands.
    }
    if (response->successful) {
        return resolved(std::move(response));
    }
    // The request may be gone by now; the response holds the same client id and channel.
    KORVANE_LOG(logger, common::logFailure) << "Session with id: " << response->clientId
                             << " unable to publish on channel: " << response->channel << ", " << failure;
    response->error = "Unable to publish. " + failure;
    return resolved(std::move(response));
}

}  // namespace korvane::bayeux
