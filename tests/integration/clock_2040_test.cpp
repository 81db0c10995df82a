// The television's wall clock set past 2038: the requests' timestamps stay right where time_t is
// 64 bits, a 32-bit ARM build included. The clock is moved for this process by an interposed
// gettimeofday (on a 32-bit build with 64-bit time_t the header gives it its 64-bit name).
#include <TarvoKelvaneConnector.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/time.h>
#include <vconf.h>

#include <atomic>
#include <ctime>
#include <mutex>
#include <regex>
#include <thread>

#include "tarvo_test.h"

namespace {

// Seconds added to the wall clock; 0 leaves every other test of this program on the real clock.
std::atomic<long long> g_clockShift{0};

}  // namespace

extern "C" int gettimeofday(struct timeval* __restrict tv, void* __restrict) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tv->tv_sec = static_cast<time_t>(now.tv_sec + g_clockShift.load());
    tv->tv_usec = static_cast<decltype(tv->tv_usec)>(now.tv_nsec / 1000);
    return 0;
}

namespace {

constexpr long long k2040 = 2208988800LL;  // 2040-01-01T00:00:00Z

class Clock2040 : public ::testing::Test {
  protected:
    void SetUp() override {
        m_server.Get(".*", [this](const httplib::Request& req, httplib::Response& res) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_targets.push_back(req.target);
            }
            res.set_content(R"({"rsp":{"stat":"ok"}})", "application/json");
        });
        const int port = m_server.bind_to_any_port("127.0.0.1");
        ASSERT_GT(port, 0);
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        ASSERT_TRUE(tarvo::test::WaitUntil([this] { return m_server.is_running(); }));
        const std::string domain = "http://127.0.0.1:" + std::to_string(port);
        ASSERT_EQ(0, vconf_set_str("db/nimbra/gpmurl/apps", domain.c_str()));
        ASSERT_EQ(0, vconf_set_str("db/nimbra/countrycode", "US"));
        ASSERT_EQ(0, vconf_set_str("db/nimbra/modelid", "TRV55"));
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        g_clockShift = k2040 - static_cast<long long>(now.tv_sec);
    }

    void TearDown() override {
        g_clockShift = 0;
        CTarvoKelvaneConnector::ReleaseConnector();
        m_server.stop();
        if (m_thread.joinable()) m_thread.join();
    }

    std::vector<std::string> Targets() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_targets;
    }

    tarvo::test::TempRoot m_root;
    httplib::Server m_server;
    std::thread m_thread;
    std::mutex m_mutex;  // guards m_targets
    std::vector<std::string> m_targets;
};

TEST_F(Clock2040, ARequestMadeIn2040CarriesThatSecondAsItsTimestamp) {
    ASSERT_TRUE(CTarvoKelvaneConnector::RequestGetXMLData(TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE));
    const auto targets = Targets();
    ASSERT_EQ(1u, targets.size());
    std::smatch m;
    ASSERT_TRUE(std::regex_search(targets[0], m, std::regex("&timestamp=(-?[0-9]+)&"))) << targets[0];
    const long long stamp = std::stoll(m[1]);
    EXPECT_GE(stamp, k2040) << targets[0];
    EXPECT_LE(stamp, k2040 + 120) << targets[0];
}

}  // namespace
