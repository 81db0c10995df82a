#include "sync_fixture.h"

#include <vconf.h>

#include <cstdlib>
#include <sstream>

namespace tarvo::test {

std::vector<std::string> AgreementEntries(const std::string& text) {
    std::vector<std::string> entries;
    std::istringstream in(text);
    for (std::string entry; std::getline(in, entry, ';');) entries.push_back(entry);
    return entries;
}

void Sync::PrepareTelevision() {
    Json::Value ports;
    m_cloud = StartCloud(m_root, kSyncDuid, ports);
    ASSERT_NE(m_cloud, nullptr);
    EXPECT_EQ(ParseText(m_cloud->Stdout()), ports);
    m_openapiPort = ports["openapi"].asInt();
    m_productionPort = ports["production"].asInt();
    m_stagingPort = ports["staging"].asInt();
    m_caFile = ports["ca"].asString();
    ASSERT_TRUE(m_openapiPort > 0 && m_productionPort > 0 && m_stagingPort > 0) << ToLine(ports);
    m_admin = std::make_unique<httplib::Client>("127.0.0.1", ports["admin"].asInt());
    m_admin->set_read_timeout(10, 0);

    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = false; });
}

void Sync::StartService() {
    setenv("TARVO_ALARM_SCALE", m_alarmScale.c_str(), 1);
    setenv("TARVO_TIMEOUT_SCALE", m_timeoutScale.c_str(), 1);
    m_host = StartHost(m_root, TARVO_MODULE_PATH);
    ASSERT_NE(m_host, nullptr);
    ASSERT_TRUE(m_events.Subscribe(DefaultSocket(m_root)));
    ASSERT_TRUE(m_calls.Connect(DefaultSocket(m_root)));
    // Available once the init event has created the info service.
    ASSERT_TRUE(WaitUntil([&] { return Method("is service available")["result"].asBool(); }));
    // The network watch is set later in the same event.
    ASSERT_TRUE(WaitUntil([&] { return LogCount("Data Control Service Created Success!") == 1; }));
    // The start found no network, so nothing fetches until a test asks; the link itself comes up
    // unannounced (no dnet status), so that what a test asks for reaches the cloud.
    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
}

Json::Value Sync::Call(const Json::Value& request) {
    const auto answer = m_calls.Call(request);
    EXPECT_TRUE(answer && answer->isMember("reply")) << ToLine(request);
    return answer ? (*answer)["reply"] : Json::Value();
}

Json::Value Sync::RequestUpdate(const std::string& from) {
    Json::Value request = test::Method("request update disclaimers");
    request["request_from"] = from;
    EXPECT_TRUE(Call(request)["result"].asBool());
    return Notification("new_disclaimer_got");
}

Json::Value Sync::Notification(const std::string& name) {
    for (auto it = m_pending.begin(); it != m_pending.end(); ++it) {
        if ((*it)["name"] == name) {
            const Json::Value found = *it;
            m_pending.erase(it);
            return found;
        }
    }
    while (const auto frame = m_events.ReadFrame(std::chrono::seconds(15))) {
        const Json::Value& body = (*frame)["notification"];
        if (body["name"] == name) return body;
        m_pending.push_back(body);
    }
    ADD_FAILURE() << "no notification " << name;
    return Json::Value();
}

std::map<std::string, Json::Value> Sync::Listed() {
    Json::Value request = ParseText(R"({"method": "get disclaimer number", "requester": 4})");
    const unsigned number = Call(request)["number"].asUInt();
    request["method"] = "get disclaimer by order";
    std::map<std::string, Json::Value> listed;
    for (unsigned i = 0; i < number; ++i) {
        request["request_index"] = i;
        const Json::Value reply = Call(request);
        listed[reply["id"].asString()] = reply;
    }
    return listed;
}

void Sync::Agree(const std::vector<std::string>& ids, bool agreed) {
    Json::Value request = ParseText(R"({"method": "set agreements"})");
    for (const auto& id : ids) {
        Json::Value item(Json::objectValue);
        item["request_item"] = id;
        item["is_agreed"] = agreed;
        request["agreements"].append(item);
    }
    Call(request);
    Notification("new_disclaimer_agree_changed");
}

// As the network manager does: the profile first, then the status key the service watches.
void Sync::BringNetworkUp() {
    m_root.EditProfile([](Json::Value& profile) { profile["network"]["up"] = true; });
    ASSERT_EQ(vconf_set_int("memory/dnet/status", 3), 0);
}

void Sync::SetVconf(const std::string& key, const std::string& value) {
    ASSERT_EQ(vconf_set_str(key.c_str(), value.c_str()), 0) << key;
}

Json::Value Sync::Admin(const std::string& path) {
    const auto answer = m_admin->Get(path);
    EXPECT_TRUE(answer) << path;
    return answer ? ParseText(answer->body) : Json::Value();
}

Json::Value Sync::CloudRequests(const std::string& method) {
    Json::Value requests(Json::arrayValue);
    for (const Json::Value& request : Admin("/admin/requests")) {
        if (request["method"] == method) requests.append(request);
    }
    return requests;
}

std::map<std::string, std::string> Sync::Reported(const std::string& deployment) {
    std::map<std::string, std::string> terms;
    const Json::Value record = CloudAgreements()[deployment][kSyncDuid]["terms"];
    for (const auto& id : record.getMemberNames()) terms[id] = record[id]["agree"].asString();
    return terms;
}

void Sync::Fault(const std::string& json) {
    m_admin->Delete("/admin/fault");
    const auto set = m_admin->Post("/admin/fault", json, "application/json");
    ASSERT_TRUE(set && set->status == 200) << json;
}

void Sync::Publish(const std::string& json) {
    const auto published = m_admin->Post("/admin/publish", json, "application/json");
    ASSERT_TRUE(published && published->status == 200) << json;
}

Json::Value DataSet(const std::string& country) {
    return ParseText(ReadFile(std::string(TARVO_SOURCE_DIR) + "/data/openapi/" + country + ".json"));
}

Json::Value DataDisclaimer(const std::string& country, const std::string& id) {
    const Json::Value set = DataSet(country);
    for (const auto& disclaimer : set["disclaimers"]) {
        if (disclaimer["id"] == id) return disclaimer;
    }
    return Json::Value();
}

}  // namespace tarvo::test
