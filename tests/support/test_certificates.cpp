#include "test_certificates.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

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
using BioPtr = std::unique_ptr<BIO, Deleter>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter>;

[[noreturn]] void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    char reason[256] = {};
    if (code) ERR_error_string_n(code, reason, sizeof reason);
    throw std::runtime_error("test certificate: " + what + (code ? std::string(": ") + reason : std::string()));
}

KeyPtr makeKey() {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key) fail("key generation");
    return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) fail("extension " + value);
}

CertPtr makeCertificate(EVP_PKEY* subjectKey, const std::string& commonName, X509* issuer) {
    CertPtr certificate(X509_new());
    if (!certificate) fail("X509_new");
    X509_set_version(certificate.get(), 2);
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) fail("serial");
    serial[0] &= 0x7f;  // positive
    BIGNUM* number = BN_bin2bn(serial, sizeof serial, nullptr);
    if (!number || !BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate.get()))) fail("serial");
    BN_free(number);
    // Valid from an hour ago (tolerates clock skew) for two days.
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 2 * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Tavrin Tests"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(certificate.get(), issuer ? X509_get_subject_name(issuer) : name);
    if (X509_set_pubkey(certificate.get(), subjectKey) != 1) fail("public key");
    return certificate;
}

void writeKey(const std::filesystem::path& path, EVP_PKEY* key) {
    BioPtr out(BIO_new_file(path.c_str(), "w"));
    if (!out || PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
        fail("writing " + path.string());
}

void writeCertificate(const std::filesystem::path& path, X509* certificate) {
    BioPtr out(BIO_new_file(path.c_str(), "w"));
    if (!out || PEM_write_bio_X509(out.get(), certificate) != 1) fail("writing " + path.string());
}

KeyPtr readKey(const std::filesystem::path& path) {
    BioPtr in(BIO_new_file(path.c_str(), "r"));
    KeyPtr key(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!key) fail("reading " + path.string());
    return key;
}

CertPtr readCertificate(const std::filesystem::path& path) {
    BioPtr in(BIO_new_file(path.c_str(), "r"));
    CertPtr certificate(in ? PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!certificate) fail("reading " + path.string());
    return certificate;
}

}  // namespace

TestCertificateAuthority::TestCertificateAuthority(std::filesystem::path directory, const std::string& commonName)
    : directory_(std::move(directory)), caCertificate_(directory_ / "ca.pem"), caKey_(directory_ / "ca-key.pem") {
    KeyPtr key = makeKey();
    CertPtr certificate = makeCertificate(key.get(), commonName, nullptr);
    addExtension(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(certificate.get(), certificate.get(), NID_subject_key_identifier, "hash");
    if (X509_sign(certificate.get(), key.get(), EVP_sha256()) <= 0) fail("signing the authority");
    writeKey(caKey_, key.get());
    writeCertificate(caCertificate_, certificate.get());
}

TlsFiles TestCertificateAuthority::issueServerCertificate(const std::string& fileStem,
                                                          const std::vector<std::string>& subjectAltNames) const {
    KeyPtr caKey = readKey(caKey_);
    CertPtr caCertificate = readCertificate(caCertificate_);
    KeyPtr key = makeKey();
    CertPtr certificate = makeCertificate(key.get(), fileStem, caCertificate.get());
    addExtension(certificate.get(), caCertificate.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(certificate.get(), caCertificate.get(), NID_key_usage, "critical,digitalSignature");
    addExtension(certificate.get(), caCertificate.get(), NID_ext_key_usage, "serverAuth");
    addExtension(certificate.get(), caCertificate.get(), NID_authority_key_identifier, "keyid:always");
    std::string names;
    for (const auto& entry : subjectAltNames) names += (names.empty() ? "" : ",") + entry;
    if (!names.empty()) addExtension(certificate.get(), caCertificate.get(), NID_subject_alt_name, names);
    if (X509_sign(certificate.get(), caKey.get(), EVP_sha256()) <= 0) fail("signing " + fileStem);

    TlsFiles files{directory_ / (fileStem + ".pem"), directory_ / (fileStem + "-key.pem")};
    writeKey(files.privateKey, key.get());
    writeCertificate(files.certificate, certificate.get());
    return files;
}

}  // namespace tavrin::testing
