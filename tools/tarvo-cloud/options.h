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
    std::string state_file;  // empty: none written
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
