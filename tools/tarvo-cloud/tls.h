// The cloud's TLS material: a CA and a server certificate for 127.0.0.1 and localhost kept in
// a folder (made when absent, reused when present), and a certificate of a second CA that no
// device trusts, made afresh in memory. Loaded by main before any listener starts and read-only
// after that, so the handshake callbacks of every listener thread may share it.
#pragma once

#include "faults.h"

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <optional>
#include <string>

namespace tarvo {
namespace cloud {

struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;

struct TlsMaterial {
    std::string ca_file;  // absolute path of ca.pem
    X509Ptr server_cert;
    PkeyPtr server_key;
    X509Ptr untrusted_cert;
    PkeyPtr untrusted_key;
};

struct TlsResult {
    std::optional<TlsMaterial> material;
    std::string error;  // why the folder could not be read or written
};

// Reads DIR/ca.pem, ca-key.pem, server.pem and server-key.pem, making what is absent; a server
// certificate that the CA did not sign, or that is near its end, is made anew.
TlsResult LoadOrMakeTls(const std::string& dir);

// A TLS server with the material's certificate, whose handshakes present the untrusted one while
// the fault table holds an untrusted_cert fault of `fault_route`. `material` and `faults` must
// outlive the server; nullptr with the reason in `error` when OpenSSL refuses the set-up.
std::unique_ptr<httplib::Server> MakeTlsServer(const TlsMaterial& material, FaultTable& faults,
                                               const std::string& name, const std::string& fault_route,
                                               std::string* error);

}  // namespace cloud
}  // namespace tarvo
