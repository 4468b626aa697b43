#include <gmock/gmock.h>

#include "korvane/host/allow_list_policy.h"
#include "korvane/host/browser_session.h"
#include "korvane/host/origin_policy.h"

namespace korvane::host {
namespace {

TEST(OriginPolicyTest, AdmitsUpgradesFromNoOriginTheServersOwnSiteAndListedOrigins) {
    OriginPolicy policy({"https://app.example"});
    const std::tuple<const char*, const char*, bool> cases[] = {  // origin, host, allowed
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
    for (const auto& [origin, host, allowed] : cases) {
        EXPECT_EQ(policy.allowsUpgrade(origin, host), allowed) << origin << " on " << host;
    }
    EXPECT_TRUE(policy.isListed("https://app.example"));
    EXPECT_FALSE(policy.isListed(""));
}

// A pattern is allowed when every channel it matches is matched by an allowed pattern.
TEST(AllowListPolicyTest, AllowsAnonymousClientsWhatTheListedPatternsCover) {
    const std::tuple<const char*, const char*, bool> cases[] = {  // allowed, asked for, covered
        {"/a/b", "/a/b", true},     {"/a/b", "/a/b/c", false},  {"/a/b", "/a/*", false},
        {"/a/*", "/a/b", true},     {"/a/*", "/a/*", true},     {"/a/*", "/a/**", false},
        {"/a/*", "/a", false},      {"/a/*", "/a/b/c", false},  {"/a/**", "/a/b/c", true},
        {"/a/**", "/a/**", true},   {"/a/**", "/a", false},     {"/a/**", "/ab/c", false},
        {"/a/b/**", "/a/*", false}, {"/**", "/x/**", true},     {"/*", "/**", false},
    };
    for (const auto& [allowed, asked, covered] : cases) {
        EXPECT_EQ(AllowListPolicy::covers(allowed, asked), covered) << allowed << " over " << asked;
    }
    struct Grant : bayeux::ClientGrant {} grant;
    const std::string id = "client";
    AllowListPolicy policy({"/public/**"}, {});
    EXPECT_FALSE(policy.maySubscribe({id, nullptr}, "/private/x", nullptr).allowed);
    EXPECT_TRUE(policy.maySubscribe({id, &grant}, "/private/x", nullptr).allowed)
        << "lists bind anonymous clients only";
    EXPECT_TRUE(policy.mayPublish({id, nullptr}, "/private/x", nullptr).allowed) << "no list, no bound";
}

TEST(BrowserSessionTest, FindsOnlyWellFormedSessionIdsInTheCookieHeader) {
    const std::string id = newBrowserSessionId();
    EXPECT_THAT(id, ::testing::MatchesRegex("[0-9a-f]{32}"));
    EXPECT_NE(id, newBrowserSessionId());
    const std::pair<std::string, std::string> cases[] = {  // a Cookie header, the session id found in it
        {"sid=" + id, id}, {"a=1; sid=" + id + "; b=2", id}, {"  sid = " + id + " ", id}, {"sid=bad; sid=" + id, id},
        {"xsid=" + id, ""}, {"sid=" + id.substr(1), ""}, {"sid=" + id + "0", ""}, {"sid=" + std::string(32, 'G'), ""},
        {"", ""},
    };
    for (const auto& [header, found] : cases) {
        EXPECT_EQ(findBrowserSessionId(header, "sid"), found) << header;
    }
    EXPECT_EQ(browserSessionCookie("sid", id, true), "sid=" + id + "; Path=/; HttpOnly; SameSite=Lax; Secure");
}

}  // namespace
}  // namespace korvane::host
