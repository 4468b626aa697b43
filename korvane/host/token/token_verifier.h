#pragma once

// Checks the server's signed tokens (JWT) against one configured key. The key fixes the
// only algorithm accepted (an HMAC secret HS256, an RSA public key RS256, a P-256 public
// key ES256): a token naming any other, "none" included, is refused before its signature
// is looked at, so a token signed HS256 with a public key's bytes as its secret fails.
//
// A valid token is at most maxTokenBytes long, carries a `sub` usable as a channel
// segment and an `exp` not past (give or take the leeway), and optionally `sub_channels`
// and `pub_channels`, lists of channel patterns.
//
// Threading: immutable after construction; verify() is safe on any thread.

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korvane::host {

struct TokenClaims {
    std::string subject;
    std::vector<std::string> subscribeChannels;
    std::vector<std::string> publishChannels;
};

// The claims of a valid token, or why a token is refused (never quoting it).
struct TokenCheck {
    TokenClaims claims;
    std::string failure;  // empty when the token is valid

    bool valid() const { return failure.empty(); }
};

class TokenVerifier {
public:
    static constexpr std::size_t maxTokenBytes = 8 * 1024;

    // HS256 with `secret`, at least 32 bytes.
    static TokenVerifier hmac(std::string secret, std::chrono::seconds leeway);
    // RS256 or ES256, as the PEM public key's type says; any other key type throws.
    static TokenVerifier publicKey(std::string pem, std::chrono::seconds leeway);
    // Reads the secret (less a trailing line break) or the PEM key from a file.
    static TokenVerifier hmacFromFile(const std::string& path, std::chrono::seconds leeway);
    static TokenVerifier publicKeyFromFile(const std::string& path, std::chrono::seconds leeway);

    TokenCheck verify(std::string_view token) const;

    const std::string& algorithm() const { return algorithmName; }

private:
    TokenVerifier(std::string algorithm, std::string key, std::chrono::seconds leeway);

    std::string algorithmName;
    std::string key;
    std::chrono::seconds leeway;
};

}  // namespace korvane::host
