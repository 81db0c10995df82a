#include <gtest/gtest.h>

#include <string>

#include "TarvoKelvaneParser.h"
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

TEST_F(ResponseParser, FlattensAnswerIntoSuffixedPathKeys) {
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
}

TEST_F(ResponseParser, TextAndCommentChildrenAndMissingStat) {
    ASSERT_TRUE(Parse(m_parser, "<rsp><msg>hello<!--note--></msg><err code=\"abc\"/></rsp>"));
    EXPECT_EQ(m_parser.GetStat(), "");
    EXPECT_EQ(Node(m_parser, "/rsp/msg"), "hello");
    // A comment is walked like an element under libxml2's name for it, with no text of its own.
    EXPECT_EQ(m_parser.GetNodeAmount("/rsp/msg/comment"), 1u);
    EXPECT_EQ(Node(m_parser, "/rsp/msg/comment"), "<absent>");
    EXPECT_EQ(m_parser.GetErrorCode(), 0);
    EXPECT_EQ(m_parser.GetErrorMsg(), "");

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

}  // namespace
