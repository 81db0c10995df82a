#include "options.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <vector>

namespace fs = std::filesystem;

#ifndef TARVO_DATA_DIR
#define TARVO_DATA_DIR ""
#endif

namespace tarvo {
namespace cloud {

namespace {

// The source tree's data when it is there, else the installed copy beside the binary.
std::string DefaultDataDir() {
    std::error_code ec;
    // Empty in a packaged build, which never looks in a source tree (nor in the working folder).
    if (*TARVO_DATA_DIR != '\0' && fs::is_directory(fs::path(TARVO_DATA_DIR) / "openapi", ec))
        return TARVO_DATA_DIR;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const fs::path installed = self.parent_path().parent_path() / "share" / "tarvo" / "data";
        if (fs::is_directory(installed / "openapi", ec)) return installed.string();
    }
    return TARVO_DATA_DIR;
}

bool ParsePort(const std::string& text, int* port) {
    if (text.empty()) return false;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < 0 || value > 65535) return false;
    *port = static_cast<int>(value);
    return true;
}

}  // namespace

OptionsResult ParseOptions(int argc, char** argv) {
    OptionsResult result;
    Options options;
    options.data_dir = DefaultDataDir();
    const std::vector<std::string> args(argv + 1, argv + argc);
    for (size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::string value;
        bool has_value = false;
        const size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            has_value = true;
        }
        if (name == "--help" || name == "-h") {
            options.help = true;
            continue;
        }
        const std::map<std::string, int*> ports = {{"--openapi-port", &options.openapi_port},
                                                   {"--admin-port", &options.admin_port},
                                                   {"--production-port", &options.production_port},
                                                   {"--staging-port", &options.staging_port}};
        const std::map<std::string, std::string*> texts = {{"--data", &options.data_dir},
                                                           {"--state-file", &options.state_file},
                                                           {"--tls-dir", &options.tls_dir},
                                                           {"--write-profile", &options.write_profile},
                                                           {"--state-dir", &options.state_dir}};
        if (ports.count(name) == 0 && texts.count(name) == 0) {
            result.error = "unknown argument '" + args[i] + "'";
            return result;
        }
        if (!has_value) {
            if (i + 1 >= args.size()) {
                result.error = name + " needs a value";
                return result;
            }
            value = args[++i];
        }
        if (texts.count(name) != 0) {
            if (value.empty()) {
                result.error = name + " needs a non-empty value";
                return result;
            }
            *texts.at(name) = value;
        } else if (!ParsePort(value, ports.at(name))) {
            result.error = name + " needs a port from 0 to 65535, not '" + value + "'";
            return result;
        }
    }
    result.options = options;
    return result;
}

