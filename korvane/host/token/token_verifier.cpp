#include "korvane/host/token/token_verifier.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>

#include <jwt/jwt.hpp>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

namespace korvane::host {

namespace {

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The algorithm a PEM public key signs with: RS256 for RSA, ES256 for a P-256 key.
std::string algorithmOfPublicKey(const std::string& pem) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                        &BIO_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr, &EVP_PKEY_free);
    if (!key) {
        throw std::invalid_argument("not a PEM public key");
    }
    if (EVP_PKEY_base_id(key.get()) == EVP_PKEY_RSA) {
        return "RS256";
    }
    if (EVP_PKEY_base_id(key.get()) == EVP_PKEY_EC && EVP_PKEY_get_bits(key.get()) == 256) {
        return "ES256";
    }
    throw std::invalid_argument("the public key is neither RSA nor EC P-256");
}

// A subject names the client's own channel /user/<sub>: it must be one plain segment.
bool usableSubject(const nlohmann::json& sub) {
    if (!sub.is_string()) {
        return false;
    }
    const std::string& text = sub.get_ref<const std::string&>();
    return !text.empty() && text.find_first_of("/*") == std::string::npos;
}

// An absent list is empty; anything but a list of strings is refused.
bool readPatterns(const nlohmann::json& claims, const char* name, std::vector<std::string>& patterns) {
    const auto found = claims.find(name);
    if (found == claims.end()) {
        return true;
    }
    if (!found->is_array()) {
        return false;
    }
    for (const nlohmann::json& pattern : *found) {
        if (!pattern.is_string()) {
            return false;
        }
        patterns.push_back(pattern.get<std::string>());
    }
    return true;
}

std::string describeRefusal(const std::error_code& error, jwt::algorithm named, const std::string& expected) {
    if (error == jwt::VerificationErrc::InvalidAlgorithm) {
        return named == jwt::algorithm::NONE
                   ? std::string("unsigned token (alg none)")
                   : "algorithm " + std::string(jwt::alg_to_str(named)) + " where the key takes " + expected;
    }
    if (error == jwt::VerificationErrc::InvalidSignature) {
        return "bad signature";
    }
    if (error == jwt::VerificationErrc::TokenExpired) {
        return "expired token";
    }
    return "malformed token (" + error.message() + ")";
}

}  // namespace

TokenVerifier::TokenVerifier(std::string algorithm, std::string key, std::chrono::seconds leeway)
    : algorithmName(std::move(algorithm)), key(std::move(key)), leeway(leeway) {}

TokenVerifier TokenVerifier::hmac(std::string secret, std::chrono::seconds leeway) {
    if (secret.size() < 32) {
        throw std::invalid_argument("an HMAC secret needs at least 32 bytes");
    }
    return TokenVerifier("HS256", std::move(secret), leeway);
}

TokenVerifier TokenVerifier::publicKey(std::string pem, std::chrono::seconds leeway) {
    std::string algorithm = algorithmOfPublicKey(pem);
    return TokenVerifier(std::move(algorithm), std::move(pem), leeway);
}

TokenVerifier TokenVerifier::hmacFromFile(const std::string& path, std::chrono::seconds leeway) {
    std::string secret = readFile(path);
    while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) {
        secret.pop_back();
    }
    return hmac(std::move(secret), leeway);
}

TokenVerifier TokenVerifier::publicKeyFromFile(const std::string& path, std::chrono::seconds leeway) {
    return publicKey(readFile(path), leeway);
}

TokenCheck TokenVerifier::verify(std::string_view token) const {
    TokenCheck check;
    if (token.size() > maxTokenBytes) {
        check.failure = "token of " + std::to_string(token.size()) + " bytes, over " + std::to_string(maxTokenBytes);
        return check;
    }
    nlohmann::json claims;
    try {
        std::error_code error;
        // The algorithm list is the configured key's one: the token's header only names it.
        const jwt::jwt_object decoded =
            jwt::decode(token, jwt::params::algorithms({algorithmName}), error, jwt::params::secret(key),
                        jwt::params::leeway(static_cast<uint32_t>(leeway.count())), jwt::params::verify(true));
        if (error) {
            check.failure = describeRefusal(error, decoded.header().algo(), algorithmName);
            return check;
        }
        claims = decoded.payload().create_json_obj();
    } catch (const std::exception&) {
        // The library's JSON texts may quote what they read: the log must not.
        check.failure = "malformed token";
        return check;
    }
    // The library reads exp unsigned: a negative one would never expire.
    if (!claims.contains("exp") || !claims["exp"].is_number() || claims["exp"].get<double>() < 0) {
        check.failure = "token without a valid exp";
    } else if (!claims.contains("sub") || !usableSubject(claims["sub"])) {
        check.failure = "sub missing, or not one channel segment";
    } else if (!readPatterns(claims, "sub_channels", check.claims.subscribeChannels) ||
               !readPatterns(claims, "pub_channels", check.claims.publishChannels)) {
        check.failure = "sub_channels or pub_channels not a list of strings";
    } else {
        check.claims.subject = claims["sub"].get<std::string>();
    }
    return check;
}

}  // namespace korvane::host
