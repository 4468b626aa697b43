// api_key_host: a Bayeux server inside your own process, with a policy of its own.
//
// Only requests carrying the header "X-Api-Key: <key>" (the key from KORVANE_API_KEY)
// may handshake, and remote clients may subscribe and publish only below /public/; the
// rest of the channel space is left to the process's own in-process sessions. It serves
// on the first argument (default 127.0.0.1:8091) until its input ends (Ctrl-D).

#include <cstdlib>
#include <iostream>
#include <limits>
#include <string>

#include "korvane/frame/http.h"
#include "korvane/host/bayeux_host.h"

using namespace korvane;

namespace {

// Threading: immutable; called on the host's I/O threads.
class ApiKeyPolicy : public bayeux::BayeuxPolicy {
public:
    explicit ApiKeyPolicy(std::string key) : key(std::move(key)) {}

    bayeux::HandshakeDecision mayHandshake(const std::shared_ptr<Context>& context, std::string_view) override {
        const boost::any headers = context->get("headers");  // set by the host since a policy is given
        const auto* byName = boost::any_cast<http::Headers>(&headers);
        const auto found = byName ? byName->find("x-api-key") : http::Headers::const_iterator();
        bayeux::HandshakeDecision decision;
        decision.allowed = byName && found != byName->end() && found->second == key;
        decision.reason = decision.allowed ? "" : "api key required";
        return decision;
    }
    bayeux::PolicyDecision maySubscribe(const bayeux::PolicyClient&, const std::string& pattern,
                                        const std::shared_ptr<Context>&) override {
        return isPublic(pattern);
    }
    bayeux::PolicyDecision mayPublish(const bayeux::PolicyClient&, const std::string& channel,
                                      const std::shared_ptr<Context>&) override {
        return isPublic(channel);
    }

private:
    static bayeux::PolicyDecision isPublic(const std::string& channel) {
        return channel.rfind("/public/", 0) == 0 ? bayeux::PolicyDecision::allow() : bayeux::PolicyDecision::deny();
    }

    const std::string key;
};

}  // namespace

int main(int argc, char** argv) {
    const char* key = std::getenv("KORVANE_API_KEY");
    if (key == nullptr || *key == '\0') {
        std::cerr << "api_key_host: set KORVANE_API_KEY\n";
        return 2;
    }
    host::BayeuxHostOptions options;
    options.http.listen = argc > 1 ? argv[1] : "127.0.0.1:8091";
    options.policy = std::make_shared<ApiKeyPolicy>(key);
    host::BayeuxHost server(std::move(options));
    server.start();
    std::cout << "api_key_host: Bayeux at " << server.url() << "bayeux for clients with the API key" << std::endl;
    std::cin.ignore(std::numeric_limits<std::streamsize>::max());
    server.stop();
    return 0;
}