const char* HelpText() {
    return R"(tarvo-cloud: the development cloud that plays the servers of tarvodatacontrol on loopback.

Usage: tarvo-cloud [--data DIR] [--openapi-port N] [--admin-port N] [--production-port N]
                   [--staging-port N] [--tls-dir DIR] [--write-profile PATH] [--state-file PATH]
                   [--state-dir DIR] [--help]

Options:
  --data DIR            data folder holding openapi/*.json, one disclaimer set per country
                        (default: the bundled data/ folder)
  --openapi-port N      port of the OpenAPI server (default 0: a free port)
  --admin-port N        port of the admin endpoint (default 0: a free port)
  --production-port N   HTTPS port of the production agreement and log servers (default 0)
  --staging-port N      HTTPS port of the staging agreement and log servers (default 0)
  --tls-dir DIR         folder of ca.pem, ca-key.pem, server.pem and server-key.pem: made at
                        start when absent, reused when present (default: a fresh temporary
                        folder, removed at the end). The server certificate is for 127.0.0.1
                        and localhost, signed by the CA.
  --write-profile PATH  at start, set "deployment" (the four hosts at 127.0.0.1 and
                        "log_policy_namespace") and "ca_file" in the device profile at PATH,
                        keeping its other members (replaced atomically)
  --state-file PATH     also write the ports line to PATH (replaced atomically)
  --state-dir DIR       keep every successful POST /admin/publish in DIR/published.jsonl (made
                        when absent) and apply those already there at start, on top of the
                        data folder, so that published versions outlive a restart; a kept
                        change that no longer applies is skipped with a line on stderr. Remove
                        the file to go back to the data folder as it is.
  --help                show this text

Every server listens on 127.0.0.1 only. Once all listen, one JSON line with the ports
actually bound and the CA goes to stdout, e.g. {"admin":41235,"ca":"/tmp/../ca.pem",
"openapi":41234,"production":41236,"staging":41237}. SIGTERM or SIGINT stops the cloud
cleanly. Each answered request is logged on stderr, and each agreement upload and log batch
with what became of it.

OpenAPI server (what the service calls, with domain "http://127.0.0.1:PORT"):
  GET /apps/conf/v1/stacks/tarvoapp/checkversion?items=disclaimer&countrycode=CC&modelid=..
      &firmcode=..&timestamp=..&lang=LL
      -> {"rsp":{"stat":"ok","disclaimer":{"id":SET,"items":[{"id":..,"version":..},..]}}}
  GET /apps/terms/v4/disclaimers/SET?countrycode=CC&modelid=..&timestamp=..&lang=LL&firmcode=..
      -> {"rsp":{"stat":"ok","disclaimer":{"id":SET,"reverseOSD":"false","items":[
           {"id":..,"version":..,"content":{"displayWindow":..,"order":..,"title":..,..}},..]}}}
  A doubled slash ("//apps/...") is accepted too. Every leaf is a string, except "details"
  of "pp", which may be an array. A language the set lacks falls back to its first two
  letters, then to English; a disclaimer without that translation is given in English.
  Refusals use the error form {"rsp":{"stat":"fail","err":{"code":..,"msg":..},"desc":..}}:
  code 4001 for a country without a set, 4002 for a set id the country does not have.
  Answers are application/json, gzip-compressed only when the request accepts gzip.

Agreement server (HTTPS, on the production and the staging port alike):
  PUT /openapi/zephterms/  headers "Content-Type: application/xml;charset=UTF-8", "DUID",
      "Country", "ModelID", "Signature", each exactly once; the body
      <AgreeTerms><term><id>..</id><agree>Y|N</agree><agreeVer>..</agreeVer></term>..</AgreeTerms>
      Signature: lower-case hex SHA-1 of DUID+"+"+Country+"+"+ModelID+"+++"+the agree
      letters in document order+"+"+the deployment's key:
        production 7c1e04a2-3b9d-4f16-8a52-e6d0c4b7f913
        staging    a4d92e60-15f7-4c3b-b8e1-2f06d7c93a58
      -> 200 <rsp stat="ok"/>, and the terms are recorded by deployment and DUID.
      A refusal is 200 <rsp stat="fail"><err code=".." msg=".."/></rsp> with code 4011 wrong
      method, 4012 wrong path, 4013 missing, repeated or empty header, 4014 wrong
      Content-Type, 4015 bad document, 4016 signature of another key or wrong.

Log server (HTTPS, on both ports):
  POST /openapi/log/ANYTHING  {"service":..,"header":{..},"events":[{"name","time",
      "category","value","desc"},..]} -> {"ok":true,"received":N}; each event is recorded.

Admin endpoint (JSON; bad input answers 400 with {"ok":false,"error":..}). Send bodies as
JSON, e.g. curl -H 'Content-Type: application/json' --data-binary @FILE URL: httplib
refuses a form-typed body (curl -d's default) over 8 KiB with 413.
  GET    /admin/requests   every request received, oldest first: server, seq, time,
                           time_ms, method, path, target, query, headers, header_lines,
                           body, remote
  DELETE /admin/requests   forget the record
  GET    /admin/agreements {"production":{DUID:{"country","model","time","uploads",
                           "terms":{ID:{"agree","agreeVer"}}}},"staging":{..}}
  DELETE /admin/agreements forget them
  GET    /admin/log-events every event received, oldest first: deployment, path, service,
                           name, category, time, value, desc, header, received
  DELETE /admin/log-events forget them
  GET    /admin/fault      the faults in force
  POST   /admin/fault      {"path":PATH,"kind":KIND,"code":"..","msg":"..","status":500,
                            "delay_ms":N,"bytes":N,"count":N}
                           sets the fault of PATH: "checkversion", "disclaimers", "any" (both
                           of those), "agreement" or "log". "count" is how many requests it
                           applies to (default: all). A path's own fault wins over "any".
  DELETE /admin/fault      clear every fault
  POST   /admin/publish    change the data at run time (see below)
  GET    /admin/data       the current data, by country
  GET    /admin/ports      the ports line again

Fault kinds (OpenAPI: the first seven; agreement: all but not_json; log: http_status,
delay, drop):
  stat_error     the error form with "code" (default "5000") and, for the agreement, "msg"
  not_json       an HTML page instead of JSON
  http_status    HTTP "status" (default 500) with the error form as body, its code "code"
                 or the status
  delay          wait "delay_ms" (default 1000) before the normal answer
  drop           close the connection without any answer
  big_chunk      the normal answer padded with blanks to at least "bytes" (default 20000),
                 sent as one single HTTP chunk, never compressed
  empty          status 200 with an empty body
  not_xml        a plain-text body that is no XML
  body           the text of "body" as the agreement answer, whatever it holds
  wrong_root     <response stat="ok"/>: a root other than "rsp"
  ok_with_err    <rsp stat="ok"> holding an "err" element ("code" default "0", "msg")
  untrusted_cert the TLS handshake presents a certificate of another CA, so the device's
                 verification fails; counted per handshake, on both HTTPS ports
  An agreement answered under a fault other than delay is not recorded, even when the
  fault's answer says "ok".

Publish requests ("country" is optional: without it the change applies to every country):
  {"country":"US","lang":"en","id":"tnc","version":"2.0"}
                           new version of a disclaimer; with "lang" for that translation only
  {"country":"US","withdraw":"rm"}
                           withdraw a disclaimer
  {"country":"US","disclaimer":{"id":..,"version":..,"content":{..},"texts":{"en":{..}}}}
                           replace a disclaimer whole, or add it (a new translation too)
  {"country":"US","reverseOSD":"true"} or {"country":"US","set_id":"NEW-SET"}
  {"country_set":{..a whole country set..}}   add or replace a country
  {"remove_country":"US"}  withdraw a country's whole set

Data files (DIR/openapi/CC.json):
  {"country":"US","set_id":"..","reverseOSD":"false","disclaimers":[
    {"id":"tnc","version":"1.0",
     "content":{"displayWindow":"main","order":"1","visible_pnp":"yes",..},
     "texts":{"en":{"title":..,"intro":..,"details":..,"button1":..},"fr":{..}}}]}
  "content" holds the language-free members of the answer's content, "texts" the rest per
  language; a translation may carry its own "version".
)";
}

}  // namespace cloud
}  // namespace tarvo
