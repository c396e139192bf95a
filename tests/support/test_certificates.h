#pragma once
// A throw-away certificate authority made at test time (OpenSSL) and server
// certificates it signs, written as PEM files into a directory.

#include <filesystem>
#include <string>
#include <vector>

#include "loopback_server.h"

namespace tavrin::testing {

struct TestCertificates {
    std::filesystem::path authority;  // the authority's certificate, for a client's trusted CA file
    std::vector<TlsFiles> servers;    // in the order of the requests
};

// The authority, and for each comma-separated subjectAltName list
// ("IP:127.0.0.1,DNS:localhost") a server certificate and key it signed.
TestCertificates makeTestCertificates(const std::filesystem::path& directory,
                                      const std::vector<std::string>& subjectAltNames);

}  // namespace tavrin::testing
