#pragma once

// A self-signed certificate for 127.0.0.1 (its files), made once for the whole run with the
// openssl command; the folder goes when the run ends.

#include <string>

namespace korvane::host::test {

struct TestCertificate {
    TestCertificate();
    ~TestCertificate();
    std::string folder, cert, key;
};
const TestCertificate& certificate();

}  // namespace korvane::host::test
