#include <gmock/gmock.h>

#include <ctime>
#include <tuple>

#include <jwt/jwt.hpp>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "korvane/frame/http.h"
#include "korvane/host/host_context.h"
#include "korvane/host/token/token_policy.h"

namespace korvane::host {
namespace {

using nlohmann::json;

// The PEM texts of a new key pair: private, public.
std::pair<std::string, std::string> pemTexts(EVP_PKEY* made) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(made, &EVP_PKEY_free);
    const auto pem = [&key](bool isPrivate) {
        const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), &BIO_free);
        isPrivate ? PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr)
                  : PEM_write_bio_PUBKEY(bio.get(), key.get());
        char* data = nullptr;
        const long size = BIO_get_mem_data(bio.get(), &data);
        return std::string(data, static_cast<std::size_t>(size));
    };
    return {pem(true), pem(false)};
}

std::string mint(const char* algorithm, const std::string& key, const json& claims) {
    jwt::jwt_object token{jwt::params::algorithm(algorithm), jwt::params::secret(key)};
    for (const auto& [name, value] : claims.items()) {
        token.payload().add_claim(name, value);
    }
    return token.signature();
}

long long nowPlus(long long seconds) { return std::time(nullptr) + seconds; }

// Handshakes: the refused ones give the client one text and the log their own reason
// (the verifier's failure); then what ann's and bob's grants let them subscribe and publish.
TEST(TokenPolicyTest, AdmitsValidTokensOnlyAndKeepsEachUsersOwnChannelToThatUser) {
    const std::string secret(32, 's');
    const auto [rsaPrivate, rsaPublic] = pemTexts(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}));
    const auto [ecPrivate, ecPublic] = pemTexts(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const std::chrono::seconds leeway(30);
    const TokenVerifier hmac = TokenVerifier::hmac(secret, leeway);
    const TokenVerifier rsa = TokenVerifier::publicKey(rsaPublic, leeway);
    const TokenVerifier ec = TokenVerifier::publicKey(ecPublic, leeway);

    const json ann = {{"sub", "ann"},
                      {"exp", nowPlus(600)},
                      {"sub_channels", {"/rooms/**", "/user/**"}},
                      {"pub_channels", {"/rooms/*", "/user/*"}}};
    const auto annWith = [&ann](const json& changes) {
        json claims = ann;
        claims.merge_patch(changes);
        return claims;
    };
    const std::string good = mint("HS256", secret, ann);
    const std::string bobsClaims = mint("HS256", "other", annWith({{"sub", "bob"}}));
    // Claims naming someone else under ann's signature (the headers are the same).
    const std::string tampered = bobsClaims.substr(0, bobsClaims.rfind('.')) + good.substr(good.rfind('.'));
    const std::string oversized = mint("HS256", secret, annWith({{"pad", std::string(8192, 'x')}}));

    // what, verifier, token, whether in an Authorization header, the failure logged (empty when admitted)
    const std::tuple<const char*, const TokenVerifier&, std::string, bool, std::string> cases[] = {
        {"HS256 in ext", hmac, good, false, ""},
        {"HS256 in an Authorization header", hmac, good, true, ""},
        {"RS256", rsa, mint("RS256", rsaPrivate, ann), false, ""},
        {"ES256", ec, mint("ES256", ecPrivate, ann), true, ""},
        {"expired within the leeway", hmac, mint("HS256", secret, annWith({{"exp", nowPlus(-10)}})), false, ""},
        {"no token", hmac, "", false, "no token"},
        {"expired", hmac, mint("HS256", secret, annWith({{"exp", nowPlus(-60)}})), false, "expired token"},
        {"tampered", hmac, tampered, false, "bad signature"},
        {"another secret", hmac, bobsClaims, false, "bad signature"},
        {"alg none", hmac, mint("none", "", ann), false, "unsigned token (alg none)"},
        {"HS256 keyed with the public key", rsa, mint("HS256", rsaPublic, ann), false,
         "algorithm HS256 where the key takes RS256"},
        {"wrong key type", ec, mint("RS256", rsaPrivate, ann), false, "algorithm RS256 where the key takes ES256"},
        {"oversized", hmac, oversized, false, "token of " + std::to_string(oversized.size()) + " bytes, over 8192"},
        {"no exp", hmac, mint("HS256", secret, annWith({{"exp", nullptr}})), false, "token without a valid exp"},
        {"negative exp", hmac, mint("HS256", secret, annWith({{"exp", -100}})), false, "token without a valid exp"},
        {"sub not one segment", hmac, mint("HS256", secret, annWith({{"sub", "ann/x"}})), false,
         "sub missing, or not one channel segment"},
        {"not a token", hmac, "a.b.c", true, "malformed token (json parse failed)"},
    };
    for (const auto& [what, verifier, token, inHeader, failure] : cases) {
        TokenPolicy policy(verifier);
        const auto context = HostContext::create({});
        std::string ext = token.empty() ? "" : json{{"token", token}}.dump();
        if (inHeader) {
            context->set("headers", boost::any(http::Headers{{"authorization", "Bearer " + token}}));
            ext = "{}";
        }
        const bayeux::HandshakeDecision decision = policy.mayHandshake(context, ext);
        EXPECT_EQ(decision.allowed, failure.empty()) << what;
        EXPECT_EQ(decision.reason, failure.empty() ? "" : "invalid token") << what;
        if (!token.empty()) {
            EXPECT_EQ(verifier.verify(token).failure, failure) << what;
        }
        if (decision.allowed) {
            EXPECT_EQ(dynamic_cast<const TokenGrant&>(*decision.grant).claims.subject, "ann") << what;
        }
    }

    TokenPolicy policy(hmac);
    const auto grantOf = [&policy, &secret](const json& claims) {
        return policy.mayHandshake(nullptr, json{{"token", mint("HS256", secret, claims)}}.dump()).grant;
    };
    const auto annsGrant = grantOf(ann);
    const auto bobsGrant = grantOf({{"sub", "bob"}, {"exp", nowPlus(600)}});
    const std::string id = "client";
    const bayeux::PolicyClient annClient{id, annsGrant.get()}, bobClient{id, bobsGrant.get()}, anonymous{id, nullptr};
    const std::tuple<const bayeux::PolicyClient&, bool, const char*, bool> requests[] = {  // client, subscribes?, channel, allowed
        {annClient, true, "/rooms/**", true},     {annClient, true, "/other", false},
        {annClient, true, "/user/ann", true},     {annClient, true, "/user/ann/inbox/**", true},
        {annClient, true, "/user/bob", false},    {annClient, true, "/user/*", false},
        {annClient, true, "/user/**", false},     {annClient, true, "/**", false},
        {bobClient, true, "/user/bob/x", true},   {bobClient, true, "/rooms/a", false},
        {anonymous, true, "/rooms/a", false},     {annClient, false, "/rooms/a", true},
        {annClient, false, "/rooms/a/b", false},  {annClient, false, "/user/bob", true},
        {bobClient, false, "/user/bob", false},   {anonymous, false, "/rooms/a", false},
    };
    for (const auto& [client, subscribes, channel, allowed] : requests) {
        const bayeux::PolicyDecision decision = subscribes ? policy.maySubscribe(client, channel, nullptr)
                                                           : policy.mayPublish(client, channel, nullptr);
        EXPECT_EQ(decision.allowed, allowed) << (subscribes ? "subscribe " : "publish ") << channel;
    }
}

}  // namespace
}  // namespace korvane::host
