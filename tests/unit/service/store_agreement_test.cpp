// The user's answers: sub-link records and the default agreement status.
#include "store_fixture.h"

using namespace store_test;

namespace {
class AgreementState : public StartedStore {
  protected:
    std::string Set(const std::string& id, bool agree) {
        std::string changes;
        store->SetAgreement(id, agree, changes);
        return changes;
    }
    std::string RowAnswer(const std::string& id) {
        return DbOne(
            "SELECT isAgreed || isAgreementPut || hasRevised FROM table_tarvo_data_disclaimer_info "
            "WHERE id='" +
            id + "'");
    }
};
}  // namespace

TEST_F(AgreementState, SubLinkRecordPassesItsAnswerToItsLinks) {
    TarvoDisclaimerDataItem link = Record("pp_sub1");
    link.subLink = "/tnc//pp/";
    TarvoDisclaimerDataItem tnc = Record("tnc");
    tnc.isAgreed = tnc.hasRevised = true;
    for (const auto& item : {link, tnc, Record("pp")}) Put(item);

    EXPECT_EQ("", Set("pp_sub1", false)) << "partly agreed set to false changes nothing";
    EXPECT_TRUE(store->IsDisclaimerAgreed("tnc"));
    EXPECT_EQ("pp:true;", Set("pp_sub1", true));
    EXPECT_TRUE(Snapshot(true)["pp_sub1"].isAgreed);
    EXPECT_FALSE(store->IsDisclaimerAgreed("pp_sub1")) << "its own answer stays";

    // Every linked change is reported as true, whatever the answer.
    EXPECT_EQ("tnc:true;pp:true;", Set("pp_sub1", false));
    EXPECT_EQ("000", RowAnswer("tnc"));
    EXPECT_FALSE(Snapshot(true)["pp_sub1"].isAgreed);

    link.subLink = "tnc/gone";
    Put(link);
    EXPECT_EQ("tnc:true;", Set("pp_sub1", true));
    EXPECT_TRUE(log.Contains("not exist id in db gone"));
    EXPECT_FALSE(Snapshot(true)["pp_sub1"].isAgreed);
}

TEST_F(AgreementState, DefaultStatusFollowsTncAndPpButNeverOverwritesOtherValues) {
    Put(Record("tnc"));
    Put(Record("pp"));
    Set("tnc", true);
    EXPECT_EQ(-99, VconfNumber(kDefaultAgreeKey)) << "nothing written while pp is open";
    Set("pp", true);
    EXPECT_EQ(1, VconfNumber(kDefaultAgreeKey));
    EXPECT_EQ(2, VconfNumber(kAutoUpdateKey));

    // Someone turned automatic updates off: a later check with status 1 leaves that alone.
    vconf_set_int(kAutoUpdateKey, 0);
    TarvoDisclaimerDataItem tnc = Record("tnc");
    tnc.isAgreed = true;
    Put(tnc);
    EXPECT_EQ(0, VconfNumber(kAutoUpdateKey));
    Set("pp", false);
    EXPECT_EQ(0, VconfNumber(kDefaultAgreeKey));

    vconf_set_int(kDefaultAgreeKey, 2);
    Set("pp", true);
    Set("tnc", false);
    EXPECT_EQ(2, VconfNumber(kDefaultAgreeKey));

    vconf_set_int(kDefaultAgreeKey, 1);
    store->ClearDisclaimerItems();
    EXPECT_EQ(0, VconfNumber(kDefaultAgreeKey));
    EXPECT_EQ(0, VconfNumber(kAutoUpdateKey));
}
