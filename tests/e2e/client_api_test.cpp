// The client API of the real service through tarvo-service-host: queries, agreements, reset
// and the country code, keys of the wrong type or shape, and stored texts that are not UTF-8.
#include "seeded_service.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tarvo::test {
namespace {

constexpr const char* kAgreementsKey = "db/tarvodatacontrol/disclaimeragrees";
constexpr const char* kRevisedKey = "db/tarvodatacontrol/disclaimer_revised";
constexpr const char* kUpload = "Put Agreement to Server request";

Json::Value Refused() { return ParseLine(R"({"result": false})"); }
Json::Value Accepted() { return ParseLine(R"({"result": true})"); }
Json::Value Counted(int number) {
    return ParseLine(R"({"result": true, "number": )" + std::to_string(number) + "}");
}

using ClientQueries = SeededService;

TEST_F(ClientQueries, EachRequesterSeesItsOwnListAndAnUnknownMethodGetsAnEmptyReply) {
    EXPECT_EQ(OrderedIds(0), "tnc pp voice_new ");
    EXPECT_EQ(OrderedIds(1), "tnc pp voice_new ");
    EXPECT_EQ(OrderedIds(2), "main_common tnc pp viewing ");
    EXPECT_EQ(OrderedIds(4), "viewing tnc pp voice_new ");
    for (int requester : {3, 5, -1}) {
        EXPECT_EQ(Number(requester), Counted(0)) << requester;
        EXPECT_EQ(Ordered(requester, 0), Refused()) << requester;
    }

    EXPECT_EQ(Ordered(0, 2)["id"], "voice_new");
    EXPECT_EQ(Ordered(0, 3), Refused());
    EXPECT_EQ(Ordered(0, -1), Refused());
    EXPECT_EQ(Ordered(2, 4), Refused());
    EXPECT_EQ(Ordered(2, 2147483647), Refused());

    EXPECT_TRUE(Ask("get country code list").isNull());

    EXPECT_TRUE(Ask("Get Disclaimer Number").isNull());
    EXPECT_TRUE(Ask(Json::Value(Json::objectValue)).isNull());

    EXPECT_TRUE(Ask("is service available")["result"].isBool());
    EXPECT_TRUE(Ask("request country code list").isNull());
    for (const char* page : {"wizard-terms", "wizard-easy", ""}) {
        Json::Value request = Method("request update disclaimers");
        if (*page != '\0') request["request_from"] = page;
        EXPECT_EQ(Ask(request), Accepted()) << page;
    }
}

TEST_F(ClientQueries, OneDisclaimerCarriesExactlyItsTwentyOneKeys) {
    Json::Value viewing = ParseLine(
        R"({"result": true, "id": "viewing", "order": 0, "version": "1.0", "title": "Viewing Information",
        "intro": "Intro", "details": "Line one\nLine two", "is_agreed": false, "only_notice": true,
        "ppused": false, "reverse": false, "agree_dependency": ""})");
    for (int i = 1; i <= 10; ++i) viewing["button" + std::to_string(i)] = "B" + std::to_string(i);
    EXPECT_EQ(ById("viewing"), viewing);
    EXPECT_EQ(Ordered(2, 3), viewing);

    const Json::Value tnc = ById("tnc");
    EXPECT_EQ(tnc["button1"], "Agree");
    EXPECT_EQ(tnc["button3"], "");
    EXPECT_EQ(tnc.size(), 22u);

    const Json::Value revised = Ask("get revised disclaimers");
    EXPECT_EQ(revised["result"], true);
    ASSERT_EQ(revised["disclaimers"].size(), 1u);
    const Json::Value& voice = revised["disclaimers"][0];
    EXPECT_EQ(voice.size(), 21u);
    EXPECT_EQ(voice["id"], "voice_new");
    EXPECT_EQ(voice["version"], "2.1");
    EXPECT_EQ(voice["reverse"], true);
    EXPECT_EQ(voice["agree_dependency"], "pp");

    // Stored but not available on this set, a common item, unknown, and no id at all.
    EXPECT_EQ(ById("uhd_video"), Refused());
    EXPECT_EQ(ById("main_common"), Refused());
    EXPECT_EQ(ById("Viewing"), Refused());
    EXPECT_EQ(Ask("get disclaimer by term id"), Refused());
}

