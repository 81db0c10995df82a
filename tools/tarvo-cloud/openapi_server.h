// The OpenAPI server's routes: the "checkversion" and "disclaimers" GETs that the service
// makes, answered from the context's data sets with its faults applied, every request
// recorded. Handlers run on the server's pool threads and share only the locked context.
#pragma once

#include "cloud_context.h"

#include <httplib.h>

namespace tarvo {
namespace cloud {

void InstallOpenApiRoutes(httplib::Server& server, CloudContext& context);

}  // namespace cloud
}  // namespace tarvo
