// The log server: batches of usage events that a television's log client POSTs as JSON.
#include "deployment_servers.h"

#include "json_text.h"

#include <cstdio>

namespace tarvo {
namespace cloud {

namespace {

constexpr const char* kJson = "application/json";

void ReplyError(httplib::Response& res, int status, const std::string& error) {
    Json::Value body(Json::objectValue);
    body["ok"] = false;
    body["error"] = error;
    res.status = status;
    res.set_content(CompactJson(body) + "\n", kJson);
}

// Empty when `batch` is {"service": text, "header": {...}, "events": [{name, time, category,
// value, desc}, ...]} with text in every event field, else the reason.
std::string CheckBatch(const Json::Value& batch) {
    if (!batch.isObject()) return "the batch must be a JSON object";
    if (!batch["service"].isString() || batch["service"].asString().empty()) {
        return "the batch needs a non-empty string \"service\"";
    }
    if (!batch["header"].isObject()) return "the batch needs an object \"header\"";
    if (!batch["events"].isArray()) return "the batch needs an array \"events\"";
    for (Json::ArrayIndex i = 0; i < batch["events"].size(); ++i) {
        const Json::Value& event = batch["events"][i];
        for (const char* key : {"name", "time", "category", "value", "desc"}) {
            if (!event.isObject() || !event[key].isString()) {
                return "event " + std::to_string(i) + " needs a string \"" + key + "\"";
            }
        }
    }
    return "";
}

}  // namespace

void AnswerLogBatch(CloudContext& context, const std::string& deployment, const httplib::Request& req,
                    httplib::Response& res) {
    if (req.method != "POST") {
        ReplyError(res, 405, "the log server takes POST, not " + req.method);
        return;
    }
    if (const std::optional<Fault> fault = context.faults.Take("log")) {
        if (fault->kind == FaultKind::kDelay) {
            if (!context.stop.WaitFor(std::chrono::milliseconds(fault->delay_ms))) {
                ReplyError(res, 503, "the cloud is shutting down");
                return;
            }
        } else {
            std::fprintf(stderr, "tarvo-cloud: %s log batch on %s answered by the fault %s, not recorded\n",
                         deployment.c_str(), req.path.c_str(),
                         FaultToJson(*fault)["kind"].asString().c_str());
            if (fault->kind == FaultKind::kDrop) {
                DropConnection(req);
            } else {
                ReplyError(res, fault->status, HttpStatusText(fault->status));
            }
            return;
        }
    }
    Json::Value batch;
    std::string error;
    if (!ParseJson(req.body, &batch, &error)) {
        error = "the body is no JSON: " + error;
    } else {
        error = CheckBatch(batch);
    }
    if (!error.empty()) {
        std::fprintf(stderr, "tarvo-cloud: %s log batch on %s refused: %s\n", deployment.c_str(),
                     req.path.c_str(), error.c_str());
        ReplyError(res, 400, error);
        return;
    }
    context.log_events.Add(deployment, req.path, batch);
    std::fprintf(stderr, "tarvo-cloud: %s log batch of %s on %s: %u events\n", deployment.c_str(),
                 batch["service"].asString().c_str(), req.path.c_str(), batch["events"].size());
    Json::Value body(Json::objectValue);
    body["ok"] = true;
    body["received"] = batch["events"].size();
    res.set_content(CompactJson(body) + "\n", kJson);
}

}  // namespace cloud
}  // namespace tarvo