using ClientAgreements = SeededService;

TEST_F(ClientAgreements, OneAgreementChangesRecordRowAndMirrorAndIsBroadcastOnlyOnChange) {
    EXPECT_EQ(Agree("tnc", true), Accepted());
    EXPECT_EQ(NextNotification(),
              ParseLine(R"({"type": "terms_protocol", "name": "new_disclaimer_agree_changed",
        "agreements": "tnc:true;"})"));
    EXPECT_EQ(ById("tnc")["is_agreed"], true);
    EXPECT_EQ(QueryStore(m_root, "SELECT isAgreed FROM table_tarvo_data_disclaimer_info WHERE id = 'tnc'"),
              std::vector<std::string>{"1"});
    const Json::Value mirror = ParseLine(VconfText(kAgreementsKey));
    EXPECT_EQ(mirror["tnc"], "true");
    EXPECT_EQ(mirror["pp"], "true");

    // The same answer again, an unknown id, an unavailable record, no id: true, and nothing else.
    EXPECT_EQ(Agree("tnc", true), Accepted());
    EXPECT_EQ(Agree("nope", false), Accepted());
    EXPECT_EQ(Agree("uhd_video", false), Accepted());
    EXPECT_EQ(Ask("set one agreement"), Accepted());
    ExpectNoNotification();

    EXPECT_EQ(Agree("tnc", false), Accepted());
    EXPECT_EQ(NextNotification()["agreements"], "tnc:false;");
    EXPECT_EQ(ParseLine(VconfText(kAgreementsKey))["tnc"], "false");
}

TEST_F(ClientAgreements, AListIsBroadcastOnceAndAnEmptyListNotAtAll) {
    const size_t checks = LogCount("m_CheckRevisedTerms");
    Json::Value request = ParseLine(R"({"method": "set agreements", "agreements": [
        {"request_item": "tnc", "is_agreed": true}, {"request_item": "pp", "is_agreed": false},
        {"request_item": "nope", "is_agreed": true}, {"request_item": "viewing", "is_agreed": true},
        {"request_item": "pp", "is_agreed": false}]})");
    EXPECT_TRUE(Ask(request).isNull());
    EXPECT_EQ(NextNotification()["agreements"], "tnc:true;pp:false;viewing:true;");
    ExpectNoNotification();
    EXPECT_TRUE(WaitForLog("m_CheckRevisedTerms", checks + 1));

    request["agreements"] = Json::Value(Json::arrayValue);
    EXPECT_TRUE(Ask(request).isNull());
    ExpectNoNotification();
}

TEST_F(ClientAgreements, AgreeingToAllSkipsThoseThatAgreeAlreadyAndClearsTheRevisedFlag) {
    // The start's check logs before it writes.
    EXPECT_TRUE(WaitUntil([] { return VconfNumber(kRevisedKey) == 1; }));
    EXPECT_TRUE(Ask("set all agreement", "is_agreed", true).isNull());
    EXPECT_EQ(NextNotification()["agreements"], "tnc:true;viewing:true;voice_new:true;");
    EXPECT_TRUE(WaitUntil([] { return VconfNumber(kRevisedKey) == 0; }));
    EXPECT_EQ(Ask("get revised disclaimers"), Accepted());

    EXPECT_TRUE(Ask("set all agreement", "is_agreed", true).isNull());
    ExpectNoNotification();

    EXPECT_TRUE(Ask("set all agreement", "is_agreed", false).isNull());
    EXPECT_EQ(NextNotification()["agreements"], "pp:false;tnc:false;viewing:false;voice_new:false;");
}

using ClientReset = SeededService;

