#include "openapi_server.h"

#include "json_text.h"
#include "listeners.h"

#include <functional>
#include <memory>

namespace tarvo {
namespace cloud {

namespace {

// httplib gzips a body of exactly this type when the request accepts gzip.
constexpr const char* kJson = "application/json";
// With a charset the type is never compressed, so the chunk goes out as built.
constexpr const char* kJsonAsIs = "application/json; charset=utf-8";
constexpr const char* kNotJson =
    "<html><head><title>502 Bad Gateway</title></head><body><h1>Bad Gateway</h1>"
    "<p>The upstream terms service did not answer.</p></body></html>";

// The service puts "/" after the domain, so a domain ending in "/" gives "//apps/...".
constexpr const char* kCheckVersionRoute = R"(/+apps/conf/v1/stacks/tarvoapp/checkversion)";
constexpr const char* kDisclaimersRoute = R"(/+apps/terms/v4/disclaimers/([^/]*))";

void SendBigChunk(httplib::Response& res, std::string body, size_t bytes) {
    if (body.size() < bytes) body.append(bytes - body.size(), ' ');
    auto shared = std::make_shared<const std::string>(std::move(body));
    res.set_chunked_content_provider(kJsonAsIs, [shared](size_t, httplib::DataSink& sink) {
        // One write is one chunk on the wire.
        if (!sink.write(shared->data(), shared->size())) return false;
        sink.done();
        return true;
    });
}

void Answer(CloudContext& context, const char* route, const httplib::Request& req, httplib::Response& res,
            const std::function<Json::Value()>& build) {
    const std::optional<Fault> fault = context.faults.Take(route);
    if (!fault) {
        res.set_content(CompactJson(build()), kJson);
        return;
    }
    switch (fault->kind) {
        case FaultKind::kDrop:
            DropConnection(req);
            return;
        case FaultKind::kDelay:
            if (!context.stop.WaitFor(std::chrono::milliseconds(fault->delay_ms))) {
                res.status = 503;
                res.set_content(
                    CompactJson(ErrorAnswer("5030", "Service stopping", "The cloud is shutting down")),
                    kJson);
                return;
            }
            res.set_content(CompactJson(build()), kJson);
            return;
        case FaultKind::kStatError:
            res.set_content(
                CompactJson(ErrorAnswer(fault->code.empty() ? "5000" : fault->code, "Internal server error",
                                        "The terms service could not complete the request")),
                kJson);
            return;
        case FaultKind::kNotJson:
            res.set_content(kNotJson, "text/html");
            return;
        case FaultKind::kHttpStatus:
            res.status = fault->status;
            res.set_content(
                CompactJson(ErrorAnswer(
                    fault->code.empty() ? std::to_string(fault->status) : fault->code,
                    HttpStatusText(fault->status),
                    "The terms service answered with HTTP status " + std::to_string(fault->status))),
                kJson);
            return;
        case FaultKind::kEmpty:
            res.set_content("", kJson);
            return;
        case FaultKind::kBigChunk:
            SendBigChunk(res, CompactJson(build()), fault->bytes);
            return;
        case FaultKind::kNotXml:
        case FaultKind::kWrongRoot:
        case FaultKind::kOkWithErr:
        case FaultKind::kUntrustedCert:
        case FaultKind::kBody:
            // The admin refuses these for the OpenAPI paths.
            res.set_content(CompactJson(build()), kJson);
            return;
    }
}

}  // namespace

void InstallOpenApiRoutes(httplib::Server& server, CloudContext& context) {
    server.set_pre_routing_handler([&context](const httplib::Request& req, httplib::Response&) {
        context.record.Add("openapi", req);
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server.Get(kCheckVersionRoute, [&context](const httplib::Request& req, httplib::Response& res) {
        Answer(context, "checkversion", req, res, [&] {
            return context.data.CheckVersionAnswer(req.get_param_value("countrycode"),
                                                   req.get_param_value("lang"));
        });
    });
    server.Get(kDisclaimersRoute, [&context](const httplib::Request& req, httplib::Response& res) {
        const std::string set_id = req.matches.size() > 1 ? req.matches[1].str() : std::string();
        Answer(context, "disclaimers", req, res, [&] {
            return context.data.DisclaimersAnswer(set_id, req.get_param_value("countrycode"),
                                                  req.get_param_value("lang"));
        });
    });
    server.set_error_handler(
        httplib::Server::HandlerWithResponse([](const httplib::Request& req, httplib::Response& res) {
            // An injected HTTP status keeps its own body.
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;
            res.set_content(CompactJson(ErrorAnswer(std::to_string(res.status), "Not found",
                                                    "No OpenAPI resource at " + req.path)),
                            kJson);
            return httplib::Server::HandlerResponse::Handled;
        }));
    LogRequests(server, "openapi");
}

}  // namespace cloud
}  // namespace tarvo
