// Answers no agreement server sends: declarations and entities, external references, and sizes
// that would hold the upload's worker. None may crash the parser, reach out, or be read.
#include <gtest/gtest.h>
#include <httplib.h>
#include <tarvo/log_capture.h>

#include <atomic>
#include <string>
#include <thread>

#include "TarvoKelvaneParser.h"
#include "tarvo_test.h"

namespace {

bool Parse(CTarvoKelvaneParser& parser, std::string text) {
    return parser.Parse(text.empty() ? nullptr : &text[0], static_cast<unsigned>(text.size()));
}

// An answer `size` bytes long with stat "ok", padded in one element's text.
std::string PaddedAnswer(size_t size) {
    const std::string head = "<rsp stat=\"ok\"><t>";
    const std::string tail = "</t></rsp>";
    return head + std::string(size - head.size() - tail.size(), 'p') + tail;
}

std::string Repeated(const std::string& head, const std::string& part, int count, const std::string& tail) {
    std::string text = head;
    for (int i = 0; i < count; ++i) text += part;
    return text + tail;
}

std::string ManyAttributes(int count) {
    std::string text = "<rsp stat=\"ok\"";
    for (int i = 0; i < count; ++i) text += " a" + std::to_string(i) + "=\"\"";
    return text + "/>";
}

class HostileAnswer : public ::testing::Test {
  protected:
    void SetUp() override {
        m_server.Get(".*", [this](const httplib::Request&, httplib::Response& res) {
            ++m_fetches;
            res.set_content("<t>fetched</t>", "application/xml");
        });
        m_port = m_server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(m_port, 0);
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        ASSERT_TRUE(tarvo::test::WaitUntil([this] { return m_server.is_running(); }));
    }
    void TearDown() override {
        m_server.stop();
        if (m_thread.joinable()) m_thread.join();
    }
    std::string Url(const char* path) const { return "http://127.0.0.1:" + std::to_string(m_port) + path; }