TEST_F(ClientReset, ResetTakesBackTheAgreedAnswersAndEmptiesTheStore) {
    const size_t uploads = LogCount(kUpload);
    Reset();
    // The unavailable record's answer is not taken back: only available records count.
    EXPECT_EQ(NextNotification()["agreements"], "pp:false;");
    EXPECT_EQ(LogCount(kUpload), uploads + 1);
    for (int requester = 0; requester <= 4; ++requester) EXPECT_EQ(Number(requester), Counted(0));
    EXPECT_EQ(QueryStore(m_root, "SELECT count(*) FROM table_tarvo_data_disclaimer_info"),
              std::vector<std::string>{"0"});
    EXPECT_EQ(QueryStore(m_root, "SELECT value FROM table_tarvo_data_control_info WHERE key = 1"),
              std::vector<std::string>{""});
    EXPECT_EQ(VconfNumber(kRevisedKey), 0);
    EXPECT_EQ(VconfText(kAgreementsKey), "");

    Reset();
    ExpectNoNotification();
    EXPECT_EQ(LogCount(kUpload), uploads + 1);
}

class ResetWithoutAnswers : public SeededService {
  protected:
    std::vector<DisclaimerRow> Rows() const override {
        std::vector<DisclaimerRow> rows = SeedRows();
        for (auto& row : rows) row.agreed = false;
        return rows;
    }
};

TEST_F(ResetWithoutAnswers, ResetSendsNothingAndStillMarksTheReset) {
    EXPECT_EQ(VconfNumber("db/ostrel/reset/tarvosetting"), -99);
    // Reset() waits for the mark, "db/ostrel/reset/tarvosetting" 1.
    Reset();
    ExpectNoNotification();
    EXPECT_EQ(LogCount(kUpload), 0u);
    EXPECT_EQ(Number(4), Counted(0));
}

using WrongTypes = SeededService;

TEST_F(WrongTypes, MissingKeysAndConvertibleValuesReadAsTheirDefaults) {
    EXPECT_EQ(Ask("get disclaimer number"), Counted(3));
    EXPECT_EQ(Ask("get disclaimer by order")["id"], "tnc");
    const std::pair<const char*, Json::Value> converted[] = {
        {R"({"method": "get disclaimer number", "requester": true})", Counted(3)},
        {R"({"method": "get disclaimer number", "requester": 2.7})", Counted(4)},
        {R"({"method": "get disclaimer number", "requester": null})", Counted(3)},
        {R"({"method": "get disclaimer by term id", "request_item": 5})", Refused()},
        {R"({"method": "set country code", "country_code": 44})", Accepted()}};
    for (const auto& [call, reply] : converted) EXPECT_EQ(RawAnswer(call)["reply"], reply) << call;
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "44");
    for (const char* method : {"5", "null"}) {
        const Json::Value answer = RawAnswer(std::string(R"({"method": )") + method + "}");
        EXPECT_TRUE(answer.isMember("reply")) << method;
        EXPECT_TRUE(answer["reply"].isNull()) << method;
    }

    EXPECT_EQ(RawAnswer(R"({"method": "set one agreement", "request_item": "tnc", "is_agreed": 1})")["reply"],
              Accepted());
    EXPECT_EQ(NextNotification()["agreements"], "tnc:true;");
    EXPECT_EQ(
        RawAnswer(R"({"method": "set one agreement", "request_item": "tnc", "is_agreed": 0.0})")["reply"],
        Accepted());
    EXPECT_EQ(NextNotification()["agreements"], "tnc:false;");
    // No list at all, or something that has no elements: nothing to set.
    for (const char* agreements : {R"("tnc")", "{}", "7", "[null]", R"([{"request_item": "tnc"}])"}) {
        const Json::Value answer =
            RawAnswer(std::string(R"({"method": "set agreements", "agreements": )") + agreements + "}");
        EXPECT_TRUE(answer.isMember("reply")) << agreements;
        EXPECT_TRUE(answer["reply"].isNull()) << agreements;
    }
    ExpectNoNotification();
    EXPECT_EQ(RawAnswer(R"({"method": "request update disclaimers", "request_from": 7})")["reply"],
              Accepted());
}

