// scripts/run.sh as a developer runs it (without its package and build steps): the television,
// the cloud and the screens come up on a fresh root, tarvoctl's tour walks the whole road, and
// a stop of the script's process group leaves no process behind; the cloud's published version
// outlives a restart.
#include <signal.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "process.h"
#include "sync_fixture.h"

namespace tarvo::test {
namespace {

namespace fs = std::filesystem;

// The build tree the test binaries come from, which holds the binaries run.sh starts.
const fs::path kBuildDir = fs::path(TARVO_CLOUD_BIN).parent_path().parent_path();

// The members of process group `group` that have not exited, by pid with their names.
std::map<pid_t, std::string> GroupMembers(pid_t group) {
    std::map<pid_t, std::string> members;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string stat = ReadFile(entry.path() / "stat");
        const size_t open = stat.find('('), close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos) continue;
        std::istringstream rest(stat.substr(close + 1));
        char state = 0;
        pid_t parent = 0, pgrp = 0;
        rest >> state >> parent >> pgrp;
        if (pgrp == group && state != 'Z') members[std::stoi(name)] = stat.substr(open + 1, close - open - 1);
    }
    return members;
}

bool Alive(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && stat.size() > close + 2 && stat[close + 2] != 'Z';
}

// run.sh in a process group of its own, as a terminal starts it; the group is killed if the test
// ends without stopping it.
class RunScript {
  public:
    RunScript(const std::string& root, const std::string& log) {
        std::map<std::string, std::string> env = {{"TARVO_ROOT", root},
                                                  {"TARVO_RUN_SKIP_BUILD", "1"},
                                                  {"TARVO_RUN_BUILD_DIR", kBuildDir.string()},
                                                  {"TARVO_LOG_STDERR", "0"}};
        for (const char* port : {"OPENAPI", "ADMIN", "PRODUCTION", "STAGING", "SCREEN"})
            env[std::string("TARVO_") + port + "_PORT"] = "0";
        m_script = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/bin/bash", std::string(TARVO_SOURCE_DIR) + "/scripts/run.sh"}, env,
            log, true);
    }
    ~RunScript() {
        if (Pid() <= 0) return;
        kill(-Pid(), SIGKILL);
        m_script->Wait(std::chrono::seconds(10));
        WaitUntil([&] { return GroupMembers(Pid()).empty(); });
    }
    RunScript(const RunScript&) = delete;
    RunScript& operator=(const RunScript&) = delete;

    pid_t Pid() const { return m_script->Pid(); }

    // Signals the whole group, as Ctrl-C or a terminal's hang-up does; true once the script has
    // ended and no member of its group is left.
    bool Stop(int signal_number) {
        if (Pid() <= 0) return false;
        kill(-Pid(), signal_number);
        return m_script->Wait(std::chrono::seconds(15)) &&
               WaitUntil([&] { return GroupMembers(Pid()).empty(); }, std::chrono::seconds(10));
    }

  private:
    std::unique_ptr<ChildProcess> m_script;
};

class RunScriptTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(fs::exists(kBuildDir / "tools/tarvo-screen")) << "build tarvo-screen in " << kBuildDir;
        // run.sh gives the television its profile from data/devices/.
        fs::remove(m_root.At("/etc/tarvo/device.json"));
    }

    RunResult Ctl(const std::vector<std::string>& words,
                  std::chrono::seconds limit = std::chrono::seconds(30)) {
        return RunCtl(m_root, words, limit);
    }

    // Starts run.sh and waits until the host serves and the cloud has written its ports.
    std::unique_ptr<RunScript> Start() {
        auto script =
            std::make_unique<RunScript>(m_root.Path(), m_root.Path() + "/run-" + std::to_string(++m_runs));
        EXPECT_GT(script->Pid(), 0);
        EXPECT_TRUE(WaitUntil([&] { return Ctl({"ping"}).exit_code == 0; }, std::chrono::seconds(30)));
        const Json::Value ports = ParseText(ReadFile(m_root.At("/run/cloud.json")));
        m_admin = std::make_unique<httplib::Client>("127.0.0.1", ports["admin"].asInt());
        m_admin->set_read_timeout(10, 0);
        return script;
    }

    Json::Value Admin(const std::string& path) {
        const auto answer = m_admin->Get(path);
        return answer && answer->status == 200 ? ParseText(answer->body) : Json::Value();
    }

    TempRoot m_root;
    std::unique_ptr<httplib::Client> m_admin;
    int m_runs = 0;
};

