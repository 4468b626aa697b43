#pragma once

// The server's policy without tokens: when lists are given, an anonymous client (one
// to which no grant was attached at its handshake) may subscribe only to patterns, and
// publish only on channels, that one of the listed patterns covers, with "/*" matching
// one segment and "/**" any number of them, as in a subscription. An empty list leaves
// that kind of request free. Handshakes are always allowed.
//
// Threading: immutable after construction; safe on any thread.

#include <string>
#include <vector>

#include "korvane/service/bayeux_policy.h"

namespace korvane::host {

class AllowListPolicy : public bayeux::BayeuxPolicy {
public:
    AllowListPolicy(std::vector<std::string> subscribeAllowed, std::vector<std::string> publishAllowed);

    bayeux::HandshakeDecision mayHandshake(const std::shared_ptr<Context>& context, std::string_view ext) override;
    bayeux::PolicyDecision maySubscribe(const bayeux::PolicyClient& client, const std::string& pattern,
                                        const std::shared_ptr<Context>& context) override;
    bayeux::PolicyDecision mayPublish(const bayeux::PolicyClient& client, const std::string& channel,
                                      const std::shared_ptr<Context>& context) override;

    // Every channel that `pattern` (a channel, or a pattern ending in "*" or "**") matches
    // is matched by `allowed` too.
    static bool covers(const std::string& allowed, const std::string& pattern);

private:
    static bayeux::PolicyDecision decide(const std::vector<std::string>& allowList,
                                         const bayeux::PolicyClient& client, const std::string& target);

    const std::vector<std::string> subscribeAllowed;
    const std::vector<std::string> publishAllowed;
};

}  // namespace korvane::host
