// The real service in tarvo-service-host over damaged or misplaced files: each start ends as the
// store's rules say, and the host stays up and answers whatever the files held.
#include "disclaimer_rows.h"
#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace tarvo::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kServiceDir = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service";
constexpr const char* kStarted = "Data Control Service Created Success!";
constexpr const char* kStoreFailed = "Initialize internal data fail!";

// A store file in good order with two records, as a set holds it after a sync.
void WriteStore(const TempRoot& root) {
    DisclaimerRow pp{"pp", 2};
    pp.details = std::string(6000, 'p');  // a few pages, so that cuts fall between them
    ASSERT_TRUE(WriteDisclaimerRows(root, {DisclaimerRow{"tnc", 1}, pp}, "en"));
}

void Truncate(const TempRoot& root, long length) {
    const std::string file = StoreFile(root);
    ASSERT_EQ(0,
              truncate(file.c_str(), length < 0 ? static_cast<long>(fs::file_size(file)) + length : length));
}

// What the clone-in at start finds waiting beside the store file.
std::string WaitingClone(const TempRoot& root) { return StoreFile(root) + "_clone"; }

class DamagedFiles : public ::testing::Test {
  protected:
    // Starts the host on `root` and waits until the start event has run to either end.
    void Start(const TempRoot& root) {
        const size_t ended = LogCount(root, kStarted) + LogCount(root, kStoreFailed);
        m_host = StartHost(root, TARVO_MODULE_PATH);
        ASSERT_NE(m_host, nullptr);
        m_client = std::make_unique<HostClient>();
        ASSERT_TRUE(m_client->Connect(DefaultSocket(root)));
        ASSERT_TRUE(
            WaitUntil([&] { return LogCount(root, kStarted) + LogCount(root, kStoreFailed) > ended; }));
    }

    void Stop() {
        m_client.reset();
        m_host.reset();
    }

    // The service's answer to "is service available"; the host must also answer a ping.
    bool Available() {
        const auto pong = m_client->Control("ping");
        EXPECT_TRUE(pong && (*pong)["ok"].asBool());
        const auto answer = m_client->Call(Method("is service available"));
        EXPECT_TRUE(answer && (*answer)["reply"]["result"].isBool());
        return answer && (*answer)["reply"]["result"].asBool();
    }

    std::unique_ptr<ChildProcess> m_host;
    std::unique_ptr<HostClient> m_client;
};

