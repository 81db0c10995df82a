// Plain words for what the service did with a request, worked out from its log and its
// notifications: where an answer came from, what a server request gave, what an error code
// means, and which device values the service still waits for. Main thread only.
#pragma once

#include "service_log.h"

#include <json/json.h>

#include <optional>
#include <string>
#include <vector>

namespace tarvoctl {

// "CURLE_COULDNT_CONNECT (could not connect to the server)"; "CURLcode N" for a code without a name here.
std::string CurlCodeWords(int code);
// Where the error code of a failure notification comes from: with "error_reason" 1 the device's
// server settings (Nimbra), with 0 the server request, whose codes below 100 are libcurl's and
// the others the server's own "err" code.
std::string ErrorCodeOrigin(int code, int reason);

// The device profile's network as the platform's connection API sees it (the platform root must
// be in use): up with its profile type, or down.
struct NetworkState {
    bool up = false;
    std::string profile;
};
NetworkState ReadNetworkState();
// "up (ethernet)" or "down (tarvoctl network up brings it back)".
std::string NetworkWords(const NetworkState& network);

// One vconf value the service needs before it asks the server.
struct DeviceValue {
    const char* key;
    const char* what;
    const char* how;  // how a user sets it
    bool blocks_fetch;
};
const std::vector<DeviceValue>& DeviceValues();
// The device values that are not set now (the platform root must be in use); with
// `blocking_only`, those alone that hold up a server request.
std::vector<DeviceValue> MissingDeviceValues(bool blocking_only = false);
// "db/nimbra/countrycode (the country)" for each, joined by ", ".
std::string NameValues(const std::vector<DeviceValue>& values);

// What the log tells of one disclaimer request and of the server run it led to.
struct RunReport {
    bool seen_request = false;  // the service took the request
    bool from_store = false;
    bool fetched = false;
    std::string why_fetched;
    std::string country;  // the country code the service read
    std::string locale;   // the on-screen language it read
    std::vector<std::string> steps;
    std::vector<std::string> failures;  // the steps that went wrong
    bool failed = false;                // a server request or its answer failed
    bool not_connected = false;         // a request found no connection (libcurl's connect or resolve error)
    bool waited_for_values = false;     // the run stopped for missing device values
    bool run_ended = false;             // the run's last job is done
    std::optional<int> recorded_code;   // the last error code the service recorded in this window
    std::string server_error;           // the server's own error answer, in words
};

// Reads `entries` (the service's lines since the request was sent) into the report.
void ReadRun(const std::vector<LogEntry>& entries, RunReport& report);
// A "new_disclaimer_got" failure in words, saying where its code comes from and when it is left
// from an earlier failure; `network` is the device's network during the run.
std::string DescribeDisclaimerFailure(const Json::Value& notification, const RunReport& report,
                                      const NetworkState& network);
// A "new_country_list_got" failure in words, with the reason the log gives.
std::string DescribeCountryListFailure(const Json::Value& notification, const std::vector<LogEntry>& entries);

}  // namespace tarvoctl
