// Calls whose lists and records have the wrong shape: the host's error frame names the member,
// what it must be and what came, and the service goes on answering.
#include "seeded_service.h"

namespace tarvo {
namespace test {
namespace {

using WrongShapes = SeededService;

TEST_F(WrongShapes, ListsAndRecordsOfTheWrongShapeGetErrorsNamingTheMember) {
    const std::pair<const char*, const char*> calls[] = {
        {R"({"method": "set agreements", "agreements": [5]})",
         R"(member "agreements[0]" must be an object, got 5)"},
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
    };
    for (const auto& [call, error] : calls) {
        const Json::Value answer = RawAnswer(call);
        EXPECT_EQ(answer["error"], error) << call;
        EXPECT_FALSE(answer.isMember("reply")) << call;
    }
    EXPECT_EQ(VconfText("db/nimbra/countrycode"), "<unset>");
    EXPECT_EQ(ById("tnc")["is_agreed"], false);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
