#include "tls.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace fs = std::filesystem;

namespace tarvo {
namespace cloud {

namespace {

constexpr long kCaDays = 3650;
constexpr long kServerDays = 825;
// A server certificate closer than this to its end is made anew at start.
constexpr long kRenewBeforeDays = 30;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

std::string OpenSslError(const std::string& what) {
    const unsigned long code = ERR_get_error();
    char text[256] = "no detail";
    if (code != 0) ERR_error_string_n(code, text, sizeof(text));
    ERR_clear_error();
    return what + " (" + text + ")";
}

bool WriteFileAtomically(const std::string& path, const std::string& content, mode_t mode,
                         std::string* error) {
    const std::string temp = path + ".tmp";
    {
        Fd out;
        out.fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
        if (out.fd < 0 ||
            write(out.fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
            *error = "cannot write " + temp + ": " + std::strerror(errno);
            return false;
        }
    }
    if (std::rename(temp.c_str(), path.c_str()) != 0) {
        *error = "cannot rename " + temp + " to " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool WritePem(const std::string& path, X509* cert, EVP_PKEY* key, std::string* error) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    const bool written = bio && (cert != nullptr ? PEM_write_bio_X509(bio.get(), cert) == 1
                                                 : PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr,
                                                                            0, nullptr, nullptr) == 1);
    if (!written) {
        *error = OpenSslError("cannot encode " + path);
        return false;
    }
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return WriteFileAtomically(path, std::string(data, static_cast<size_t>(size)),
                               cert != nullptr ? 0644 : 0600, error);
}

X509Ptr ReadCert(const std::string& path) {
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return cert;
}

PkeyPtr ReadKey(const std::string& path) {
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    PkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return key;
}

bool AddExtension(X509* cert, X509V3_CTX* ctx, int nid, const char* value) {
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, ctx, nid, value);
    if (extension == nullptr) return false;
    const bool added = X509_add_ext(cert, extension, -1) == 1;
    X509_EXTENSION_free(extension);
    return added;
}

bool SetRandomSerial(X509* cert) {
    std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_new(), &BN_free);
    return serial && BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
           BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert)) != nullptr;
}

// A CA when `issuer` is null (self-signed), else a server certificate for 127.0.0.1 and localhost.
X509Ptr MakeCert(const std::string& common_name, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuer_key,
                 long days) {
    X509Ptr cert(X509_new());
    if (!cert || X509_set_version(cert.get(), 2) != 1 || !SetRandomSerial(cert.get())) return nullptr;
    // An hour back, so that a clock a little behind still accepts it.
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    const auto* text = reinterpret_cast<const unsigned char*>(common_name.c_str());
    if (X509_set_pubkey(cert.get(), key) != 1 ||
        X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("Tarvo development cloud"), -1, -1,
                                   0) != 1 ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) != 1 ||
        X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name) != 1) {
        return nullptr;
    }
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer != nullptr ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
    bool extended = AddExtension(cert.get(), &ctx, NID_subject_key_identifier, "hash");
    if (issuer == nullptr) {
        extended = extended && AddExtension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:TRUE") &&
                   AddExtension(cert.get(), &ctx, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        extended =
            extended && AddExtension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always") &&
            AddExtension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:FALSE") &&
            AddExtension(cert.get(), &ctx, NID_key_usage, "critical,digitalSignature,keyEncipherment") &&
            AddExtension(cert.get(), &ctx, NID_ext_key_usage, "serverAuth") &&
            AddExtension(cert.get(), &ctx, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    }
    if (!extended || X509_sign(cert.get(), issuer_key != nullptr ? issuer_key : key, EVP_sha256()) <= 0) {
        return nullptr;
    }
    return cert;
}

PkeyPtr NewKey() { return PkeyPtr(EVP_EC_gen("P-256")); }

// A CA and its server certificate, both made in memory.
bool MakePair(const std::string& ca_name, PkeyPtr* ca_key, X509Ptr* ca, PkeyPtr* server_key, X509Ptr* server,
              std::string* error) {
    *ca_key = NewKey();
    *server_key = NewKey();
    if (*ca_key && *server_key) *ca = MakeCert(ca_name, ca_key->get(), nullptr, nullptr, kCaDays);
    if (*ca) *server = MakeCert("127.0.0.1", server_key->get(), ca->get(), ca_key->get(), kServerDays);
    if (!*server) {
        *error = OpenSslError("cannot make the certificates of " + ca_name);
        return false;
    }
    return true;
}

bool ServerCertStillGood(X509* server, EVP_PKEY* server_key, X509* ca) {
    // No time_t crosses into OpenSSL: a 32-bit build with 64-bit time_t links an OpenSSL whose
    // time_t may be 32 bits wide.
    std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> renew_at(
        X509_time_adj_ex(nullptr, static_cast<int>(kRenewBeforeDays), 0, nullptr), &ASN1_TIME_free);
    const bool good = renew_at && X509_verify(server, X509_get0_pubkey(ca)) == 1 &&
                      X509_check_private_key(server, server_key) == 1 &&
                      ASN1_TIME_compare(X509_get0_notAfter(server), renew_at.get()) > 0;
    ERR_clear_error();
    return good;
}

// The server certificate of the fault "untrusted_cert".
struct HandshakeChoice {
    const TlsMaterial* material;
    FaultTable* faults;
    std::string name;
    std::string fault_route;
};

int ChooseCertificate(SSL* ssl, void* arg) {
    const auto* choice = static_cast<const HandshakeChoice*>(arg);
    if (!choice->faults->TakeUntrustedCert(choice->fault_route)) return 1;
    std::fprintf(stderr, "tarvo-cloud: %s handshake presents the certificate of an untrusted CA\n",
                 choice->name.c_str());
    return SSL_use_certificate(ssl, choice->material->untrusted_cert.get()) == 1 &&
                   SSL_use_PrivateKey(ssl, choice->material->untrusted_key.get()) == 1
               ? 1
               : 0;
}

class TlsServer : public httplib::SSLServer {
  public:
    TlsServer(const TlsMaterial& material, FaultTable& faults, const std::string& name,
              const std::string& fault_route)
        : httplib::SSLServer([&material](SSL_CTX& ctx) { return SetUp(ctx, material); }),
          m_choice{&material, &faults, name, fault_route} {
        if (ssl_context() != nullptr) SSL_CTX_set_cert_cb(ssl_context(), &ChooseCertificate, &m_choice);
    }

  private:
    static bool SetUp(SSL_CTX& ctx, const TlsMaterial& material) {
        SSL_CTX_set_options(&ctx, SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET);
        // Without resumption every handshake presents a certificate, so that each new
        // connection meets an untrusted_cert fault.
        SSL_CTX_set_session_cache_mode(&ctx, SSL_SESS_CACHE_OFF);
        SSL_CTX_set_num_tickets(&ctx, 0);
        return SSL_CTX_set_min_proto_version(&ctx, TLS1_2_VERSION) == 1 &&
               SSL_CTX_use_certificate(&ctx, material.server_cert.get()) == 1 &&
               SSL_CTX_use_PrivateKey(&ctx, material.server_key.get()) == 1 &&
               SSL_CTX_check_private_key(&ctx) == 1;
    }

    HandshakeChoice m_choice;  // read by the handshakes of every pool thread; never changed
};

}  // namespace

