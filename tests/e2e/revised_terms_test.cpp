// A sync run whose notice differs from the store: a new or changed disclaimer is fetched and, the
// base terms agreed, offered as revised unless it is a mere notice or has no version; another
// country's set is fetched even with the same versions and keeps only the base answers.
#include "sync_fixture.h"

namespace tarvo::test {
namespace {

TEST_F(Sync, ANewOrChangedDisclaimerOrAnotherCountryIsFetchedAndOnlyWhatNeedsAnAnswerIsRevised) {
    ASSERT_EQ(RequestUpdate("wizard-terms")["result"], "success");
    Notification("new_disclaimer_agree_changed");
    Agree({"tnc", "pp", "viewing", "billing"});
    // Two new disclaimers, one of them a mere notice, and one that loses its version.
    for (const auto& [id, like] :
         {std::pair<std::string, std::string>{"nuance_2", "interest_ads"}, {"rm_ud", "service_request"}}) {
        Json::Value added;
        added["country"] = "US";
        added["disclaimer"] = DataDisclaimer("US", like);
        added["disclaimer"]["id"] = id;
        Publish(ToLine(added));
    }
    Publish(R"({"country": "US", "id": "billing", "version": ""})");
    ClearCloudRequests();
    ASSERT_TRUE(m_calls.Control("wakeup"));
    EXPECT_EQ(Notification("new_disclaimer_agree_changed")["agreements"],
              "billing:false;nuance_2:false;rm_ud:false;");
    EXPECT_EQ(CloudRequests().size(), 2u);
    const Json::Value revised = Method("get revised disclaimers")["disclaimers"];
    ASSERT_EQ(revised.size(), 1u) << revised;
    EXPECT_EQ(revised[0]["id"], "nuance_2");
    auto listed = Listed();
    EXPECT_EQ(listed["rm_ud"]["version"], "1.0");
    EXPECT_FALSE(listed["billing"]["is_agreed"].asBool());

    // Another country whose set holds the same versions: the country alone makes the run fetch,
    // and only the base answers stay.
    Json::Value copy;
    copy["country_set"] = Admin("/admin/data")["US"];
    copy["country_set"]["country"] = "DE";
    copy["country_set"]["set_id"] = "TVTERMS-DE-AS-US";
    Publish(ToLine(copy));
    SetVconf("db/nimbra/countrycode", "DE");
    ClearCloudRequests();
    ASSERT_TRUE(m_calls.Control("wakeup"));
    Notification("new_disclaimer_agree_changed");
    const Json::Value requests = CloudRequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1]["path"], "/apps/terms/v4/disclaimers/TVTERMS-DE-AS-US");
    listed = Listed();
    EXPECT_TRUE(listed["pp"]["is_agreed"].asBool());
    EXPECT_FALSE(listed["viewing"]["is_agreed"].asBool());
    EXPECT_FALSE(Method("get revised disclaimers").isMember("disclaimers"));
}

}  // namespace
}  // namespace tarvo::test
