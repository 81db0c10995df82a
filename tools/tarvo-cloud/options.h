// Command line of tarvo-cloud: parsed once by main before anything starts; a bad
// argument is a returned reason, and the options are plain values after that.
#pragma once

#include <optional>
#include <string>

namespace tarvo {
namespace cloud {

struct Options {
    std::string data_dir;  // holds openapi/*.json
    int openapi_port = 0;  // 0 picks a free port
    int admin_port = 0;
    int production_port = 0;  // the agreement and log servers of each deployment, over TLS
    int staging_port = 0;
    std::string tls_dir;        // empty: a fresh temporary folder, removed at the end
    std::string state_file;     // empty: none written
    std::string write_profile;  // a device profile to point at the servers; empty: none
    std::string state_dir;      // keeps the published changes for the next start; empty: none
    bool help = false;
};

struct OptionsResult {
    std::optional<Options> options;
    std::string error;  // why the command line was refused
};

// Reads the command line; the data folder defaults to the bundled one.
OptionsResult ParseOptions(int argc, char** argv);
const char* HelpText();

}  // namespace cloud
}  // namespace tarvo
