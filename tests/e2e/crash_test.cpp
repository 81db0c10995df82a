// The host killed with SIGKILL at random moments while clients answer, syncs merge and uploads
// run: after every kill the store file is whole and holds each answer whose call had returned, the
// restart rebuilds its vconf mirror from it, and what the cloud never got is reported.
#include "disclaimer_rows.h"
#include "sync_fixture.h"

#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

namespace tarvo {
namespace test {
namespace {

constexpr int kKills = 55;
// Each client answers its own records, so the last acknowledged value of each is known.
const std::vector<std::vector<std::string>> kOwnedIds = {
    {"tnc", "viewing"}, {"pp", "billing"}, {"voice_new", "uhd_video"}};
// Gets a new version in every cycle, so that the cycle's sync writes rows; none of the answered
// records is republished, since a new version of those takes the answer of its snapshot.
constexpr char kRepublished[] = "nuance";

// One client's records: the last value the host acknowledged, and the one sent without a reply,
// which the host may or may not have stored before it died.
struct Answers {
    std::map<std::string, bool> acked;
    std::map<std::string, std::optional<bool>> pending;
};

class Crash : public Sync {
  protected:
    void SetUp() override {
        PrepareTelevision();
        m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
        setenv("TARVO_ALARM_SCALE", m_alarmScale.c_str(), 1);
        setenv("TARVO_TIMEOUT_SCALE", "0.2", 1);
        ASSERT_TRUE(Spawn() && WaitReady());
        // The start on a live network fills the store.
        ASSERT_TRUE(WaitUntil([&] { return Listed().count(kRepublished) == 1; }, std::chrono::seconds(20)));
        m_answers.resize(kOwnedIds.size());
        for (size_t k = 0; k < kOwnedIds.size(); ++k) {
            for (const auto& id : kOwnedIds[k]) {
                ASSERT_TRUE(ById(id)["result"].asBool()) << id << " must be available on this set";
                m_answers[k].acked[id] = false;
            }
        }
    }

    bool Spawn() {
        m_host = std::make_unique<ChildProcess>(
            std::vector<std::string>{TARVO_HOST_BIN, "--module", TARVO_MODULE_PATH, "--root", m_root.Path()},
            std::map<std::string, std::string>{}, m_root.Path() + "/host");
        return m_host->Started();
    }

    // The socket answers and the init event has run the store's start.
    bool WaitReady() {
        const Json::Value available = ParseText(R"({"method": "is service available"})");
        return WaitUntil(
            [&] {
                if (!m_host->Running() || !m_calls.Connect(DefaultSocket(m_root))) return false;
                const auto answer = m_calls.Call(available);
                return answer && (*answer)["reply"]["result"].asBool();
            },
            std::chrono::seconds(20));
    }

    void Kill() {
        ASSERT_TRUE(m_host->Signal(SIGKILL));
        ASSERT_TRUE(m_host->Wait(std::chrono::seconds(10)));
        ++m_kills;
    }

    Json::Value ById(const std::string& id) {
        Json::Value request = ParseText(R"({"method": "get disclaimer by term id"})");
        request["request_item"] = id;
        return Call(request);
    }

    // Sets answers on one connection, each the opposite of its last, until the host dies.
    void AnswerUntilKilled(size_t client) {
        HostClient connection;
        if (!connection.Connect(DefaultSocket(m_root))) return;
        Answers& answers = m_answers[client];
        for (size_t i = 0;; ++i) {
            const std::string& id = kOwnedIds[client][i % kOwnedIds[client].size()];
            const bool value = !answers.acked[id];
            Json::Value request = ParseText(R"({"method": "set one agreement"})");
            request["request_item"] = id;
            request["is_agreed"] = value;
            answers.pending[id] = value;
            const auto reply = connection.Call(request);
            if (!reply) return;
            EXPECT_TRUE((*reply)["reply"]["result"].asBool()) << ToLine(*reply);
            answers.acked[id] = value;
            answers.pending[id].reset();
            ++m_acknowledged;
        }
    }