TlsResult LoadOrMakeTls(const std::string& dir) {
    TlsResult result;
    std::error_code ec;
    fs::create_directories(dir, ec);
    const fs::path folder = fs::absolute(dir, ec).lexically_normal();
    if (ec || !fs::is_directory(folder, ec)) {
        result.error = "cannot make the TLS folder " + dir;
        return result;
    }
    const std::string ca_path = (folder / "ca.pem").string();
    const std::string ca_key_path = (folder / "ca-key.pem").string();
    const std::string server_path = (folder / "server.pem").string();
    const std::string server_key_path = (folder / "server-key.pem").string();

    X509Ptr ca = ReadCert(ca_path);
    PkeyPtr ca_key = ReadKey(ca_key_path);
    TlsMaterial material;
    material.ca_file = ca_path;
    material.server_cert = ReadCert(server_path);
    material.server_key = ReadKey(server_key_path);
    const bool ca_usable = ca && ca_key && X509_check_private_key(ca.get(), ca_key.get()) == 1;
    ERR_clear_error();
    bool made_server = true;
    if (!ca_usable) {
        if (!MakePair("Tarvo development CA", &ca_key, &ca, &material.server_key, &material.server_cert,
                      &result.error) ||
            !WritePem(ca_key_path, nullptr, ca_key.get(), &result.error) ||
            !WritePem(ca_path, ca.get(), nullptr, &result.error)) {
            return result;
        }
        std::fprintf(stderr, "tarvo-cloud: made a new CA in %s\n", ca_path.c_str());
    } else if (!material.server_cert || !material.server_key ||
               !ServerCertStillGood(material.server_cert.get(), material.server_key.get(), ca.get())) {
        material.server_key = NewKey();
        if (material.server_key) {
            material.server_cert =
                MakeCert("127.0.0.1", material.server_key.get(), ca.get(), ca_key.get(), kServerDays);
        }
        if (!material.server_cert) {
            result.error = OpenSslError("cannot make the server certificate");
            return result;
        }
    } else {
        made_server = false;
    }
    if (made_server && (!WritePem(server_key_path, nullptr, material.server_key.get(), &result.error) ||
                        !WritePem(server_path, material.server_cert.get(), nullptr, &result.error))) {
        return result;
    }
    PkeyPtr other_ca_key;
    X509Ptr other_ca;
    if (!MakePair("Tarvo untrusted CA", &other_ca_key, &other_ca, &material.untrusted_key,
                  &material.untrusted_cert, &result.error)) {
        return result;
    }
    result.material = std::move(material);
    return result;
}

std::unique_ptr<httplib::Server> MakeTlsServer(const TlsMaterial& material, FaultTable& faults,
                                               const std::string& name, const std::string& fault_route,
                                               std::string* error) {
    auto server = std::make_unique<TlsServer>(material, faults, name, fault_route);
    if (!server->is_valid()) {
        *error = OpenSslError("cannot set up TLS for the " + name + " server");
        return nullptr;
    }
    return server;
}

}  // namespace cloud
}  // namespace tarvo
