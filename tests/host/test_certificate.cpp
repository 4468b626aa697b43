#include "test_certificate.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace korvane::host::test {

TestCertificate::TestCertificate() {
    char pattern[] = "/tmp/korvane-host-tls-XXXXXX";
    folder = ::mkdtemp(pattern);
    cert = folder + "/cert.pem";
    key = folder + "/key.pem";
    const std::string command = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                                " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                key + " -out " + cert + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("openssl could not make a test certificate");
    }
}

TestCertificate::~TestCertificate() { std::filesystem::remove_all(folder); }

const TestCertificate& certificate() {
    static const TestCertificate made;
    return made;
}

}  // namespace korvane::host::test
