// The service in the host against tarvo-cloud on loopback: the network is down at start and comes
// up unannounced once the service runs (nothing fetches until a test asks); the profile points at
// the cloud's HTTPS servers and CA; one connection collects notifications, one makes calls.
#pragma once

#include "host_client.h"
#include "process.h"
#include "tarvo_test.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tarvo::test {

constexpr const char* kSyncDuid = "DUID-SYNC-TEST";

class Sync : public ::testing::Test {
  protected:
    void SetUp() override {
        PrepareTelevision();
        StartService();
    }

    // Starts the cloud and sets the device values the service needs to reach it.
    void PrepareTelevision();
    // Starts the host with short alarms and time-outs and waits for the service to be available;
    // then brings the link up without announcing it.
    void StartService();

    Json::Value Call(const Json::Value& request);
    Json::Value Method(const std::string& method) { return Call(test::Method(method)); }
    // "request update disclaimers" from `from`, then the "new_disclaimer_got" it leads to.
    Json::Value RequestUpdate(const std::string& from);
    // The next notification named `name`; others that come first are kept for later.
    Json::Value Notification(const std::string& name);
    // Every disclaimer the store holds for requester 4, by id.
    std::map<std::string, Json::Value> Listed();
    // Answers `ids` in one list and takes the change notification that follows.
    void Agree(const std::vector<std::string>& ids, bool agreed = true);
    void BringNetworkUp();
    void SetVconf(const std::string& key, const std::string& value);

    // The requests the cloud received with `method`, oldest first. Fetches by default: the answers'
    // uploads (PUT) may reach the cloud at any time after a change, and are counted apart.
    Json::Value CloudRequests(const std::string& method = "GET");
    void ClearCloudRequests() { ASSERT_TRUE(m_admin->Delete("/admin/requests")); }
    // {"production": {DUID: {...}}, "staging": {...}}: the uploads the cloud accepted.
    Json::Value CloudAgreements() { return Admin("/admin/agreements"); }
    // The answers the cloud holds for this television in `deployment`, as id -> "Y"/"N".
    std::map<std::string, std::string> Reported(const std::string& deployment = "production");
    // Every usage event the cloud's log servers received, oldest first.
    Json::Value CloudLogEvents() { return Admin("/admin/log-events"); }
    void ClearCloudLogEvents() { ASSERT_TRUE(m_admin->Delete("/admin/log-events")); }
    // The cloud's admin answer to a GET of `path`.
    Json::Value Admin(const std::string& path);
    void Fault(const std::string& json);
    void Publish(const std::string& json);
    size_t LogCount(const std::string& text) const { return test::LogCount(m_root, text); }
    RunResult Ctl(const std::vector<std::string>& args) { return RunCtl(m_root, args); }

    TempRoot m_root;
    std::string m_alarmScale = "0.05";
    std::string m_timeoutScale = "0.2";
    std::unique_ptr<ChildProcess> m_cloud;
    std::unique_ptr<ChildProcess> m_host;
    int m_openapiPort = 0;
    int m_productionPort = 0;
    int m_stagingPort = 0;
    std::string m_caFile;
    std::unique_ptr<httplib::Client> m_admin;
    HostClient m_events;
    HostClient m_calls;
    std::deque<Json::Value> m_pending;
};

// The bundled data set of `country`, and one disclaimer of it.
Json::Value DataSet(const std::string& country);
Json::Value DataDisclaimer(const std::string& country, const std::string& id);
// "a:false;b:true;" as its entries.
std::vector<std::string> AgreementEntries(const std::string& text);

}  // namespace tarvo::test
