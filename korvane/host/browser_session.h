#pragma once

// The browser session cookie: the host gives every browser a random session id in a
// cookie and hands it to the services as the context's "sessionId".
//
// Threading: free functions without shared state; safe on any thread.

#include <string>
#include <string_view>

namespace korvane::host {

// 128 bits from the operating system's secure random source, as 32 lower-case hex digits.
std::string newBrowserSessionId();

// The value of cookie `name` in one Cookie header, or empty when it is absent or is
// not a session id that newBrowserSessionId could have made. It lies in `cookieHeader`.
std::string_view findBrowserSessionId(std::string_view cookieHeader, std::string_view name);

// The Set-Cookie value that hands `sessionId` to the browser: HttpOnly, SameSite=Lax,
// Path=/, and Secure when the connection is TLS.
std::string browserSessionCookie(std::string_view name, std::string_view sessionId, bool secure);

}  // namespace korvane::host
