#include "test_certificates.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>
#include <stdexcept>

namespace tavrin::testing {

namespace {

struct Deleter {
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(BIO* p) const { BIO_free_all(p); }
    void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter>;
using CertPtr = std::unique_ptr<X509, Deleter>;

void check(bool ok, const std::string& what) {
    if (ok) return;
    char reason[256] = {};
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    throw std::runtime_error("test certificate: " + what + ": " + reason);
}

KeyPtr makeKey() {
    KeyPtr key(EVP_EC_gen("P-256"));
    check(key != nullptr, "key generation");
    return key;
}

// An unsigned certificate for `subjectKey`, issued by `issuer` (itself when null),
// valid from an hour ago (clock skew) for two days, with the given extensions.
CertPtr makeCertificate(EVP_PKEY* subjectKey, const std::string& commonName, X509* issuer,
                        std::initializer_list<std::pair<int, std::string>> extensions) {
    CertPtr certificate(X509_new());
    X509* cert = certificate.get();
    check(cert != nullptr, "X509_new");
    X509_set_version(cert, 2);
    static std::atomic<long> serial{1};  // unique per issuer
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 2 * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer) : name);
    check(X509_set_pubkey(cert, subjectKey) == 1, "public key");
    for (const auto& [nid, value] : extensions) {
        X509V3_CTX context;
        X509V3_set_ctx_nodb(&context);
        X509V3_set_ctx(&context, issuer ? issuer : cert, cert, nullptr, nullptr, 0);
        std::unique_ptr<X509_EXTENSION, Deleter> extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
        check(extension && X509_add_ext(cert, extension.get(), -1) == 1, "extension " + value);
    }
    return certificate;
}

void writePem(const std::filesystem::path& path, EVP_PKEY* key, X509* certificate) {
    std::unique_ptr<BIO, Deleter> out(BIO_new_file(path.c_str(), "w"));
    check(out && (key ? PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr)
                      : PEM_write_bio_X509(out.get(), certificate)) == 1,
          "writing " + path.string());
}

}  // namespace

TestCertificates makeTestCertificates(const std::filesystem::path& directory,
                                      const std::vector<std::string>& subjectAltNames) {
    TestCertificates made{directory / "ca.pem", {}};
    KeyPtr caKey = makeKey();
    CertPtr ca = makeCertificate(caKey.get(), "Tavrin Test CA", nullptr,
                                 {{NID_basic_constraints, "critical,CA:TRUE"},
                                  {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                  {NID_subject_key_identifier, "hash"}});
    check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "signing the authority");
    writePem(made.authority, nullptr, ca.get());
    for (const auto& names : subjectAltNames) {
        const std::string stem = "server" + std::to_string(made.servers.size());
        KeyPtr key = makeKey();
        CertPtr certificate = makeCertificate(key.get(), stem, ca.get(),
                                              {{NID_basic_constraints, "critical,CA:FALSE"},
                                               {NID_key_usage, "critical,digitalSignature"},
                                               {NID_ext_key_usage, "serverAuth"},
                                               {NID_authority_key_identifier, "keyid:always"},
                                               {NID_subject_alt_name, names}});
        check(X509_sign(certificate.get(), caKey.get(), EVP_sha256()) > 0, "signing " + stem);
        made.servers.push_back({directory / (stem + ".pem"), directory / (stem + "-key.pem")});
        writePem(made.servers.back().privateKey, key.get(), nullptr);
        writePem(made.servers.back().certificate, nullptr, certificate.get());
    }
    return made;
}

}  // namespace tavrin::testing
