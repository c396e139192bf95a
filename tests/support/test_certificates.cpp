#include "test_certificates.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

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

[[noreturn]] void fail(const std::string& what) {
    char reason[256] = {};
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    throw std::runtime_error("test certificate: " + what + ": " + reason);
}

void check(bool ok, const std::string& what) {
    if (!ok) fail(what);
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
    unsigned char serial[16];
    check(RAND_bytes(serial, sizeof serial) == 1, "serial");
    serial[0] &= 0x7f;  // positive
    BIGNUM* number = BN_bin2bn(serial, sizeof serial, nullptr);
    check(number && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(cert)), "serial");
    BN_free(number);
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 2 * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()),
                               -1, -1, 0);
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

struct TestCertificateAuthority::Keys {
    KeyPtr key;
    CertPtr certificate;
};

TestCertificateAuthority::TestCertificateAuthority(std::filesystem::path directory)
    : directory_(std::move(directory)), keys_(std::make_unique<Keys>()) {
    keys_->key = makeKey();
    keys_->certificate = makeCertificate(keys_->key.get(), "Tavrin Test CA", nullptr,
                                         {{NID_basic_constraints, "critical,CA:TRUE"},
                                          {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                          {NID_subject_key_identifier, "hash"}});
    check(X509_sign(keys_->certificate.get(), keys_->key.get(), EVP_sha256()) > 0, "signing the authority");
    writePem(certificateFile(), nullptr, keys_->certificate.get());
}

TestCertificateAuthority::~TestCertificateAuthority() = default;

TlsFiles TestCertificateAuthority::issueServerCertificate(const std::string& fileStem,
                                                          const std::string& subjectAltNames) const {
    KeyPtr key = makeKey();
    CertPtr certificate = makeCertificate(key.get(), fileStem, keys_->certificate.get(),
                                          {{NID_basic_constraints, "critical,CA:FALSE"},
                                           {NID_key_usage, "critical,digitalSignature"},
                                           {NID_ext_key_usage, "serverAuth"},
                                           {NID_authority_key_identifier, "keyid:always"},
                                           {NID_subject_alt_name, subjectAltNames}});
    check(X509_sign(certificate.get(), keys_->key.get(), EVP_sha256()) > 0, "signing " + fileStem);
    TlsFiles files{directory_ / (fileStem + ".pem"), directory_ / (fileStem + "-key.pem")};
    writePem(files.privateKey, key.get(), nullptr);
    writePem(files.certificate, nullptr, certificate.get());
    return files;
}

}  // namespace tavrin::testing
