#pragma once
// A throwaway self-signed certificate and key for loopback HTTPS servers.

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace quorvia::testing {

struct SelfSignedIdentity {
  EVP_PKEY* key = EVP_RSA_gen(2048);
  X509* cert = X509_new();
  SelfSignedIdentity() {
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_sign(cert, key, EVP_sha256());
  }
  ~SelfSignedIdentity() {
    X509_free(cert);
    EVP_PKEY_free(key);
  }
  SelfSignedIdentity(const SelfSignedIdentity&) = delete;
  SelfSignedIdentity& operator=(const SelfSignedIdentity&) = delete;
};

}  // namespace quorvia::testing
