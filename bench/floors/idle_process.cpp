// The memory floor: a process that has loaded every library the host holds once the service runs
// (the module, the platform, JsonCpp, SQLite, libcurl, libxml2, OpenSSL) and does nothing. Prints its
// peak and current resident memory in KiB: "VmHWM N VmRSS N".
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

long StatusKiB(const char* field) {
    std::ifstream in("/proc/self/status");
    const std::string prefix = std::string(field) + ":";
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
    }
    return -1;
}

}  // namespace

int main() {
    std::printf("VmHWM %ld VmRSS %ld\n", StatusKiB("VmHWM"), StatusKiB("VmRSS"));
    return 0;
}