    // Reads the file of the dead host. A reader beside a running host makes the host's write fail
    // at once, and its statement then skips its next write as well: a check made there would
    // itself lose answers. Read-write, so that SQLite rolls back what the kill left half-written,
    // as the host's next open would.
    std::vector<std::string> QueryDeadStore(const std::string& sql) {
        EXPECT_FALSE(m_host->Running());
        std::vector<std::string> values;
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(StoreFile(m_root).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open " << StoreFile(m_root);
            sqlite3_close(db);
            return values;
        }
        auto collect = [](void* out, int, char** columns, char**) {
            static_cast<std::vector<std::string>*>(out)->push_back(columns[0] ? columns[0] : "<null>");
            return 0;
        };
        if (sqlite3_exec(db, sql.c_str(), collect, &values, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << "query failed: " << sql << ": " << sqlite3_errmsg(db);
        }
        sqlite3_close(db);
        return values;
    }

    // After a kill, before the restart: the file is whole and holds every acknowledged answer (or
    // the newer one sent without a reply).
    void CheckStore() {
        EXPECT_EQ(QueryDeadStore("PRAGMA integrity_check"), std::vector<std::string>{"ok"});
        m_stored.clear();
        for (const std::string& row :
             QueryDeadStore("SELECT ifnull(isAgreed, 0) || id FROM table_tarvo_data_disclaimer_info")) {
            m_stored[row.substr(1)] = row[0] == '1';
        }
        for (Answers& answers : m_answers) {
            for (auto& [id, acked] : answers.acked) {
                const auto stored = m_stored.find(id);
                const bool kept = stored != m_stored.end() &&
                                  (stored->second == acked || stored->second == answers.pending[id]);
                if (!kept) ++m_lost;
                EXPECT_TRUE(kept) << id << " acknowledged as " << acked << " before kill " << m_kills;
                if (stored != m_stored.end()) acked = stored->second;
                answers.pending[id].reset();
                ++m_checked;
            }
        }
    }

    // After the restart: the mirror the start rebuilt agrees with the table.
    void CheckMirror() {
        const Json::Value mirror = ParseText(VconfText("db/tarvodatacontrol/disclaimeragrees"));
        for (const auto& answers : m_answers) {
            for (const auto& [id, acked] : answers.acked) {
                EXPECT_EQ(mirror[id], acked ? "true" : "false") << id << " after kill " << m_kills;
            }
        }
        for (const auto& id : mirror.getMemberNames()) {
            EXPECT_EQ(mirror[id] == "true", m_stored.count(id) == 1 && m_stored.at(id)) << id;
        }
    }

    std::vector<Answers> m_answers;
    std::map<std::string, bool> m_stored;
    std::atomic<int> m_acknowledged{0};
    int m_kills = 0;
    int m_checked = 0;
    int m_lost = 0;
};

TEST_F(Crash, KilledAtRandomTheStoreKeepsEveryAcknowledgedAnswerAndReportsTheUnreported) {
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    std::printf("seed %u\n", seed);
    Kill();
    for (int cycle = 0; cycle < kKills; ++cycle) {
        CheckStore();
        ASSERT_TRUE(Spawn());
        if (cycle % 10 == 9) {
            // Somewhere in the start: the store's open and checks, the mirror's rebuild, the first sync.
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 150));
            Kill();
            continue;
        }
        ASSERT_TRUE(WaitReady()) << m_host->Stderr();
        CheckMirror();
        std::vector<std::thread> clients;
        for (size_t k = 0; k < kOwnedIds.size(); ++k)
            clients.emplace_back([this, k] { AnswerUntilKilled(k); });
        // A wake-up on a live network syncs a new version beside the clients and their uploads.
        Publish(R"({"id": ")" + std::string(kRepublished) + R"(", "version": ")" + std::to_string(cycle + 2) +
                R"(.0"})");
        m_calls.Control("wakeup");
        std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 300));
        Kill();
        for (auto& client : clients) client.join();
    }

    // An answer the agreement server refused dies with the host unreported; the next start sends
    // it with every other answer.
    Fault(R"({"path": "agreement", "kind": "http_status", "status": 503})");
    CheckStore();
    ASSERT_TRUE(Spawn());
    ASSERT_TRUE(WaitReady()) << m_host->Stderr();
    CheckMirror();
    const bool agreed = Reported()["tnc"] != "Y";
    for (bool value : {!agreed, agreed}) {
        Json::Value request = ParseText(R"({"method": "set one agreement", "request_item": "tnc"})");
        request["is_agreed"] = value;
        ASSERT_TRUE(Call(request)["result"].asBool());
    }
    m_answers[0].acked["tnc"] = agreed;
    Kill();
    EXPECT_NE(Reported()["tnc"], agreed ? "Y" : "N");
    m_admin->Delete("/admin/fault");
    CheckStore();
    ASSERT_TRUE(Spawn());
    ASSERT_TRUE(WaitReady()) << m_host->Stderr();
    CheckMirror();
    std::map<std::string, std::string> expected;
    for (const auto& answers : m_answers) {
        for (const auto& [id, acked] : answers.acked) expected[id] = acked ? "Y" : "N";
    }
    EXPECT_TRUE(WaitUntil(
        [&] {
            auto reported = Reported();
            return std::all_of(expected.begin(), expected.end(),
                               [&](const auto& entry) { return reported[entry.first] == entry.second; });
        },
        std::chrono::seconds(20)))
        << ToLine(CloudAgreements());

    std::printf("kills %d, answers acknowledged %d, answers checked %d, answers lost: %d\n", m_kills,
                m_acknowledged.load(), m_checked, m_lost);
    EXPECT_GE(m_kills, 50);
    EXPECT_EQ(m_lost, 0);
}

}  // namespace
}  // namespace test
}  // namespace tarvo