    tarvo::test::TempRoot m_root;
    tarvo::platform::LogCapture m_log;
    httplib::Server m_server;
    std::thread m_thread;
    int m_port = 0;
    std::atomic<int> m_fetches{0};
};

TEST_F(HostileAnswer, DeclarationsAndReferencesAreRefusedAndNothingIsFetched) {
    tarvo::test::WriteFile(m_root.At("/secret"), "<t>secret</t>");
    const std::string secret = "file://" + m_root.At("/secret");
    const std::string cases[] = {
        R"(<!DOCTYPE rsp [<!ENTITY a "x">]><rsp stat="ok"><t>&a;</t></rsp>)",
        R"(<!DOCTYPE rsp [<!ENTITY e SYSTEM ")" + Url("/entity") + R"(">]><rsp stat="ok"><t>&e;</t></rsp>)",
        R"(<!DOCTYPE rsp [<!ENTITY f SYSTEM ")" + secret + R"(">]><rsp stat="ok"><t>&f;</t></rsp>)",
        R"(<!DOCTYPE rsp [<!ENTITY % p SYSTEM ")" + Url("/parameter") + R"("> %p;]><rsp stat="ok"/>)",
        R"(<!DOCTYPE rsp SYSTEM ")" + Url("/dtd") + R"("><rsp stat="ok"/>)",
        R"(<!DOCTYPE rsp [<!ENTITY m "<err code='1' msg='&#38;a;'/>"><!ENTITY a "x">]><rsp stat="ok">&m;</rsp>)",
        // Ten levels of tenfold references.
        [] {
            std::string text = "<!DOCTYPE rsp [<!ENTITY l0 \"lol\">";
            for (int i = 1; i < 10; ++i) {
                text += "<!ENTITY l" + std::to_string(i) + " \"" +
                        Repeated("", "&l" + std::to_string(i - 1) + ";", 10, "") + "\">";
            }
            return text + "]><rsp stat=\"ok\"><t>&l9;</t></rsp>";
        }(),
        R"(<!DOCTYPE rsp><rsp stat="ok"/>)",
    };
    for (const std::string& text : cases) {
        CTarvoKelvaneParser parser;
        EXPECT_FALSE(Parse(parser, text)) << text;
        EXPECT_EQ(parser.GetStat(), "") << text;
        EXPECT_EQ(parser.GetNodeAmount("/rsp"), 0u) << text;
        EXPECT_EQ(parser.GetErrorMsg(), "xml answer has a DOCTYPE!") << text;
    }
    EXPECT_EQ(m_fetches.load(), 0);
    EXPECT_TRUE(m_log.Contains("xml answer with a DOCTYPE refused"));

    // Without a DOCTYPE, CDATA, namespaces and instructions read as before.
    CTarvoKelvaneParser parser;
    ASSERT_TRUE(Parse(parser,
                      "<rsp xmlns=\"urn:t\" xmlns:n=\"urn:n\" stat=\"ok\"><n:err n:code=\"7\" msg=\"m\"/>"
                      "<t><![CDATA[a<b]]></t><?note x?></rsp>"));
    EXPECT_EQ(parser.GetStat(), "ok");
    EXPECT_EQ(parser.GetErrorCode(), 7);
    std::string value;
    EXPECT_TRUE(parser.GetNodeValue("/rsp/t", value));
    EXPECT_EQ(value, "a<b");
    EXPECT_EQ(parser.GetNodeAmount("/rsp/note"), 1u);
}

TEST_F(HostileAnswer, SizeNodesAndAttributesAreBoundedAtTheirLimit) {
    const struct {
        std::string text;
        bool parsed;
        const char* message;  // the parser's error when not parsed
    } cases[] = {
        {PaddedAnswer(64 * 1024), true, ""},
        {PaddedAnswer(64 * 1024 + 1), false, "xml answer is too large!"},
        // A megabyte of attributes on one element, the answer that held the worker for minutes.
        {ManyAttributes(100000), false, "xml answer is too large!"},
        // Below the size, too much markup for libxml2 to be given.
        {ManyAttributes(6000), false, "xml answer has too many nodes or attributes!"},
        {Repeated("<rsp stat=\"ok\">", "<a></a>", 4100, "</rsp>"), false,
         "xml answer has too many nodes or attributes!"},
        // The root and its children, comments counted as nodes.
        {Repeated("<rsp stat=\"ok\">", "<a/>", 1023, "</rsp>"), true, ""},
        {Repeated("<rsp stat=\"ok\">", "<a/>", 1024, "</rsp>"), false,
         "xml answer has too many nodes or attributes!"},
        {Repeated("<rsp stat=\"ok\">", "<!---->", 1024, "</rsp>"), false,
         "xml answer has too many nodes or attributes!"},
        {ManyAttributes(1023), true, ""},
        {ManyAttributes(1024), false, "xml answer has too many nodes or attributes!"},
        {Repeated("<rsp stat=\"ok\">", "<a b=\"\" c=\"\"/>", 600, "</rsp>"), false,
         "xml answer has too many nodes or attributes!"},
    };
    for (const auto& c : cases) {
        CTarvoKelvaneParser parser;
        const std::string what = c.text.substr(0, 40) + "... of " + std::to_string(c.text.size()) + " bytes";
        EXPECT_EQ(Parse(parser, c.text), c.parsed) << what;
        EXPECT_EQ(parser.GetErrorMsg(), c.message) << what;
        // A refused answer leaves nothing behind, not even its stat.
        EXPECT_EQ(parser.GetStat(), c.parsed ? "ok" : "") << what;
        EXPECT_EQ(parser.GetNodeAmount("/rsp"), c.parsed ? 1u : 0u) << what;
    }
    EXPECT_TRUE(m_log.Contains("xml answer of 65537 bytes is over 65536, not parsed"));
    EXPECT_TRUE(m_log.Contains("xml answer with 1 '<' and 6001 '=' is over 4096 of either, not parsed"));
    EXPECT_TRUE(m_log.Contains("xml answer over 1024 nodes or 1024 attributes, not read"));
}

}  // namespace
