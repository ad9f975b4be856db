#include "tests/netcore/publicip/support/test_ca.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

namespace netvane::testing {
namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("test CA: ") + what);
}

EVP_PKEY* newKey() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    require(key != nullptr, "key generation");
    return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str());
    require(extension != nullptr, "extension");
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

X509* newCertificate(const std::string& commonName, EVP_PKEY* key, long serial) {
    X509* certificate = X509_new();
    require(certificate != nullptr, "certificate");
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 7 * 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName.c_str()),
                               -1, -1, 0);
    return certificate;
}

std::string toPEM(int (*write)(BIO*, void*), void* object) {
    BIO* bio = BIO_new(BIO_s_mem());
    require(write(bio, object) == 1, "PEM");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string pem(data, static_cast<std::size_t>(length));
    BIO_free(bio);
    return pem;
}

std::string certificateToPEM(X509* certificate) {
    return toPEM([](BIO* bio, void* object) { return PEM_write_bio_X509(bio, static_cast<X509*>(object)); },
                 certificate);
}

}  // namespace

TestCA::TestCA() : key_(newKey()) {
    certificate_ = newCertificate("Netvane Test CA", key_, 1);
    X509_set_issuer_name(certificate_, X509_get_subject_name(certificate_));
    addExtension(certificate_, certificate_, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate_, certificate_, NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(certificate_, certificate_, NID_subject_key_identifier, "hash");
    require(X509_sign(certificate_, key_, EVP_sha256()) > 0, "CA signature");
}

TestCA::~TestCA() {
    X509_free(certificate_);
    EVP_PKEY_free(key_);
}

std::string TestCA::certificatePEM() const { return certificateToPEM(certificate_); }

TLSIdentity TestCA::issue(const std::vector<std::string>& dnsNames, const std::vector<std::string>& ipAddresses) const {
    static long serial = 2;
    EVP_PKEY* key = newKey();
    const std::string commonName = dnsNames.empty() ? ipAddresses.at(0) : dnsNames.front();
    X509* certificate = newCertificate(commonName, key, serial++);
    X509_set_issuer_name(certificate, X509_get_subject_name(certificate_));
    std::string names;
    for (const auto& dns : dnsNames) names += (names.empty() ? "DNS:" : ",DNS:") + dns;
    for (const auto& ip : ipAddresses) names += (names.empty() ? "IP:" : ",IP:") + ip;
    addExtension(certificate, certificate_, NID_subject_alt_name, names);
    addExtension(certificate, certificate_, NID_ext_key_usage, "serverAuth");
    addExtension(certificate, certificate_, NID_authority_key_identifier, "keyid");
    require(X509_sign(certificate, key_, EVP_sha256()) > 0, "server signature");

    TLSIdentity identity;
    identity.certificatePEM = certificateToPEM(certificate);
    identity.keyPEM = toPEM(
        [](BIO* bio, void* object) {
            return PEM_write_bio_PrivateKey(bio, static_cast<EVP_PKEY*>(object), nullptr, nullptr, 0, nullptr,
                                            nullptr);
        },
        key);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return identity;
}

namespace {

// The CA and the trust-store files that name it, removed at exit.
struct TrustedCA {
    TestCA ca;
    std::string directory;
    std::string file;
    std::string emptyDirectory;

    TrustedCA() {
        char pattern[] = "/tmp/netvane-test-ca.XXXXXX";
        require(::mkdtemp(pattern) != nullptr, "temporary directory");
        directory = pattern;
        file = directory + "/ca.pem";
        emptyDirectory = directory + "/certs";
        std::ofstream(file) << ca.certificatePEM();
        require(::mkdir(emptyDirectory.c_str(), 0700) == 0, "certificate directory");
        ::setenv("SSL_CERT_FILE", file.c_str(), 1);
        ::setenv("SSL_CERT_DIR", emptyDirectory.c_str(), 1);
    }
    ~TrustedCA() {
        ::unlink(file.c_str());
        ::rmdir(emptyDirectory.c_str());
        ::rmdir(directory.c_str());
    }
};

const TrustedCA& trusted() {
    static const TrustedCA instance;
    return instance;
}

}  // namespace

const TestCA& trustedTestCA() { return trusted().ca; }

const std::string& trustedTestCAFile() { return trusted().file; }

}  // namespace netvane::testing