TEST_F(RunScriptTest, TourWalksTheRoadAndTheScriptLeavesNothingBehind) {
    auto script = Start();
    const auto members = GroupMembers(script->Pid());
    std::set<std::string> names;
    for (const auto& [pid, name] : members) names.insert(name);
    // The kernel keeps 15 characters of a name.
    for (const char* name : {"tarvo-service-h", "tarvo-cloud", "tarvo-screen"})
        EXPECT_EQ(names.count(name), 1u) << name;

    const RunResult tour = Ctl({"tour", "--yes"}, std::chrono::seconds(60));
    ASSERT_EQ(tour.exit_code, 0) << tour.out << tour.err;

    // The tour ends on a set fetched anew after the reset: the published version, no answers.
    std::set<std::string> listed;
    std::istringstream lines(Ctl({"--json", "list"}).out);
    for (std::string line; std::getline(lines, line);) {
        const Json::Value d = ParseText(line);
        listed.insert(d["id"].asString());
        EXPECT_FALSE(d["is_agreed"].asBool()) << line;
        if (d["id"] == "viewing") {
            EXPECT_EQ(d["version"], "2.1");
        }
    }
    EXPECT_EQ(listed.count("viewing"), 1u);
    EXPECT_EQ(VconfText("db/menu_widget/language"), "en_US.utf8");
    // The cloud holds the answers the reset took back.
    Json::Value record;
    EXPECT_TRUE(WaitUntil([&] {
        record = Admin("/admin/agreements")["production"]["TVDUID0000000001"];
        return record["terms"]["tnc"]["agree"] == "N" && record["terms"]["pp"]["agree"] == "N";
    })) << record;

    ASSERT_TRUE(script->Stop(SIGTERM)) << "left: " << GroupMembers(script->Pid()).size();
    for (const auto& [pid, name] : members) EXPECT_FALSE(Alive(pid)) << name;
    EXPECT_EQ(Ctl({"tour", "--yes"}).exit_code, 3);

    // A second run on the root serves the version the first one published.
    script = Start();
    const Json::Value data = Admin("/admin/data");
    Json::Value viewing;
    for (const auto& d : data["US"]["disclaimers"]) {
        if (d["id"] == "viewing") viewing = d;
    }
    EXPECT_EQ(viewing["version"], "2.1");
    EXPECT_TRUE(script->Stop(SIGINT));
}

// --help tells the usage, the stages and how long they take, and starts nothing (test.sh once
// started the whole suite); an unknown argument is a usage error.
TEST(Scripts, EachAnswersHelpWithItsStagesAndDurationAndStartsNothing) {
    TempRoot root;
    const std::string untouched = root.Path() + "/untouched";
    const std::map<std::string, std::string> env = {
        {"TARVO_ROOT", untouched}, {"TARVO_FUZZ_BUILD", untouched}, {"TARVO_RUN_BUILD_DIR", untouched}};
    int runs = 0;
    const auto run = [&](const std::string& script, const std::string& argument) {
        return RunProgram({"/bin/bash", std::string(TARVO_SOURCE_DIR) + "/scripts/" + script, argument}, env,
                          root.Path() + "/run-" + std::to_string(++runs), std::chrono::seconds(10));
    };
    for (const char* script : {"run.sh", "test.sh", "deps.sh", "fuzz.sh", "valgrind.sh"}) {
        SCOPED_TRACE(script);
        for (const char* help : {"--help", "-h"}) {
            const RunResult shown = run(script, help);
            EXPECT_EQ(shown.exit_code, 0) << shown.err;
            EXPECT_NE(shown.out.find("scripts/" + std::string(script)), std::string::npos) << shown.out;
            EXPECT_NE(shown.out.find("Stages"), std::string::npos) << shown.out;
            EXPECT_NE(shown.out.find("Duration"), std::string::npos) << shown.out;
        }
        EXPECT_EQ(run(script, "--no-such-option").exit_code, 2);
    }
    EXPECT_FALSE(fs::exists(untouched));
}

}  // namespace
}  // namespace tarvo::test
