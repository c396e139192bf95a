#pragma once
// A throw-away certificate authority made at test time (OpenSSL), and server
// certificates it signs, written as PEM files into a directory.

#include <filesystem>
#include <memory>
#include <string>

#include "loopback_server.h"

namespace tavrin::testing {

class TestCertificateAuthority {
public:
    // Creates the authority's key and self-signed certificate in `directory`.
    explicit TestCertificateAuthority(std::filesystem::path directory);
    ~TestCertificateAuthority();

    // The authority's certificate (PEM), for a client's trusted CA file.
    std::filesystem::path certificateFile() const { return directory_ / "ca.pem"; }

    // A server certificate and key signed by this authority, valid for the
    // comma-separated subjectAltName entries ("IP:127.0.0.1,DNS:localhost").
    TlsFiles issueServerCertificate(const std::string& fileStem,
                                    const std::string& subjectAltNames = "IP:127.0.0.1,DNS:localhost") const;

private:
    struct Keys;
    std::filesystem::path directory_;
    std::unique_ptr<Keys> keys_;
};

}  // namespace tavrin::testing
