#include "host_client.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vconf.h>

#include <cerrno>
#include <cstring>

namespace tarvo::test {

HostClient::~HostClient() {
    if (m_fd >= 0) close(m_fd);
}

bool HostClient::Connect(const std::string& socket_path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size() + 1);
    if (m_fd >= 0) close(m_fd);
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) return false;
    if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        close(m_fd);
        m_fd = -1;
        return false;
    }
    return true;
}

bool HostClient::Subscribe(const std::string& socket_path) {
    if (!Connect(socket_path) || !SendLine(R"({"id": 0, "subscribe": true})")) return false;
    const auto accepted = ReadFrame();
    return accepted && (*accepted)["ok"].asBool();
}

bool HostClient::SendText(const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool HostClient::Send(const Json::Value& frame) { return SendLine(ToLine(frame)); }

std::optional<Json::Value> HostClient::ReadFrame(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto newline = m_buffer.find('\n');
        if (newline != std::string::npos) {
            const std::string line = m_buffer.substr(0, newline);
            m_buffer.erase(0, newline + 1);
            return ParseLine(line);
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || m_fd < 0) return std::nullopt;
        pollfd pfd{m_fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[65536];
        const ssize_t n = read(m_fd, chunk, sizeof(chunk));
        if (n <= 0) return std::nullopt;
        m_buffer.append(chunk, static_cast<size_t>(n));
    }
}

std::optional<Json::Value> HostClient::Call(const Json::Value& request) {
    Json::Value frame(Json::objectValue);
    frame["id"] = m_nextId++;
    frame["call"] = request;
    if (!Send(frame)) return std::nullopt;
    return ReadFrame();
}

std::optional<Json::Value> HostClient::Control(const std::string& name, std::optional<int> state) {
    Json::Value frame(Json::objectValue);
    frame["id"] = m_nextId++;
    frame["control"] = name;
    if (state) frame["state"] = *state;
    if (!Send(frame)) return std::nullopt;
    return ReadFrame();
}

std::string ToLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

Json::Value ParseLine(const std::string& line) {
    Json::CharReaderBuilder builder;
    Json::Value value;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(line.data(), line.data() + line.size(), &value, &errors)) {
        ADD_FAILURE() << "the host wrote a line that is no JSON: " << line;
    }
    return value;
}

std::string DefaultSocket(const TempRoot& root) { return root.At("/run/tarvodatacontrol.sock"); }

std::unique_ptr<ChildProcess> StartHost(const TempRoot& root, const std::string& module,
                                        const std::string& socket) {
    const std::string socket_path = socket.empty() ? DefaultSocket(root) : socket;
    std::vector<std::string> argv = {TARVO_HOST_BIN, "--module", module, "--root", root.Path()};
    if (!socket.empty()) {
        argv.push_back("--socket");
        argv.push_back(socket);
    }
    auto host = std::make_unique<ChildProcess>(
        argv, std::map<std::string, std::string>{{"TARVO_ROOT", root.Path()}}, root.Path() + "/host");
    const bool answered = WaitUntil(
        [&] {
            if (!host->Running()) return true;
            HostClient client;
            if (!client.Connect(socket_path)) return false;
            const auto pong = client.Control("ping");
            return pong && (*pong)["ok"].asBool();
        },
        std::chrono::seconds(20));
    if (!answered || !host->Running()) {
        ADD_FAILURE() << "the host did not come up; its stderr:\n" << host->Stderr();
        return nullptr;
    }
    return host;
}

Json::Value Method(const std::string& name) {
    Json::Value request(Json::objectValue);
    request["method"] = name;
    return request;
}

size_t LogCount(const TempRoot& root, const std::string& text) {
    size_t count = 0;
    for (const std::string& line : Lines(ReadFile(root.At("/var/log/tarvo.log"))))
        count += line.find(text) != std::string::npos;
    return count;
}

RunResult RunCtl(const TempRoot& root, const std::vector<std::string>& args,
                 std::chrono::milliseconds timeout) {
    static int runs = 0;
    std::vector<std::string> argv = {TARVO_CTL_BIN, "--root", root.Path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, {}, root.Path() + "/ctl-" + std::to_string(++runs), timeout);
}

std::unique_ptr<ChildProcess> StartCloud(const TempRoot& root, const std::string& duid, Json::Value& ports) {
    const std::string state = root.Path() + "/cloud-state.json";
    auto cloud = std::make_unique<ChildProcess>(
        std::vector<std::string>{TARVO_CLOUD_BIN, "--openapi-port", "0", "--admin-port", "0",
                                 "--production-port", "0", "--staging-port", "0", "--tls-dir",
                                 root.Path() + "/cloud-tls", "--write-profile",
                                 root.At("/etc/tarvo/device.json"), "--state-file", state},
        std::map<std::string, std::string>{}, root.Path() + "/cloud");
    if (!cloud->Started() || !WaitUntil([&] { return (ports = ParseText(ReadFile(state))).isObject(); })) {
        ADD_FAILURE() << "tarvo-cloud did not start: " << cloud->Stderr();
        return nullptr;
    }
    const std::string domain = "http://127.0.0.1:" + std::to_string(ports["openapi"].asInt());
    for (const auto& [key, value] :
         std::map<std::string, std::string>{{"db/nimbra/gpmurl/apps", domain},
                                            {"db/nimbra/countrycode", "US"},
                                            {"db/nimbra/modelid", "TRV55Q9"},
                                            {"db/nimbra/duid", duid},
                                            {"db/menu_widget/language", "en_US.utf8"}}) {
        EXPECT_EQ(vconf_set_str(key.c_str(), value.c_str()), 0) << key;
    }
    return cloud;
}

}  // namespace tarvo::test
