#include "deployment_servers.h"

#include "listeners.h"

namespace tarvo {
namespace cloud {

namespace {
constexpr size_t kMaxBody = 8 * 1024 * 1024;
}

void InstallDeploymentRoutes(httplib::Server& server, CloudContext& context, const std::string& deployment) {
    server.set_payload_max_length(kMaxBody);
    // Routes for every method, so that a wrong method is recorded and answered in the server's own form.
    const auto handler = [&context, deployment](const httplib::Request& req, httplib::Response& res) {
        context.record.Add(deployment, req);
        if (req.path.rfind("/openapi/log/", 0) == 0) {
            AnswerLogBatch(context, deployment, req, res);
        } else {
            AnswerAgreement(context, deployment, req, res);
        }
    };
    const char* const kAnything = ".*";
    server.Get(kAnything, handler);
    server.Post(kAnything, handler);
    server.Put(kAnything, handler);
    server.Patch(kAnything, handler);
    server.Delete(kAnything, handler);
    server.Options(kAnything, handler);
    LogRequests(server, deployment);
}

}  // namespace cloud
}  // namespace tarvo
