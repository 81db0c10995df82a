// The service's upload against an agreement server that answers with documents no such server
// sends: the service lives on, the answers stay unreported, no entity is fetched, and the next
// plain "ok" reports them.
#include <TarvoDataControlService.h>
#include <bracken/ser.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <tarvo/log_capture.h>
#include <vconf.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "disclaimer_rows.h"
#include "tarvo_test.h"

namespace {

using std::chrono::seconds;

// A self-signed certificate for 127.0.0.1, trusted by the device through its CA file.
struct Tls {
    Tls() {
        key = EVP_EC_gen("P-256");
        cert = X509_new();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509_set_pubkey(cert, key);
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
        for (const auto& [nid, value] :
             {std::pair<int, const char*>{NID_basic_constraints, "critical,CA:TRUE"},
              {NID_subject_alt_name, "IP:127.0.0.1"}}) {
            X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
            X509_add_ext(cert, extension, -1);
            X509_EXTENSION_free(extension);
        }
        X509_sign(cert, key, EVP_sha256());
    }
    ~Tls() {
        X509_free(cert);
        EVP_PKEY_free(key);
    }
    bool WriteCa(const std::string& path) const {
        FILE* out = std::fopen(path.c_str(), "w");
        const bool written = out != nullptr && PEM_write_X509(out, cert) == 1;
        if (out != nullptr) std::fclose(out);
        return written;
    }
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
};

class HostileAgreementServer : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(m_tls.cert, nullptr);
        m_agreement = std::make_unique<httplib::SSLServer>(m_tls.cert, m_tls.key);
        ASSERT_TRUE(m_agreement->is_valid());
        m_agreement->Put(".*", [this](const httplib::Request&, httplib::Response& res) {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_puts;
            res.set_content(m_answer, "application/xml");
        });
        // The OpenAPI domain, where the sync's requests fail, and the entities' host.
        m_plain.Get(".*", [this](const httplib::Request& req, httplib::Response& res) {
            if (req.path == "/entity") ++m_entityFetches;
            res.status = 404;
        });
        m_agreementPort = m_agreement->bind_to_any_port("127.0.0.1");
        m_plainPort = m_plain.bind_to_any_port("127.0.0.1");
        ASSERT_GT(m_agreementPort, 0);
        ASSERT_GT(m_plainPort, 0);
        m_threads[0] = std::thread([this] { m_agreement->listen_after_bind(); });
        m_threads[1] = std::thread([this] { m_plain.listen_after_bind(); });
        ASSERT_TRUE(
            tarvo::test::WaitUntil([this] { return m_agreement->is_running() && m_plain.is_running(); }));

        ASSERT_TRUE(m_tls.WriteCa(m_root.At("/etc/tarvo/ca.pem")));
        const std::string host = "127.0.0.1:" + std::to_string(m_agreementPort);
        m_root.EditProfile([&](Json::Value& profile) {
            profile["network"]["up"] = true;
            profile["ca_file"] = m_root.At("/etc/tarvo/ca.pem");
            profile["deployment"]["agreement_production_host"] = host;
            profile["deployment"]["agreement_staging_host"] = host;
        });
        const std::string domain = "http://127.0.0.1:" + std::to_string(m_plainPort);
        ASSERT_EQ(0, vconf_set_str("db/nimbra/gpmurl/apps", domain.c_str()));
        tarvo::test::DisclaimerRow tnc("tnc", 1);
        tnc.agreed = true;
        ASSERT_TRUE(
            tarvo::test::WriteDisclaimerRows(m_root, {tnc, tarvo::test::DisclaimerRow("pp", 2)}, "en"));
    }

    void TearDown() override {
        m_agreement->stop();
        m_plain.stop();
        for (std::thread& thread : m_threads) {
            if (thread.joinable()) thread.join();
        }
    }

    void Answer(const std::string& answer) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_answer = answer;
    }
    int Puts() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_puts;
    }
    std::string Entity() const { return "http://127.0.0.1:" + std::to_string(m_plainPort) + "/entity"; }
    // The reported flags of the two records, in id order.
    std::string Reported() const {
        std::string flags;
        for (const std::string& flag : tarvo::test::QueryStore(
                 m_root, "SELECT isAgreementPut FROM table_tarvo_data_disclaimer_info ORDER BY id")) {
            flags += flag;
        }
        return flags;
    }

    tarvo::test::TempRoot m_root;
    tarvo::platform::LogCapture m_log;
    Tls m_tls;
    std::unique_ptr<httplib::SSLServer> m_agreement;
    httplib::Server m_plain;
    std::thread m_threads[2];
    int m_agreementPort = 0;
    int m_plainPort = 0;
    std::mutex m_mutex;  // guards m_answer, m_puts
    std::string m_answer;
    int m_puts = 0;
    std::atomic<int> m_entityFetches{0};
};

TEST_F(HostileAgreementServer, ServiceOutlivesEveryAnswerAndReportsOnlyOnAPlainOk) {
    std::string attributes = "<rsp stat=\"ok\"";
    for (int i = 0; i < 100000; ++i) attributes += " a" + std::to_string(i) + "=\"\"";
    attributes += "/>";
    const struct {
        std::string answer;
        std::string reported;  // isAgreementPut of "pp" and "tnc" after the upload
    } cases[] = {
        {R"(<!DOCTYPE rsp [<!ENTITY a "x">]><rsp stat="ok"><t>&a;</t></rsp>)", "00"},
        {R"(<!DOCTYPE rsp [<!ENTITY e SYSTEM ")" + Entity() + R"(">]><rsp stat="ok"><t>&e;</t></rsp>)", "00"},
        {attributes, "00"},
        {R"(<rsp stat="ok"><err code="0" msg="fine"/></rsp>)", "11"},
    };
    // The first upload runs by itself once the network is found up; the others are asked for.
    Answer(cases[0].answer);
    ASSERT_TRUE(g_service->Start());
    ASSERT_TRUE(m_log.WaitFor("Data Control Service Created Success!", seconds(10)));
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
        const auto& c = cases[i];
        if (i > 0) {
            Answer(c.answer);
            Sedge::TCEvent event;
            event.type = MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT;
            ASSERT_TRUE(
                CTarvoDataControlService::GetInstance()->SendEvent(&event, DISCLAIMER_AGREEMENT_SERV));
        }
        const std::string what = c.answer.substr(0, 60);
        ASSERT_TRUE(tarvo::test::WaitUntil([&] { return Puts() >= static_cast<int>(i) + 1; }, seconds(30)))
            << what;
        ASSERT_TRUE(
            tarvo::test::WaitUntil([&] { return m_log.Count("m_easyHandle reset") == i + 1; }, seconds(30)))
            << what;
        EXPECT_EQ(Reported(), c.reported) << what;
        // The service still answers its clients.
        Sedge::TCMessage message;
        message.json["method"] = "is service available";
        message.type = "test";
        EXPECT_TRUE(g_service_proxy->OnCallAPI(message).json["result"].asBool()) << what;
    }
    EXPECT_EQ(m_log.Count("Agreement Server Connection Fail!"), 3u);
    EXPECT_EQ(m_entityFetches.load(), 0);
}

}  // namespace
