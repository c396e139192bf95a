#pragma once
// A throw-away certificate authority made at test time (OpenSSL), and server
// certificates it signs, written as PEM files into a directory.

#include <filesystem>
#include <string>
#include <vector>

#include "loopback_server.h"

namespace tavrin::testing {

class TestCertificateAuthority {
public:
    // Creates the authority's key and self-signed certificate in `directory`.
    explicit TestCertificateAuthority(std::filesystem::path directory, const std::string& commonName = "Tavrin Test CA");

    // The authority's certificate (PEM), for a client's trusted CA file.
    const std::filesystem::path& certificateFile() const noexcept { return caCertificate_; }

    // A server certificate and key signed by this authority, valid for the
    // given subjectAltName entries ("IP:127.0.0.1", "DNS:localhost").
    TlsFiles issueServerCertificate(const std::string& fileStem, const std::vector<std::string>& subjectAltNames) const;

    // Certificate and key for 127.0.0.1 and localhost.
    TlsFiles issueLoopbackCertificate() const {
        return issueServerCertificate("loopback", {"IP:127.0.0.1", "DNS:localhost"});
    }

private:
    std::filesystem::path directory_;
    std::filesystem::path caCertificate_;
    std::filesystem::path caKey_;
};

}  // namespace tavrin::testing
