// The admin server's routes (loopback only): the request record, faults, publishing and
// the current data. Handlers run on the server's pool threads and share only the locked
// context; `listeners` is read for its ports, which no longer change once it runs.
#pragma once

#include "cloud_context.h"
#include "listeners.h"

#include <httplib.h>

namespace tarvo {
namespace cloud {

// {"admin": port, "openapi": port, "production": port, "staging": port, "ca": path of ca.pem}.
Json::Value PortsLine(const Listeners& listeners, const CloudContext& context);

void InstallAdminRoutes(httplib::Server& server, CloudContext& context, const Listeners& listeners);

}  // namespace cloud
}  // namespace tarvo
