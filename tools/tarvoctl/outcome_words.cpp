#include "outcome_words.h"

#include "context.h"

#include <tarvo/platform.h>
#include <vconf.h>

#include <cstdlib>
#include <map>

namespace tarvoctl {

namespace {

// The transfer errors a request to the server can end in, with libcurl's names.
const std::map<int, std::pair<const char*, const char*>>& CurlCodes() {
    static const std::map<int, std::pair<const char*, const char*>> codes = {
        {1, {"CURLE_UNSUPPORTED_PROTOCOL", "the server URL names a protocol the client does not speak"}},
        {2, {"CURLE_FAILED_INIT", "the HTTP client could not be set up"}},
        {3, {"CURLE_URL_MALFORMAT", "the server URL is malformed"}},
        {5, {"CURLE_COULDNT_RESOLVE_PROXY", "the proxy's name could not be resolved"}},
        {6, {"CURLE_COULDNT_RESOLVE_HOST", "the server's host name could not be resolved"}},
        {7, {"CURLE_COULDNT_CONNECT", "could not connect to the server"}},
        {8, {"CURLE_WEIRD_SERVER_REPLY", "the server's reply was not HTTP"}},
        {16, {"CURLE_HTTP2", "a problem in the HTTP/2 framing"}},
        {18, {"CURLE_PARTIAL_FILE", "the answer ended before its announced length"}},
        {22, {"CURLE_HTTP_RETURNED_ERROR", "the server answered with an HTTP error status"}},
        {23,
         {"CURLE_WRITE_ERROR", "the service refused a block of the answer (more than 16384 bytes at once)"}},
        {26, {"CURLE_READ_ERROR", "the request body could not be read"}},
        {27, {"CURLE_OUT_OF_MEMORY", "out of memory"}},
        {28, {"CURLE_OPERATION_TIMEDOUT", "the server did not answer in time"}},
        {35, {"CURLE_SSL_CONNECT_ERROR", "the TLS handshake failed"}},
        {42, {"CURLE_ABORTED_BY_CALLBACK", "the transfer was aborted"}},
        {43, {"CURLE_BAD_FUNCTION_ARGUMENT", "the HTTP client was given a bad argument"}},
        {47, {"CURLE_TOO_MANY_REDIRECTS", "too many redirects"}},
        {48, {"CURLE_UNKNOWN_OPTION", "the HTTP client does not know an option"}},
        {52, {"CURLE_GOT_NOTHING", "the server closed the connection without an answer"}},
        {55, {"CURLE_SEND_ERROR", "sending the request failed"}},
        {56, {"CURLE_RECV_ERROR", "receiving the answer failed (the connection was dropped)"}},
        {58, {"CURLE_SSL_CERTPROBLEM", "the client certificate is unusable"}},
        {60, {"CURLE_PEER_FAILED_VERIFICATION", "the server's certificate was not trusted"}},
        {61, {"CURLE_BAD_CONTENT_ENCODING", "the answer's compression was not understood"}},
        {63, {"CURLE_FILESIZE_EXCEEDED", "the answer was larger than the client takes"}},
        {77, {"CURLE_SSL_CACERT_BADFILE", "the CA file of the device profile could not be read"}},
        {92, {"CURLE_HTTP2_STREAM", "an HTTP/2 stream error"}},
    };
    return codes;
}

const char* RequestName(const std::string& type) {
    if (type == "1") return "the version check";
    if (type == "2") return "the disclaimers request";
    return "a server request";
}

std::string Trim(std::string text) {
    while (!text.empty() && (text.back() == ' ' || text.back() == '\n')) text.pop_back();
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::optional<int> Number(const std::string& text) { return ParseInt(Trim(text)); }

// "type = 1, errorCode = 7" as its two numbers.
bool ReadFailedResource(const std::string& rest, std::string& type, int& code) {
    const size_t comma = rest.find(", errorCode = ");
    if (comma == std::string::npos) return false;
    type = Trim(rest.substr(0, comma));
    if (type.rfind("type = ", 0) == 0) type = type.substr(7);
    const auto parsed = Number(rest.substr(comma + 14));
    if (!parsed) return false;
    code = *parsed;
    return true;
}

std::string DescribeFailedResource(const std::string& type, int code) {
    std::string what = std::string(RequestName(type)) + " failed: ";
    if (code == -1) return what + "it was not sent (the run had been stopped, or the URL was refused)";
    if (code == 0) return what + "the server's answer was empty";
    return what + CurlCodeWords(code);
}

}  // namespace

std::string CurlCodeWords(int code) {
    const auto& codes = CurlCodes();
    const auto it = codes.find(code);
    if (it == codes.end()) return "CURLcode " + std::to_string(code);
    return std::string(it->second.first) + " (" + it->second.second + ")";
}

std::string ErrorCodeOrigin(int code, int reason) {
    // libcurl's codes stay below 100; the servers' own codes are larger.
    constexpr int kCurlCodeLimit = 100;
    if (code == -1) return "no code is known";
    if (reason == 1) return "the device's term error " + std::to_string(code) + " (nimbra_get_term_error)";
    if (code > 0 && code < kCurlCodeLimit) return "libcurl's " + CurlCodeWords(code);
    return "the server's own error code " + std::to_string(code) + " (the \"err\" of its answer)";
}

NetworkState ReadNetworkState() {
    NetworkState state;
    const auto profile = tarvo::platform::LoadDeviceProfile();
    if (!profile || !(*profile)["network"].isObject()) return state;
    const Json::Value& network = (*profile)["network"];
    state.up = network["up"].isBool() && network["up"].asBool();
    state.profile = network["profile"].isString() ? network["profile"].asString() : std::string();
    return state;
}

std::string NetworkWords(const NetworkState& network) {
    if (!network.up) return "down (tarvoctl network up brings it back)";
    return "up" + (network.profile.empty() ? std::string() : " (" + network.profile + ")");
}

const std::vector<DeviceValue>& DeviceValues() {
    static const std::vector<DeviceValue> values = {
        {"db/nimbra/countrycode", "the country", "tarvoctl set-country CODE", true},
        {"db/nimbra/modelid", "the model id", "tarvoctl vconf set db/nimbra/modelid MODEL --type string",
         true},
        {"db/nimbra/gpmurl/apps", "the server URL",
         "tarvoctl vconf set db/nimbra/gpmurl/apps http://HOST:PORT", true},
        {"db/nimbra/duid", "the device id", "tarvoctl vconf set db/nimbra/duid DUID --type string", false},
    };
    return values;
}

std::vector<DeviceValue> MissingDeviceValues(bool blocking_only) {
    std::vector<DeviceValue> missing;
    for (const auto& value : DeviceValues()) {
        if (blocking_only && !value.blocks_fetch) continue;
        char* text = vconf_get_str(value.key);
        // The service reads an empty text as a missing value.
        if (text == nullptr || *text == '\0') missing.push_back(value);
        std::free(text);
    }
    return missing;
}

std::string NameValues(const std::vector<DeviceValue>& values) {
    std::string names;
    for (const auto& value : values) {
        names += std::string(names.empty() ? "" : ", ") + value.key + " (" + value.what + ")";
    }
    return names;
}

void ReadRun(const std::vector<LogEntry>& entries, RunReport& report) {
    std::string error_code, error_msg;
    auto failure = [&report](const std::string& step) {
        report.steps.push_back(step);
        report.failures.push_back(step);
        report.failed = true;
    };
    for (const auto& entry : entries) {
        const std::string& m = entry.message;
        auto rest = [&m](const char* prefix) -> std::optional<std::string> {
            const size_t n = std::char_traits<char>::length(prefix);
            if (m.compare(0, n, prefix) != 0) return std::nullopt;
            return m.substr(n);
        };
        if (rest("CTarvoKelvaneInfoManager::t_OnEvent....263")) {
            report.seen_request = true;
        } else if (auto code = rest("Get vconf country code: ");
                   code && report.seen_request && report.country.empty()) {
            report.country = Trim(*code);
        } else if (auto locale = rest("orignial language : "); locale && report.locale.empty()) {
            report.locale = Trim(*locale);
        } else if (rest("country code is different, clean Data")) {
            report.why_fetched =
                "the country differs from the stored set's, so the service cleared every stored disclaimer "
                "and answer";
        } else if (rest("Lang is Differnt")) {
            report.why_fetched = "the on-screen language differs from the stored set's";
        } else if (auto requester = rest("MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY requester type ")) {
            if (Trim(*requester) != "2") report.fetched = true;
        } else if (rest("MESSAGE_GET_DISCLAIMER_SUCCESS")) {
            if (report.seen_request && !report.fetched) report.from_store = true;
        } else if (rest("All Nimbra Value not ready")) {
            report.waited_for_values = true;
        } else if (rest("All Nimbra Value ready")) {
            report.waited_for_values = false;
        } else if (auto type = rest("m_PerformGetXMLData Start ")) {
            report.steps.push_back(std::string(Trim(*type) == "1" ? "asked the server for its versions"
                                                                  : "asked the server for the disclaimers"));
        } else if (auto failed = rest("Get Resource Failed! ")) {
            std::string request;
            int code = -1;
            // An empty answer has its own line just before.
            if (ReadFailedResource(*failed, request, code) && code != 0) {
                failure(DescribeFailedResource(request, code));
                // CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT: what a request meets with the network
                // down.
                if (code == 6 || code == 7) report.not_connected = true;
            }
        } else if (rest("data == NULL or dataLength <= 0")) {
            failure("the server's answer was empty");
        } else if (rest("<<WARN: NOT JSON TYPE MESSAGE>>")) {
            failure("the server's answer was not JSON");
        } else if (auto code = rest("m_ProcessUpdateNotice err code ")) {
            error_code = Trim(*code);
        } else if (auto msg = rest("m_ProcessUpdateNotice err msg ")) {
            error_msg = Trim(*msg);
        } else if (auto desc = rest("m_ProcessUpdateNotice err desc")) {
            report.server_error = "code " + (error_code.empty() ? std::string("none") : error_code);
            if (!error_msg.empty()) report.server_error += ", \"" + error_msg + "\"";
            if (!Trim(*desc).empty()) report.server_error += " (" + Trim(*desc) + ")";
            failure("the server answered with an error: " + report.server_error);
        } else if (rest("m_CheckNeedGetDisclaimer false")) {
            report.steps.push_back("the server has no newer versions than the stored set");
        } else if (auto set = rest("DisclaimerId = ")) {
            report.steps.push_back("the stored set is out of date: fetching set " + Trim(*set));
        } else if (rest("stat is not ok or disclaimerId")) {
            failure("the server's answer named no disclaimer set");
        } else if (auto size = rest("mapItem.size : ")) {
            report.steps.push_back("received " + Trim(*size) + " disclaimers and merged them into the store");
        } else if (rest("Factory is in trouble!")) {
            failure("a run was started while another went on; the service dropped the waiting jobs");
        } else if (m == "m_NimbraTimeoutCallBack") {
            failure("the service gave up waiting for the device values");
        } else if (auto code = rest("errorCode = ")) {
            const auto parsed = Number(*code);
            // The service keeps its earlier code when told 0 or -1.
            if (parsed && *parsed != 0 && *parsed != -1) report.recorded_code = *parsed;
        } else if (rest("StartFactory")) {
            report.run_ended = false;
        } else if (rest("Batch job empty, waiting...") || rest("Send MESSAGE_GET_DISCLAIMER_")) {
            report.run_ended = true;
        }
    }
}

std::string DescribeDisclaimerFailure(const Json::Value& notification, const RunReport& report,
                                      const NetworkState& network) {
    const int code = notification["error_code"].asInt();
    const int reason = notification["error_reason"].asInt();
    std::string words = "the disclaimers could not be updated (error_code " + std::to_string(code) +
                        ", error_reason " + std::to_string(reason) + "): ";
    if (reason == 1) {
        const auto missing = MissingDeviceValues(true);
        words +=
            "device values missing: the service waited 90 s for the country, the model id and the server URL";
        words += missing.empty() ? " (all are set now)" : "; still missing: " + NameValues(missing);
        if (code != 0) words += "; error_code is " + ErrorCodeOrigin(code, reason);
        return words;
    }
    if (!network.up && report.not_connected) {
        words += "the network is down, so no request reached the server (" + NetworkWords(network) + ")";
    } else {
        words += "the store holds no disclaimers after the run";
        for (const auto& step : report.failures) words += "; " + step;
    }
    if (code == 0) return words + "; the service recorded no error code";
    if (report.recorded_code && *report.recorded_code == code) {
        if (report.failures.empty()) words += "; error_code is " + ErrorCodeOrigin(code, reason);
        return words;
    }
    return words + "; error_code " + std::to_string(code) +
           " may be left from an earlier failure (the service keeps its last code until another replaces "
           "it): " +
           ErrorCodeOrigin(code, reason);
}

std::string DescribeCountryListFailure(const Json::Value& notification,
                                       const std::vector<LogEntry>& entries) {
    static const struct {
        const char* prefix;
        const char* words;
    } kReasons[] = {
        {"nimbra_get_countrylist NULL",
         "the television has no country list (device profile member country_list)"},
        {"<<WARN: NOT JSON TYPE MESSAGE>>", "the television's country list is not JSON"},
        {"rsp is empty", "the country list has no \"rsp\" object"},
        {"stat is not string type", "the country list's \"stat\" is no string"},
        {"GetCountryCodeList stat is not ok", "the country list's \"stat\" is not \"ok\""},
        {"modelId is not string type", "the country list's \"modelId\" is no string"},
        {"modelId is not array type", "the country list's \"countriesList\" is no array"},
        {"m_CountryCodeList Empty", "the country list names no country with a code and a name"},
    };
    std::string words = "the country list could not be fetched (error_code " +
                        std::to_string(notification["error_code"].asInt()) + ", error_reason " +
                        std::to_string(notification["error_reason"].asInt()) + ")";
    for (const auto& reason : kReasons) {
        if (Contains(entries, reason.prefix)) return words + ": " + reason.words;
    }
    return words + ": the log does not tell why";
}

}  // namespace tarvoctl
