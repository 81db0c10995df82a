#include "power_marker.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

namespace tarvoctl {

namespace {

std::string MarkPath(const Context& context) { return context.Root() + "/run/tarvoctl-power-off.json"; }

// The socket file's inode and change time: both are new when the host binds it again.
std::optional<std::string> SocketIdentity(const Context& context) {
    struct stat info {};
    if (stat(context.SocketPath().c_str(), &info) != 0) return std::nullopt;
    return std::to_string(info.st_ino) + ":" + std::to_string(info.st_ctim.tv_sec) + "." +
           std::to_string(info.st_ctim.tv_nsec);
}

}  // namespace

void MarkStoreClosed(const Context& context, int state) {
    const auto identity = SocketIdentity(context);
    if (!identity) return;
    char at[32];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(at, sizeof(at), "%Y-%m-%d %H:%M:%S", &local);
    Json::Value mark(Json::objectValue);
    mark["state"] = state;
    mark["at"] = at;
    mark["socket"] = context.SocketPath();
    mark["socket_identity"] = *identity;
    const std::string path = MarkPath(context);
    const std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << CompactJson(mark) << "\n";
        if (!out) return;
    }
    std::rename(temp.c_str(), path.c_str());
}

std::optional<Json::Value> StoreClosedMark(const Context& context) {
    const std::string path = MarkPath(context);
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    const auto mark = ParseJson(text.str());
    const auto identity = SocketIdentity(context);
    if (mark && mark->isObject() && identity && (*mark)["socket_identity"] == *identity &&
        (*mark)["socket"] == context.SocketPath()) {
        return mark;
    }
    // Another host (or none) serves now: the store it has was opened at its start.
    if (identity) unlink(path.c_str());
    return std::nullopt;
}

std::string ClosedStoreNote(const Context& context) {
    const auto mark = StoreClosedMark(context);
    if (!mark) return "";
    return "; the store is closed since 'power off " + std::to_string((*mark)["state"].asInt()) + "' at " +
           (*mark)["at"].asString() + " and stays so until the host restarts";
}

}  // namespace tarvoctl
