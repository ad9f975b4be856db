// The TLS library, loaded the first time a lookup needs it. Only the public-IP
// lookup speaks TLS, and linking the library into the programs cost every one
// of their starts its relocations whether or not they ever made a secure
// connection (bench/README.md has the cost).
//
// Each member is the library's own function under its own name; the macros
// of its headers that stand for one of them (the retry flags, the host name,
// the lowest version) are spelt out at the call sites.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <string>

#include "support/result.h"

namespace netvane {

// Every function the lookup calls.
#define NV_TLS_FUNCTIONS(X) \
    X(BIO_clear_flags) \
    X(BIO_get_data) \
    X(BIO_get_new_index) \
    X(BIO_meth_new) \
    X(BIO_meth_set_create) \
    X(BIO_meth_set_ctrl) \
    X(BIO_meth_set_read) \
    X(BIO_meth_set_write) \
    X(BIO_new) \
    X(BIO_set_data) \
    X(BIO_set_flags) \
    X(BIO_set_init) \
    X(ERR_clear_error) \
    X(ERR_peek_last_error) \
    X(ERR_reason_error_string) \
    X(SSL_CTX_ctrl) \
    X(SSL_CTX_free) \
    X(SSL_CTX_new) \
    X(SSL_CTX_set_default_verify_paths) \
    X(SSL_CTX_set_verify) \
    X(SSL_ctrl) \
    X(SSL_do_handshake) \
    X(SSL_free) \
    X(SSL_get0_param) \
    X(SSL_get_error) \
    X(SSL_get_verify_result) \
    X(SSL_new) \
    X(SSL_read_ex) \
    X(SSL_set1_host) \
    X(SSL_set_bio) \
    X(SSL_set_connect_state) \
    X(SSL_write_ex) \
    X(TLS_client_method) \
    X(X509_VERIFY_PARAM_set1_ip_asc) \
    X(X509_verify_cert_error_string)

struct TLSLibrary {
#define NV_TLS_MEMBER(name) decltype(&::name) name;
    NV_TLS_FUNCTIONS(NV_TLS_MEMBER)
#undef NV_TLS_MEMBER
};

// The library of the ABI these headers describe, loaded once per process
// (thread-safe); the same answer, library or error, on every later call.
Result<const TLSLibrary*> tlsLibrary();

// Loads a library by file name and resolves every member; exposed so tests
// can ask for one that is missing or lacks a function.
Result<TLSLibrary> loadTLSLibrary(const std::string& fileName);

}  // namespace netvane
