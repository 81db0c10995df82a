#include "admin.h"

#include "json_text.h"

namespace tarvo {
namespace cloud {

namespace {

constexpr const char* kJson = "application/json";
constexpr size_t kMaxAdminBody = 16 * 1024 * 1024;

void Reply(httplib::Response& res, int status, const Json::Value& body) {
    res.status = status;
    res.set_content(CompactJson(body) + "\n", kJson);
}

void ReplyError(httplib::Response& res, int status, const std::string& error) {
    Json::Value body(Json::objectValue);
    body["ok"] = false;
    body["error"] = error;
    Reply(res, status, body);
}

// The request's body as a JSON object; false after answering 400 when it is not one.
bool ReadObject(const httplib::Request& req, httplib::Response& res, Json::Value* body) {
    std::string error;
    if (!ParseJson(req.body, body, &error)) {
        ReplyError(res, 400, "the body is no JSON: " + error);
        return false;
    }
    if (!body->isObject()) {
        ReplyError(res, 400, "the body must be a JSON object");
        return false;
    }
    return true;
}

Json::Value Ok() {
    Json::Value body(Json::objectValue);
    body["ok"] = true;
    return body;
}

}  // namespace

Json::Value PortsLine(const Listeners& listeners, const CloudContext& context) {
    Json::Value line = listeners.Ports();
    if (!context.ca_file.empty()) line["ca"] = context.ca_file;
    return line;
}

void InstallAdminRoutes(httplib::Server& server, CloudContext& context, const Listeners& listeners) {
    server.set_payload_max_length(kMaxAdminBody);
    server.Get("/admin/requests", [&context](const httplib::Request&, httplib::Response& res) {
        Reply(res, 200, context.record.ToJson());
    });
    server.Delete("/admin/requests", [&context](const httplib::Request&, httplib::Response& res) {
        Json::Value body = Ok();
        body["cleared"] = Json::UInt64(context.record.Clear());
        Reply(res, 200, body);
    });
    server.Get("/admin/agreements", [&context](const httplib::Request&, httplib::Response& res) {
        Reply(res, 200, context.agreements.ToJson());
    });
    server.Delete("/admin/agreements", [&context](const httplib::Request&, httplib::Response& res) {
        Json::Value body = Ok();
        body["cleared"] = Json::UInt64(context.agreements.Clear());
        Reply(res, 200, body);
    });
    server.Get("/admin/log-events", [&context](const httplib::Request&, httplib::Response& res) {
        Reply(res, 200, context.log_events.ToJson());
    });
    server.Delete("/admin/log-events", [&context](const httplib::Request&, httplib::Response& res) {
        Json::Value body = Ok();
        body["cleared"] = Json::UInt64(context.log_events.Clear());
        Reply(res, 200, body);
    });
    server.Get("/admin/fault", [&context](const httplib::Request&, httplib::Response& res) {
        Reply(res, 200, context.faults.ToJson());
    });
    server.Post("/admin/fault", [&context](const httplib::Request& req, httplib::Response& res) {
        Json::Value request;
        if (!ReadObject(req, res, &request)) return;
        const FaultParseResult parsed = ParseFault(request);
        if (!parsed.fault) {
            ReplyError(res, 400, parsed.error);
            return;
        }
        context.faults.Set(*parsed.fault);
        Json::Value body = Ok();
        body["fault"] = FaultToJson(*parsed.fault);
        Reply(res, 200, body);
    });
    server.Delete("/admin/fault", [&context](const httplib::Request&, httplib::Response& res) {
        Json::Value body = Ok();
        body["cleared"] = Json::UInt64(context.faults.Clear());
        Reply(res, 200, body);
    });
    server.Post("/admin/publish", [&context](const httplib::Request& req, httplib::Response& res) {
        Json::Value request;
        if (!ReadObject(req, res, &request)) return;
        const PublishResult result = context.data.Publish(request);
        if (!result.ok) {
            ReplyError(res, 400, result.error);
            return;
        }
        Json::Value body = Ok();
        body["changed"] = result.changed;
        Reply(res, 200, body);
    });
    server.Get("/admin/data", [&context](const httplib::Request&, httplib::Response& res) {
        Reply(res, 200, context.data.ToJson());
    });
    server.Get("/admin/ports", [&context, &listeners](const httplib::Request&, httplib::Response& res) {
        Reply(res, 200, PortsLine(listeners, context));
    });
    server.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
            std::string error;
            if (res.status == 413) {
                // httplib caps a form body (curl -d's default type) at a few KiB before any handler runs.
                error =
                    "the body is too large for its content type; send it with "
                    "\"Content-Type: application/json\"";
            } else if (res.status == 404 || res.status == 405) {
                error = "no admin endpoint " + req.method + " " + req.path + " (see tarvo-cloud --help)";
            } else {
                error = "HTTP " + std::to_string(res.status) + " for " + req.method + " " + req.path;
            }
            ReplyError(res, res.status, error);
            return httplib::Server::HandlerResponse::Handled;
        }));
    LogRequests(server, "admin");
}

}  // namespace cloud
}  // namespace tarvo
