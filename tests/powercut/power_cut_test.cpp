// Power cuts at random points while the service stores answers, syncs and resets (see cut_vfs.h);
// after a restart on what the disk holds, every acknowledged answer is stored, the file passes
// integrity_check and the vconf mirror agrees with the store. A failure names its replay seed.
#include <bracken/ser.h>
#include <gtest/gtest.h>
#include <tarvo/log_capture.h>
#include <tarvo/platform.h>
#include <vconf.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>

#include "TarvoDataControlService.h"
#include "disclaimer_rows.h"
#include "power_cut_fixture.h"

namespace tarvo::test {
namespace {

using std::chrono::seconds;

constexpr const char* kPlainIds[] = {"tnc", "pp", "voice", "viewing", "ads", "stats"};

std::vector<DisclaimerRow> PlainRows() {
    std::vector<DisclaimerRow> rows;
    int order = 1;
    for (const char* id : kPlainIds) {
        DisclaimerRow row(id, order++);
        row.title = std::string("Title of ") + id;
        row.agreed = order % 2 == 0;
        rows.push_back(row);
    }
    return rows;
}

// The service in this process, as the host runs it; the child's own thread calls it.
class ChildService {
  public:
    ChildService() {
        bracken::ser::SetNotificationSink([this](const Sedge::TCMessage& message) {
            if (message.json["name"] == "new_disclaimer_got") ++m_got;
        });
    }

    bool Start() {
        return g_service->Start() && m_log.WaitFor("Data Control Service Created Success!", seconds(20)) &&
               m_log.WaitFor("m_CheckRevisedTerms", seconds(20));
    }

    Json::Value Call(const Json::Value& request) {
        Sedge::TCMessage message;
        message.json = request;
        message.type = "power-cut";
        return g_service_proxy->OnCallAPI(message).json;
    }

    // The ids a "menu" client lists, in order.
    std::vector<std::string> ListedIds() {
        Json::Value request(Json::objectValue);
        request["method"] = "get disclaimer number";
        request["requester"] = 4;
        const Json::UInt number = Call(request)["number"].asUInt();
        std::vector<std::string> ids;
        request["method"] = "get disclaimer by order";
        for (Json::UInt i = 0; i < number; ++i) {
            request["request_index"] = i;
            ids.push_back(Call(request)["id"].asString());
        }
        return ids;
    }

    int Got() const { return m_got; }

  private:
    platform::LogCapture m_log;
    std::atomic<int> m_got{0};
};

// Random "set agreements" calls over `ids`, each announced before it goes out and acknowledged
// once its reply is back.
void Answer(ChildService& service, Reporter& report, std::mt19937_64& random,
            const std::vector<std::string>& ids, int calls) {
    for (int call = 0; call < calls && !ids.empty(); ++call) {
        Json::Value request(Json::objectValue);
        request["method"] = "set agreements";
        std::set<std::string> chosen;
        const size_t count = 1 + random() % 3;
        std::string announced = "call";
        while (chosen.size() < std::min(count, ids.size())) {
            const std::string& id = ids[random() % ids.size()];
            if (!chosen.insert(id).second) continue;
            const bool agreed = random() % 2 == 0;
            Json::Value item(Json::objectValue);
            item["request_item"] = id;
            item["is_agreed"] = agreed;
            request["agreements"].append(item);
            announced += " " + id + "=" + (agreed ? "1" : "0");
        }
        report.Line(announced);
        service.Call(request);  // its reply is empty: the answers are stored when it returns
        report.Line("ack");
    }
}

void AnswersWork(Reporter& report, uint64_t seed) {
    ChildService service;
    if (!service.Start()) report.Fail("the service did not start");
    std::mt19937_64 random(seed);
    Answer(service, report, random, {std::begin(kPlainIds), std::end(kPlainIds)}, 30);
}

void ResetWork(Reporter& report, uint64_t seed) {
    ChildService service;
    if (!service.Start()) report.Fail("the service did not start");
    std::mt19937_64 random(seed);
    Answer(service, report, random, {std::begin(kPlainIds), std::end(kPlainIds)}, 8);
    Json::Value request(Json::objectValue);
    request["method"] = "request reset ostrel";
    report.Line("call-reset");
    if (!service.Call(request)["result"].asBool()) report.Fail("the reset was refused");
    if (!WaitUntil([] { return VconfNumber("db/ostrel/reset/tarvosetting") == 1; }, seconds(20))) {
        report.Fail("the reset did not end");
    }
    report.Line("reset");
}

void SyncWork(Reporter& report, uint64_t seed) {
    ChildService service;
    if (!service.Start()) report.Fail("the service did not start");
    std::mt19937_64 random(seed);
    // The network is up at start: its first event fetches the set into the empty store.
    std::vector<std::string> ids;
    if (!WaitUntil([&] { return !(ids = service.ListedIds()).empty(); }, seconds(30))) {
        report.Fail("the first sync brought nothing");
    }
    // A sub-link record answers for others; the plain ones are enough for the check.
    const Json::Value set = ParseText(ReadFile(std::string(TARVO_SOURCE_DIR) + "/data/openapi/US.json"));
    for (const Json::Value& disclaimer : set["disclaimers"]) {
        if (!disclaimer["content"]["sub_link"].asString().empty()) {
            ids.erase(std::remove(ids.begin(), ids.end(), disclaimer["id"].asString()), ids.end());
        }
    }
    Answer(service, report, random, ids, 8);
    // A new language brings the whole set again over the answered records.
    const int got = service.Got();
    vconf_set_str("db/menu_widget/language", "fr_FR.utf8");
    Json::Value request(Json::objectValue);
    request["method"] = "request update disclaimers";
    request["request_from"] = "wizard-easy";
    if (!service.Call(request)["result"].asBool()) report.Fail("the update was refused");
    Answer(service, report, random, ids, 4);
    if (!WaitUntil([&] { return service.Got() > got; }, seconds(30))) report.Fail("the update did not end");
    Answer(service, report, random, ids, 4);
}

// The restarted service's view: the mirror of the answers and the default-agreement key.
void RestartWork(Reporter& report, uint64_t) {
    auto profile = platform::LoadDeviceProfile();
    if (profile) {
        // Nothing may change the store while the test reads it.
        (*profile)["network"]["up"] = false;
        platform::SaveDeviceProfile(*profile);
    }
    ChildService service;
    if (!service.Start()) report.Fail("the service did not start again");
    report.Line("mirror " + VconfText("db/tarvodatacontrol/disclaimeragrees"));
    report.Line("default " +
                std::to_string(VconfNumber("db/menu/ostrel/tarvodatacontrol/defaultdisclaimeragree")));
}

TEST_F(PowerCut, DuringAnswersLosesNoAcknowledgedAnswer) {
    ASSERT_TRUE(WriteDisclaimerRows(m_template, PlainRows(), "en"));
    m_template.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
    RunCuts(AnswersWork, RestartWork, Cuts(90));
}

TEST_F(PowerCut, DuringAResetLeavesTheOldAnswersOrNoneAndAFinishedResetStays) {
    ASSERT_TRUE(WriteDisclaimerRows(m_template, PlainRows(), "en"));
    m_template.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
    RunCuts(ResetWork, RestartWork, Cuts(50));
}

TEST_F(PowerCut, DuringASyncAndItsUploadsLosesNoAcknowledgedAnswer) {
    StartCloud();
    RunCuts(SyncWork, RestartWork, Cuts(60));
}

}  // namespace
}  // namespace tarvo::test
