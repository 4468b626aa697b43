#pragma once

// The server's policy with signed tokens: a handshake must present a valid token (see
// TokenVerifier), in its ext's "token" member or else in an "Authorization: Bearer"
// header of its request; the client then subscribes within the token's sub_channels and
// publishes within its pub_channels. Each user's own channels, /user/<sub> and below,
// may be subscribed by that user alone, whatever any token lists; others may publish
// there as their pub_channels allow.
//
// Every refused handshake gets the one reason refusalReason, so that a client learns
// nothing about why; the log says why (never quoting the token).
//
// Threading: immutable after construction; safe on any thread.

#include <string>

#include "korvane/host/token/token_verifier.h"
#include "korvane/service/bayeux_policy.h"

namespace korvane::host {

// What a valid token attached to its client at the handshake.
struct TokenGrant : bayeux::ClientGrant {
    explicit TokenGrant(TokenClaims claims) : claims(std::move(claims)) {}
    const TokenClaims claims;
};

class TokenPolicy : public bayeux::BayeuxPolicy {
public:
    static constexpr const char* refusalReason = "invalid token";

    explicit TokenPolicy(TokenVerifier verifier);

    bayeux::HandshakeDecision mayHandshake(const std::shared_ptr<Context>& context, std::string_view ext) override;
    bayeux::PolicyDecision maySubscribe(const bayeux::PolicyClient& client, const std::string& pattern,
                                        const std::shared_ptr<Context>& context) override;
    bayeux::PolicyDecision mayPublish(const bayeux::PolicyClient& client, const std::string& channel,
                                      const std::shared_ptr<Context>& context) override;

private:
    const TokenVerifier verifier;
};

}  // namespace korvane::host
