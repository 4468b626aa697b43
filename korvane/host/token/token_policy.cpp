#include "korvane/host/token/token_policy.h"

#include <algorithm>
#include <cctype>

#include <boost/any.hpp>
#include <nlohmann/json.hpp>

#include "korvane/frame/http.h"
#include "korvane/frame/logger.h"
#include "korvane/host/allow_list_policy.h"

namespace korvane::host {

namespace {

common::diagnostic_logger logger("korvane::host::token");

template <class T>
T property(const std::shared_ptr<Context>& context, const char* name) {
    const boost::any value = context ? context->get(name) : boost::any();
    const T* typed = boost::any_cast<T>(&value);
    return typed ? *typed : T();
}

// The ext's "token" member, or else the request's "Authorization: Bearer" header; empty
// when neither is there.
std::string presentedToken(const std::shared_ptr<Context>& context, std::string_view ext) {
    const nlohmann::json parsed = nlohmann::json::parse(ext.begin(), ext.end(), nullptr, false);
    if (parsed.is_object() && parsed.contains("token") && parsed["token"].is_string()) {
        return parsed["token"].get<std::string>();
    }
    const auto headers = property<http::Headers>(context, "headers");
    const auto authorization = headers.find("authorization");
    constexpr std::string_view scheme = "bearer ";
    if (authorization == headers.end() || authorization->second.size() < scheme.size() ||
        !std::equal(scheme.begin(), scheme.end(), authorization->second.begin(),
                    [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); })) {
        return std::string();
    }
    return authorization->second.substr(scheme.size());
}

std::string_view segmentAt(std::string_view path, std::size_t index) {
    for (std::size_t i = 0; i <= index; ++i) {
        if (path.empty()) {
            return std::string_view();
        }
        path.remove_prefix(1);
        if (i < index) {
            path.remove_prefix(std::min(path.find('/'), path.size()));
        }
    }
    return path.substr(0, path.find('/'));
}

// Whose own channel a subscription reaches into: the user it names below /user, "*" when it
// reaches every user's (/user/*, /user/**, /**), or empty when it reaches none.
std::string_view ownerReached(const std::string& pattern) {
    const std::string_view first = segmentAt(pattern, 0);
    if (first == "**") {
        return "*";
    }
    return first == "user" ? segmentAt(pattern, 1) : std::string_view();
}

bool anyCovers(const std::vector<std::string>& allowed, const std::string& target) {
    return std::any_of(allowed.begin(), allowed.end(),
                       [&](const std::string& pattern) { return AllowListPolicy::covers(pattern, target); });
}

const TokenClaims* claimsOf(const bayeux::PolicyClient& client) {
    const auto* grant = dynamic_cast<const TokenGrant*>(client.grant);
    return grant ? &grant->claims : nullptr;
}

}  // namespace

TokenPolicy::TokenPolicy(TokenVerifier verifier) : verifier(std::move(verifier)) {}

bayeux::HandshakeDecision TokenPolicy::mayHandshake(const std::shared_ptr<Context>& context, std::string_view ext) {
    const std::string token = presentedToken(context, ext);
    TokenCheck check = token.empty() ? TokenCheck{{}, "no token"} : verifier.verify(token);
    bayeux::HandshakeDecision decision;
    if (!check.valid()) {
        KORVANE_LOG(logger, common::logWarning)
            << "Handshake refused from " << property<std::string>(context, "remoteAddress") << ": " << check.failure;
        decision.allowed = false;
        decision.reason = refusalReason;
        return decision;
    }
    decision.grant = std::make_shared<TokenGrant>(std::move(check.claims));
    return decision;
}

bayeux::PolicyDecision TokenPolicy::maySubscribe(const bayeux::PolicyClient& client, const std::string& pattern,
                                                 const std::shared_ptr<Context>&) {
    const TokenClaims* claims = claimsOf(client);
    if (claims == nullptr) {
        return bayeux::PolicyDecision::deny();
    }
    const std::string_view owner = ownerReached(pattern);
    if (owner.empty()) {
        return anyCovers(claims->subscribeChannels, pattern) ? bayeux::PolicyDecision::allow()
                                                             : bayeux::PolicyDecision::deny();
    }
    return owner == claims->subject ? bayeux::PolicyDecision::allow() : bayeux::PolicyDecision::deny();
}

bayeux::PolicyDecision TokenPolicy::mayPublish(const bayeux::PolicyClient& client, const std::string& channel,
                                               const std::shared_ptr<Context>&) {
    const TokenClaims* claims = claimsOf(client);
    return claims != nullptr && anyCovers(claims->publishChannels, channel) ? bayeux::PolicyDecision::allow()
                                                                            : bayeux::PolicyDecision::deny();
}

}  // namespace korvane::host