TEST_F(DamagedFiles, EachStartEndsAsTheStoreRulesSayAndTheHostKeepsAnswering) {
    const struct {
        const char* what;
        std::function<void(const TempRoot&)> damage;
        bool availableFirst;   // the store could be brought into use at the first start
        bool availableSecond;  // and at the next start, after what the first one did to the file
    } cases[] = {
        // An empty file is an empty database: the tables are made anew.
        {"store cut to nothing", [](const TempRoot& r) { Truncate(r, 0); }, true, true},
        // A damaged head fails one start and is gone at the next; a cut last page leaves it sound.
        {"store cut inside its header", [](const TempRoot& r) { Truncate(r, 50); }, false, true},
        {"store cut inside its last page", [](const TempRoot& r) { Truncate(r, -100); }, true, true},
        {"store overwritten with random bytes",
         [](const TempRoot& r) {
             std::mt19937 random(7);
             std::string noise(fs::file_size(StoreFile(r)), '\0');
             for (char& byte : noise) byte = static_cast<char>(random());
             WriteFile(StoreFile(r), noise);
         },
         false, true},
        // Neither removed as a file nor opened: every start fails.
        {"a directory in the store file's place",
         [](const TempRoot& r) {
             fs::remove(StoreFile(r));
             fs::create_directory(StoreFile(r));
         },
         false, false},
        {"a regular file where the data directory's parent must be",
         [](const TempRoot& r) {
             fs::remove_all(r.At(kServiceDir));
             WriteFile(r.At(kServiceDir), "not a directory");
         },
         false, false},
        // The clone takes the store's place at the next opening and meets the same checks.
        {"a clone that is no database",
         [](const TempRoot& r) { WriteFile(WaitingClone(r), std::string(3000, 'c')); }, false, true},
        // Tables of the right names but other columns: unreadable records leave the store empty.
        {"a clone whose disclaimer table has other columns",
         [](const TempRoot& r) {
             ExecFile(WaitingClone(r),
                      "CREATE TABLE table_tarvo_data_control_info (key int not null primary key, value text);"
                      "INSERT INTO table_tarvo_data_control_info VALUES (2, '1.0');"
                      "CREATE TABLE table_tarvo_data_disclaimer_info (id text primary key, body blob);"
                      "INSERT INTO table_tarvo_data_disclaimer_info VALUES ('tnc', x'00ff');");
         },
         true, true},
        // A version that cannot be read throws the content away.
        {"a clone whose info table has other columns",
         [](const TempRoot& r) {
             ExecFile(WaitingClone(r),
                      "CREATE TABLE table_tarvo_data_control_info (name text, number int);"
                      "CREATE TABLE table_tarvo_data_disclaimer_info (id text);");
         },
         true, true},
        // Everything the platform reads from a file that is no JSON reads as missing.
        {"a device profile that is no JSON",
         [](const TempRoot& r) { WriteFile(r.At("/etc/tarvo/device.json"), "{\"network\": {\"up\": fal"); },
         true, true},
        {"vconf key files that are no JSON",
         [](const TempRoot& r) {
             for (const char* key :
                  {"db/tarvodatacontrol/data_db_reset", "db/tarvodatacontrol/disclaimeragrees",
                   "db/nimbra/countrycode", "db/menu_widget/language"}) {
                 WriteFile(r.At(std::string("/var/vconf/") + key), "{\"type\": \"int\", \"value\": ");
             }
             WriteFile(r.At("/run/vconf/memory/dnet/status"), "{\"type\": ");
             // Deeper than the JSON reader goes: it throws rather than answers.
             WriteFile(r.At("/var/vconf/db/nimbra/modelid"), std::string(5000, '[') + std::string(5000, ']'));
         },
         true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempRoot root;
        root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
        WriteStore(root);
        c.damage(root);

        ASSERT_NO_FATAL_FAILURE(Start(root));
        EXPECT_EQ(c.availableFirst, Available());
        Stop();
        ASSERT_NO_FATAL_FAILURE(Start(root));
        EXPECT_EQ(c.availableSecond, Available());
        EXPECT_TRUE(m_host->Running());
        Stop();
        if (c.availableSecond) {
            EXPECT_EQ(QueryStore(root, "SELECT value FROM table_tarvo_data_control_info WHERE key=2"),
                      std::vector<std::string>{"1.0"});
        }
    }
}

TEST_F(DamagedFiles, ACountryListTheJsonLibraryCannotWalkStillTellsItsOutcome) {
    TempRoot root;
    root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
    ASSERT_NO_FATAL_FAILURE(Start(root));
    HostClient listener;
    ASSERT_TRUE(listener.Subscribe(DefaultSocket(root)));

    const std::string deep = R"({"rsp": )" + std::string(5000, '[') + std::string(5000, ']') + "}";
    const std::pair<std::string, const char*> cases[] = {
        {"<html>no list</html>", "fail"},
        {R"({"rsp": "ok"})", "fail"},
        {R"({"rsp": [1]})", "fail"},
        {deep, "fail"},
        // Elements that are no objects are passed over like any other bad element.
        {R"({"rsp": {"stat": "ok", "modelId": "M", "countriesList": [5, "FR", [],
            {"countryCode": "US", "countryName": "United States"}]}})",
         "success"},
    };
    for (const auto& [list, result] : cases) {
        root.EditProfile([&list = list](Json::Value& profile) {
            profile["country_list"] = list;
            profile["term_error"] = "33";
        });
        ASSERT_TRUE(m_client->Call(Method("request country code list")));
        const auto frame = listener.ReadFrame();
        ASSERT_TRUE(frame && frame->isMember("notification")) << list.substr(0, 60);
        const Json::Value& got = (*frame)["notification"];
        EXPECT_EQ(got["name"], "new_country_list_got");
        EXPECT_EQ(got["result"], result) << list.substr(0, 60);
        if (list[0] == '<') {  // a failed fetch names the platform's error
            EXPECT_EQ(got["error_code"], 33);
            EXPECT_EQ(got["error_reason"], 1);
        }
    }
    const auto countries = m_client->Call(Method("get country code list"));
    ASSERT_TRUE(countries);
    EXPECT_EQ((*countries)["reply"]["countries"].size(), 1u);
    EXPECT_TRUE(Available());
}

}  // namespace
}  // namespace tarvo::test
