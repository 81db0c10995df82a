// The agreement and log servers that each deployment's TLS port plays ("production" or
// "staging", which differ in the signing key). Handlers run on the port's pool threads and
// share only the locked context.
#pragma once

#include "cloud_context.h"

#include <httplib.h>

#include <string>

namespace tarvo {
namespace cloud {

// Every request is recorded under `deployment`; "/openapi/log/..." goes to the log server,
// everything else to the agreement server, which refuses what is not its PUT.
void InstallDeploymentRoutes(httplib::Server& server, CloudContext& context, const std::string& deployment);

// The agreement server: checks the PUT's headers, document and signature and answers the
// XML "rsp" form, with the "agreement" fault applied; a good upload goes into the book.
void AnswerAgreement(CloudContext& context, const std::string& deployment, const httplib::Request& req,
                     httplib::Response& res);

// The log server: takes a batch of usage events as JSON, with the "log" fault applied.
void AnswerLogBatch(CloudContext& context, const std::string& deployment, const httplib::Request& req,
                    httplib::Response& res);

}  // namespace cloud
}  // namespace tarvo
