// A record whose stored texts are not UTF-8 (a file from an older set or a USB clone) reaches
// clients as valid UTF-8, each stray byte as U+FFFD, and the connection goes on serving.
#include "seeded_service.h"

namespace tarvo {
namespace test {
namespace {

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
}  // namespace test
}  // namespace tarvo
