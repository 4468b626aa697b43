#include "korvane/host/allow_list_policy.h"

#include <algorithm>
#include <string_view>

namespace korvane::host {

namespace {

std::vector<std::string_view> segmentsOf(std::string_view path) {
    std::vector<std::string_view> segments;
    while (!path.empty()) {
        path.remove_prefix(1);  // the '/'
        const std::size_t end = std::min(path.find('/'), path.size());
        segments.push_back(path.substr(0, end));
        path.remove_prefix(end);
    }
    return segments;
}

}  // namespace

AllowListPolicy::AllowListPolicy(std::vector<std::string> subscribeAllowed, std::vector<std::string> publishAllowed)
    : subscribeAllowed(std::move(subscribeAllowed)), publishAllowed(std::move(publishAllowed)) {}

bayeux::HandshakeDecision AllowListPolicy::mayHandshake(const std::shared_ptr<Context>&, std::string_view) {
    return bayeux::HandshakeDecision();
}

bayeux::PolicyDecision AllowListPolicy::maySubscribe(const bayeux::PolicyClient& client, const std::string& pattern,
                                                     const std::shared_ptr<Context>&) {
    return decide(subscribeAllowed, client, pattern);
}

bayeux::PolicyDecision AllowListPolicy::mayPublish(const bayeux::PolicyClient& client, const std::string& channel,
                                                   const std::shared_ptr<Context>&) {
    return decide(publishAllowed, client, channel);
}

bayeux::PolicyDecision AllowListPolicy::decide(const std::vector<std::string>& allowList,
                                               const bayeux::PolicyClient& client, const std::string& target) {
    if (allowList.empty() || client.grant != nullptr ||
        std::any_of(allowList.begin(), allowList.end(),
                    [&](const std::string& allowed) { return covers(allowed, target); })) {
        return bayeux::PolicyDecision::allow();
    }
    return bayeux::PolicyDecision::deny();
}

bool AllowListPolicy::covers(const std::string& allowed, const std::string& pattern) {
    const std::vector<std::string_view> wide = segmentsOf(allowed);
    const std::vector<std::string_view> narrow = segmentsOf(pattern);
    if (wide.empty()) {
        return false;
    }
    const std::string_view last = wide.back();
    // The segments before a wildcard must be the same words; a wildcard of `pattern` standing
    // where `allowed` has a word would reach beyond it.
    const std::size_t fixed = last == "*" || last == "**" ? wide.size() - 1 : wide.size();
    if (narrow.size() < fixed || !std::equal(wide.begin(), wide.begin() + fixed, narrow.begin())) {
        return false;
    }
    if (last == "**") {
        return narrow.size() > fixed;
    }
    if (last == "*") {
        return narrow.size() == wide.size() && narrow.back() != "**";
    }
    return narrow.size() == wide.size();
}

}  // namespace korvane::host
