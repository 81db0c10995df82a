// A stand-in service module for host tests. It echoes each request, throws or notifies on
// request, answers with a text of a size asked for, and records the power states it is given so a test can
// read them back. Calls arrive on the host's connection threads, power callbacks on the power thread;
// g_powerMutex guards g_powerLog.
#include <Sedge/Sedge.h>
#include <bracken/ser.h>
#include <device/power.h>

#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::mutex g_powerMutex;  // guards g_powerLog
std::vector<std::string> g_powerLog;

int RecordPower(const char* kind, int state) {
    std::lock_guard<std::mutex> lock(g_powerMutex);
    g_powerLog.push_back(std::string(kind) + ":" + std::to_string(state));
    return 0;
}

int OnPowerOff(int state, void*) { return RecordPower("power-off", state); }
int OnWakeup(int state, void*) { return RecordPower("wakeup", state); }

class EchoService : public bracken::ser::Service {
  public:
    EchoService() : Service("echo") {}

  protected:
    bool OnStart() override {
        device_power_subscribe_poweroff(OnPowerOff, nullptr);
        device_power_subscribe_wakeup(OnWakeup, nullptr);
        return true;
    }
    bool OnStop() override { return true; }
};

class EchoProxy : public bracken::ser::ServiceProxy {
  public:
    EchoProxy() : ServiceProxy("echo") {}

    Sedge::TCMessage OnCallAPI(Sedge::TCMessage& message) override {
        const std::string method = message.json.get("method", "").asString();
        Sedge::TCMessage reply;
        if (method == "throw") throw std::runtime_error("echo module refuses to answer");
        if (method == "empty") return reply;
        if (method == "refuse") {
            reply.json["result"] = false;
            return reply;
        }
        if (method == "sized") {
            reply.json["text"] = std::string(message.json.get("bytes", 0).asUInt(), 'x');
            return reply;
        }
        if (method == "power-log") {
            std::lock_guard<std::mutex> lock(g_powerMutex);
            reply.json["log"] = Json::Value(Json::arrayValue);
            for (const auto& entry : g_powerLog) reply.json["log"].append(entry);
            return reply;
        }
        if (method == "read") {
            // Reads "value" as the type "as" names, as a module of another kind would.
            const std::string as = message.json["as"].asString();
            const Json::Value& value = message.json["value"];
            if (as == "int64") reply.json["read"] = static_cast<Json::Int64>(value.asInt64());
            if (as == "uint64") reply.json["read"] = static_cast<Json::UInt64>(value.asUInt64());
            if (as == "double") reply.json["read"] = value.asDouble();
            if (as == "array") reply.json["read"] = value[0];
            return reply;
        }
        if (method == "notify") {
            Sedge::TCMessage notification;
            notification.json["name"] = "echo_notified";
            notification.json["result"] = "success";
            notification.json["request"] = message.json;
            notification.type = "tarvodatacontrol";
            SendNotification(notification);
        }
        reply.json["echo"] = message.json;
        reply.json["type"] = message.type;
        return reply;
    }
};

}  // namespace

// Exported under its plain name, as a television's module does.
extern std::string g_service_name __asm__("g_service_name");
std::string g_service_name = "tarvodatacontrol";
bracken::ser::Service* g_service = new EchoService;
bracken::ser::ServiceProxy* g_service_proxy = new EchoProxy;
