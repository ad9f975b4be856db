// A certificate authority made at run time, for local TLS servers.
//
// `trustedTestCA()` creates one per process, writes its certificate to a
// temporary file and points SSL_CERT_FILE there (SSL_CERT_DIR at an empty
// directory), so clients that use the system trust store trust it and nothing
// else. Call it before the first TLS client context is built.
#pragma once

#include <string>
#include <vector>

struct evp_pkey_st;
struct x509_st;

namespace netvane::testing {

// A server's certificate and key, both PEM.
struct TLSIdentity {
    std::string certificatePEM;
    std::string keyPEM;
};

class TestCA {
public:
    TestCA();
    ~TestCA();
    TestCA(const TestCA&) = delete;
    TestCA& operator=(const TestCA&) = delete;

    std::string certificatePEM() const;
    // A server certificate for these DNS names and IP addresses.
    TLSIdentity issue(const std::vector<std::string>& dnsNames, const std::vector<std::string>& ipAddresses) const;

private:
    evp_pkey_st* key_ = nullptr;
    x509_st* certificate_ = nullptr;
};

const TestCA& trustedTestCA();
// The file holding the trusted CA's certificate.
const std::string& trustedTestCAFile();

}  // namespace netvane::testing
