#include "power_marker.h"

#include "client.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

namespace tarvoctl {

namespace {

// Beside the socket, in the host's own run directory.
std::string MarkPath(const std::string& socket) {
    const size_t slash = socket.rfind('/');
    const std::string dir = slash == std::string::npos ? std::string(".") : socket.substr(0, slash);
    return dir + "/tarvoctl-power-off.json";
}

// The socket file's inode and change time: both are new when the host binds it again.
std::optional<std::string> SocketIdentity(const std::string& socket) {
    struct stat info {};
    if (stat(socket.c_str(), &info) != 0) return std::nullopt;
    return std::to_string(info.st_ino) + ":" + std::to_string(info.st_ctim.tv_sec) + "." +
           std::to_string(info.st_ctim.tv_nsec);
}

}  // namespace

void MarkStoreClosed(const std::string& socket, int state) {
    const auto identity = SocketIdentity(socket);
    if (!identity) return;
    char at[32];
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(at, sizeof(at), "%Y-%m-%d %H:%M:%S", &local);
    Json::Value mark(Json::objectValue);
    mark["state"] = state;
    mark["at"] = at;
    mark["socket"] = socket;
    mark["socket_identity"] = *identity;
    const std::string path = MarkPath(socket);
    const std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << CompactJson(mark) << "\n";
        if (!out) return;
    }
    std::rename(temp.c_str(), path.c_str());
}

std::optional<Json::Value> StoreClosedMark(const std::string& socket) {
    const std::string path = MarkPath(socket);
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    const auto mark = ParseJson(text.str());
    const auto identity = SocketIdentity(socket);
    if (mark && mark->isObject() && identity && (*mark)["socket_identity"] == *identity &&
        (*mark)["socket"] == socket && (*mark)["state"].isInt() && (*mark)["at"].isString()) {
        return mark;
    }
    // Another host (or none) serves now: the store it has was opened at its start.
    if (identity) unlink(path.c_str());
    return std::nullopt;
}

std::string ClosedStoreWords(const Json::Value& mark) {
    return "the store is closed since 'power off " + std::to_string(mark["state"].asInt()) + "' at " +
           mark["at"].asString() + "; a restart of the service (tarvo-service-host) opens it";
}

std::string ClosedStoreNote(const std::string& socket) {
    const auto mark = StoreClosedMark(socket);
    return mark ? "; " + ClosedStoreWords(*mark) : std::string();
}

}  // namespace tarvoctl