TEST_F(WrongTypes, ImpossibleConversionsAndWrongShapesGetErrorFramesNamingTheMemberAndKeepEarlierAnswers) {
    // The error's wording, where it is checked.
    const std::pair<const char*, const char*> calls[] = {
        {R"({"method": {"name": "get disclaimer number"}})", ""},
        {R"({"method": "get disclaimer number", "requester": "0"})",
         R"(member "requester" must be a number, got a string)"},
        {R"({"method": "get disclaimer number", "requester": 1e12})", ""},
        {R"({"method": "get disclaimer by order", "request_index": 4294967296})", ""},
        {R"({"method": "get disclaimer by order", "requester": 0, "request_index": -5e10})",
         R"(member "request_index" must be a number from -2147483648 to 2147483647, got -50000000000.0)"},
        {R"({"method": "get disclaimer by term id", "request_item": {"id": "tnc"}})", ""},
        {R"({"method": "set one agreement", "request_item": "tnc", "is_agreed": "true"})",
         R"(member "is_agreed" must be true or false, got a string)"},
        {R"({"method": "set agreements", "agreements": {"tnc": true}})",
         R"(member "agreements" must be an array, got an object)"},
        // Every member on the way could be the one read as a string: the error lists them.
        {R"({"method": "set agreements", "agreements": [{"request_item": ["tnc"], "is_agreed": true}]})",
         R"(one of the members "agreements" (an array), "agreements[0]" (an object), )"
         R"("agreements[0].request_item" (an array) must be a string)"},
        {R"({"method": "set country code", "country_code": [1]})",
         R"(member "country_code" must be a string, got an array)"},
        {R"({"method": "get disclaimer by order", "requester": [0], "request_index": 0})",
         R"(member "requester" must be a number, got an array)"},
        {R"({"method": "set agreements", "agreements": [5]})",
         R"(member "agreements[0]" must be an object, got 5)"},
        {R"({"method": "set all agreement", "is_agreed": "yes"})", ""},
        {R"({"method": "set country code", "country_code": {"code": "DE"}})",
         R"(member "country_code" must be a string, got an object)"},
        {R"({"method": "request update disclaimers", "request_from": ["wizard-terms"]})", ""},
    };
    for (const auto& [call, error] : calls) {
        const Json::Value answer = RawAnswer(call);
        EXPECT_EQ(answer["id"], 99) << call;
        EXPECT_TRUE(answer["error"].isString()) << call;
        if (*error != '\0') {
            EXPECT_EQ(answer["error"], error) << call;
        }
        EXPECT_FALSE(answer.isMember("reply")) << call;
    }
    ExpectNoNotification();
    EXPECT_EQ(ById("tnc")["is_agreed"], false);
    EXPECT_EQ(ById("pp")["is_agreed"], true);
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "<unset>");
    EXPECT_EQ(Number(0), Counted(3));

    // A list that throws halfway keeps its earlier answers, without a broadcast.
    const Json::Value answer =
        RawAnswer(R"({"method": "set agreements", "agreements": [{"request_item": "tnc", "is_agreed": true},)"
                  R"( {"request_item": "pp", "is_agreed": "no"}]})");
    EXPECT_EQ(answer["error"], R"(member "agreements[1].is_agreed" must be true or false, got a string)");
    EXPECT_EQ(ById("tnc")["is_agreed"], true);
    EXPECT_EQ(ById("pp")["is_agreed"], true);
    ExpectNoNotification();
    EXPECT_EQ(LogCount(kUpload), 0u);
}

// A record whose stored texts are not UTF-8 (a file from an older set or a USB clone) reaches
// clients as valid UTF-8, each stray byte as U+FFFD, and the connection goes on serving.
class StoredBytes : public SeededService {
  protected:
    std::vector<DisclaimerRow> Rows() const override {
        std::vector<DisclaimerRow> rows = SeedRows();
        rows[1].title = "Caf\xe9 terms";              // Latin-1
        rows[1].details = "cut short \xe2\x82";       // a sequence without its end
        rows[1].buttons = {"\xed\xa0\x80", "Agree"};  // a surrogate
        return rows;
    }
};

TEST_F(StoredBytes, TextsThatAreNotUtf8ReachTheClientRepairedAndTheConnectionStaysUsable) {
    const Json::Value tnc = ById("tnc");
    EXPECT_EQ(tnc["title"], "Caf\xef\xbf\xbd terms");
    EXPECT_EQ(tnc["details"], "cut short \xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(tnc["button1"], "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(tnc["button2"], "Agree");
    EXPECT_EQ(ById("pp")["title"], "Privacy Policy");
}

}  // namespace
}  // namespace tarvo::test
