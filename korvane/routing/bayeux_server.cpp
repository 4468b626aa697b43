#include "korvane/routing/bayeux_server.h"

#include <algorithm>
#include <utility>

#include "korvane/codec/channel.h"
#include "korvane/frame/logger.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::server");

bool isPublishable(const PublishRequest& request) {
    const std::string& channel = request.channel;
    return request.data != nullptr && channel.size() >= 2 && channel.front() == '/' && channel.back() != '/' &&
           channel.find('*') == std::string::npos;
}

// The strong reference is dropped before the caller takes `mutex`, so a session
// that dies here is never destroyed under the server's lock.
void logAdd(const std::weak_ptr<BayeuxSession>& session) {
    if (logger.isEnabled(8)) {
        if (const std::shared_ptr<BayeuxSession> alive = session.lock()) {
            KORVANE_LOG(logger, 8) << "addSession " << alive->getId();
        }
    }
}

// Compares by owner, without locking: a strong reference taken under `mutex`
// could turn out to be the last one and run a session's destructor there.
bool isSameSession(const std::weak_ptr<BayeuxSession>& entry, const std::shared_ptr<BayeuxSession>& session) {
    return !entry.owner_before(session) && !session.owner_before(entry);
}

}  // namespace

BayeuxServerImpl::BayeuxServerImpl()
    : prioritySessions(std::make_shared<SessionList>()), sessions(std::make_shared<SessionList>()) {}

BayeuxServerImpl::~BayeuxServerImpl() = default;

void BayeuxServerImpl::addSession(std::weak_ptr<BayeuxSession> session) {
    logAdd(session);
    std::lock_guard<std::mutex> guard(mutex);
    doAppend(sessions, std::move(session));
}

void BayeuxServerImpl::addPrioritySession(std::weak_ptr<BayeuxSession> session) {
    logAdd(session);
    std::lock_guard<std::mutex> guard(mutex);
    doAppend(prioritySessions, std::move(session));
}

void BayeuxServerImpl::removeSession(const std::shared_ptr<BayeuxSession>& session) {
    KORVANE_LOG(logger, 8) << "removeSession " << session->getId();
    std::lock_guard<std::mutex> guard(mutex);
    doRemove(prioritySessions, session);
    doRemove(sessions, session);
}

bool BayeuxServerImpl::deliver(std::unique_ptr<PublishRequest>&& request) {
    KORVANE_LOG(logger, 8) << "deliver " << request->channel;
    if (!isPublishable(*request)) {
        return false;
    }
    doDeliver(std::shared_ptr<const PublishRequest>(std::move(request)));
    return true;
}

bool BayeuxServerImpl::deliver(std::shared_ptr<const PublishRequest>&& request) {
    KORVANE_LOG(logger, 8) << "deliver " << request->channel;
    if (!isPublishable(*request)) {
        return false;
    }
    doDeliver(request);
    return true;
}

void BayeuxServerImpl::deliver(std::unique_ptr<SubscribeRequest>&& request) {
    const std::shared_ptr<const SubscribeRequest> notice(std::move(request));
    doForEachReceiver(notice->clientId, [&notice](BayeuxSession& session) { session.deliver(notice); });
}

void BayeuxServerImpl::deliver(std::unique_ptr<UnsubscribeRequest>&& request) {
    const std::shared_ptr<const UnsubscribeRequest> notice(std::move(request));
    doForEachReceiver(notice->clientId, [&notice](BayeuxSession& session) { session.deliver(notice); });
}

std::shared_ptr<BayeuxServer> BayeuxServerImpl::getPtr() {
    return shared_from_this();
}

void BayeuxServerImpl::doDeliver(const std::shared_ptr<const PublishRequest>& request) {
    // Split once; every session matches against the same vector.
    const std::vector<std::string> segments = splitChannel(request->channel);
    doForEachReceiver(request->clientId,
                      [&segments, &request](BayeuxSession& session) { session.deliver(segments, request); });
}

template <class Visit>
void BayeuxServerImpl::doForEachReceiver(const std::string& senderId, Visit&& visit) {
    // The ordinary list is read only after the priority walk, so a session added
    // to it meanwhile is served by this publish.
    for (const std::shared_ptr<SessionList>* field : {&prioritySessions, &sessions}) {
        const std::shared_ptr<SessionList> list = snapshot(*field);
        for (const std::weak_ptr<BayeuxSession>& entry : *list) {
            const std::shared_ptr<BayeuxSession> session = entry.lock();
            if (session && !session->hasId(senderId)) {
                visit(*session);
            }
        }
    }
}

std::shared_ptr<BayeuxServerImpl::SessionList> BayeuxServerImpl::snapshot(const std::shared_ptr<SessionList>& list) {
    std::lock_guard<std::mutex> guard(mutex);
    return list;
}

void BayeuxServerImpl::doAppend(std::shared_ptr<SessionList>& list, std::weak_ptr<BayeuxSession>&& session) {
    auto updated = std::make_shared<SessionList>(*list);
    updated->push_back(std::move(session));
    updated->erase(std::remove_if(updated->begin(), updated->end(),
                                  [](const std::weak_ptr<BayeuxSession>& entry) { return entry.expired(); }),
                   updated->end());
    list = std::move(updated);
}

void BayeuxServerImpl::doRemove(std::shared_ptr<SessionList>& list, const std::shared_ptr<BayeuxSession>& session) {
    auto updated = std::make_shared<SessionList>(*list);
    updated->erase(std::remove_if(updated->begin(), updated->end(),
                                  [&session](const std::weak_ptr<BayeuxSession>& entry) {
                                      return entry.expired() || isSameSession(entry, session);
                                  }),
                   updated->end());
    list = std::move(updated);
}

}  // namespace korvane::bayeux
