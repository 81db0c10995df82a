// One HTTP(S) request with a bare libcurl easy handle, for the floors: a fresh connection each
// time, the request lines given, the body collected. Used from one thread.
#pragma once

#include <string>
#include <vector>

namespace tarvo {
namespace bench {

struct BareRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::string> headers;  // whole lines, "Name: value"
    std::string body;                  // sent by a PUT
    std::string caFile;                // for HTTPS: the CA trusted, peer and host verified
};

// Runs the request; false when the transfer failed. `answer` gets the (decoded) body.
bool BareTransfer(const BareRequest& request, std::string& answer);

}  // namespace bench
}  // namespace tarvo
