#include <gmock/gmock.h>

#include "korvane/host/browser_session.h"
#include "korvane/host/origin_policy.h"

namespace korvane::host {
namespace {

TEST(OriginPolicyTest, AdmitsUpgradesFromNoOriginTheServersOwnSiteAndListedOrigins) {
    OriginPolicy policy({"https://app.example"});
    struct Case {
        const char* origin;
        const char* host;
        bool allowed;
    } cases[] = {
        {"", "example.org", true},
        {"https://app.example", "example.org", true},
        {"https://app.example:443", "example.org", false},  // listed origins match exactly
        {"http://example.org", "example.org", true},
        {"https://example.org", "example.org", true},
        {"http://example.org:80", "example.org", true},
        {"https://example.org", "example.org:443", true},
        {"HTTP://Example.ORG:8080", "example.org:8080", true},
        {"http://example.org:8080", "example.org", false},
        {"http://example.org.evil", "example.org", false},
        {"http://evil.example", "example.org", false},
        {"null", "example.org", false},
        {"http://example.org", "", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(policy.allowsUpgrade(c.origin, c.host), c.allowed) << c.origin << " on " << c.host;
    }
    EXPECT_TRUE(policy.isListed("https://app.example"));
    EXPECT_FALSE(policy.isListed(""));
}

TEST(BrowserSessionTest, FindsOnlyWellFormedSessionIdsInTheCookieHeader) {
    const std::string id = newBrowserSessionId();
    EXPECT_THAT(id, ::testing::MatchesRegex("[0-9a-f]{32}"));
    EXPECT_NE(id, newBrowserSessionId());
    struct Case {
        std::string header;
        std::string found;
    } cases[] = {
        {"sid=" + id, id},
        {"a=1; sid=" + id + "; b=2", id},
        {"  sid = " + id + " ", id},
        {"xsid=" + id, ""},
        {"sid=" + id.substr(1), ""},
        {"sid=" + id + "0", ""},
        {"sid=" + std::string(32, 'G'), ""},
        {"sid=bad; sid=" + id, id},
        {"", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(findBrowserSessionId(c.header, "sid"), c.found) << c.header;
    }
    EXPECT_EQ(browserSessionCookie("sid", id, true), "sid=" + id + "; Path=/; HttpOnly; SameSite=Lax; Secure");
}

}  // namespace
}  // namespace korvane::host
