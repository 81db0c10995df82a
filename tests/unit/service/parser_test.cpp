// The agreement server's answers read into path keys, and answers no agreement server sends:
// declarations and entities, external references, and sizes that would hold the upload's worker.
// None may crash the parser, reach out, or be read.
#include <gtest/gtest.h>
#include <tarvo/log_capture.h>

#include <string>

#include "TarvoKelvaneParser.h"
#include "loopback_http.h"
#include "tarvo_test.h"

namespace {

bool Parse(CTarvoKelvaneParser& parser, std::string text) {
    return parser.Parse(text.empty() ? nullptr : &text[0], static_cast<unsigned>(text.size()));
}

std::string Node(CTarvoKelvaneParser& parser, const std::string& key) {
    std::string value = "<absent>";
    parser.GetNodeValue(key, value);
    return value;
}

std::string Attr(CTarvoKelvaneParser& parser, const std::string& key) {
    std::string value = "<absent>";
    parser.GetAttrValue(key, value);
    return value;
}

class ResponseParser : public ::testing::Test {
  protected:
    tarvo::test::TempRoot m_root;
    CTarvoKelvaneParser m_parser;
};

TEST_F(ResponseParser, FlattensAnswerIntoSuffixedPathKeysWithTextCommentsAndMissingStat) {
    ASSERT_TRUE(Parse(m_parser,
                      "<rsp stat=\"fail\"><err code=\"1002\" msg=\"bad\"/>"
                      "<list><term>A</term><term>B<sub>x</sub></term><term stat=\"inner\">C</term></list>"
                      "<list><term>D</term></list></rsp>"));
    EXPECT_EQ(m_parser.GetStat(), "fail");
    EXPECT_EQ(Attr(m_parser, "/rsp/stat"), "fail");
    EXPECT_EQ(m_parser.GetErrorCode(), 1002);
    EXPECT_EQ(m_parser.GetErrorMsg(), "bad");
    EXPECT_EQ(m_parser.GetNodeAmount("/rsp/list"), 2u);
    EXPECT_EQ(m_parser.GetNodeAmount("/rsp/list/term"), 3u);
    EXPECT_EQ(m_parser.GetNodeAmount("/rsp/list/term#1"), 0u);
    EXPECT_EQ(Node(m_parser, "/rsp/list/term"), "A");
    EXPECT_EQ(Node(m_parser, "/rsp/list/term#1"), "B");
    EXPECT_EQ(Node(m_parser, "/rsp/list/term#2"), "C");
    // Children inherit the suffixed key; the second list's term counts apart from the first's.
    EXPECT_EQ(Node(m_parser, "/rsp/list/term#1/sub"), "x");
    EXPECT_EQ(Node(m_parser, "/rsp/list#1/term"), "D");
    // "stat" below the root is only an attribute, never the answer's stat.
    EXPECT_EQ(Attr(m_parser, "/rsp/list/term#2/stat"), "inner");

    // A second answer on the same object goes on counting.
    ASSERT_TRUE(Parse(m_parser, "<rsp stat=\"ok\"><list><term>E</term></list></rsp>"));
    EXPECT_EQ(m_parser.GetStat(), "ok");
    EXPECT_EQ(Node(m_parser, "/rsp#1/list/term"), "E");
    EXPECT_EQ(m_parser.GetNodeAmount("/rsp"), 2u);

    // Text and comment children, and a missing stat.
    CTarvoKelvaneParser text;
    ASSERT_TRUE(Parse(text, "<rsp><msg>hello<!--note--></msg><err code=\"abc\"/></rsp>"));
    EXPECT_EQ(text.GetStat(), "");
    EXPECT_EQ(Node(text, "/rsp/msg"), "hello");
    // A comment is walked like an element under libxml2's name for it, with no text of its own.
    EXPECT_EQ(text.GetNodeAmount("/rsp/msg/comment"), 1u);
    EXPECT_EQ(Node(text, "/rsp/msg/comment"), "<absent>");
    EXPECT_EQ(text.GetErrorCode(), 0);
    EXPECT_EQ(text.GetErrorMsg(), "");

    CTarvoKelvaneParser none;
    ASSERT_TRUE(Parse(none, "<rsp stat=\"ok\"/>"));
    EXPECT_EQ(none.GetErrorCode(), -1);
}

TEST_F(ResponseParser, FailuresSetTheirOwnMessageAheadOfTheServers) {
    const struct {
        std::string text;
        std::string message;
    } cases[] = {
        {"", ""},
        {"no xml at all", "xml file does not exist!"},
        {"<response stat=\"ok\"><err msg=\"server words\"/></response>", "xml rootnode is not qualified!"},
    };
    for (const auto& c : cases) {
        CTarvoKelvaneParser parser;
        EXPECT_FALSE(Parse(parser, c.text)) << c.text;
        EXPECT_EQ(parser.GetErrorMsg(), c.message) << c.text;
    }
    CTarvoKelvaneParser parser;
    EXPECT_FALSE(parser.Parse(nullptr, 10));
    EXPECT_EQ(parser.GetErrorMsg(), "");

    // The parser's own error stays first even after a good answer carrying a message.
    EXPECT_FALSE(Parse(parser, "<other/>"));
    ASSERT_TRUE(Parse(parser, "<rsp stat=\"fail\"><err code=\"7\" msg=\"server words\"/></rsp>"));
    EXPECT_EQ(parser.GetErrorMsg(), "xml rootnode is not qualified!");
    EXPECT_EQ(parser.GetErrorCode(), 7);
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
        m_http.answer = "<t>fetched</t>";
        m_http.Start();
    }
    std::string Url(const char* path) const { return m_http.Url(path); }

    tarvo::test::TempRoot m_root;
    tarvo::platform::LogCapture m_log;
    tarvo::test::LoopbackHttp m_http;
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
    EXPECT_TRUE(m_http.Requests().empty());
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
