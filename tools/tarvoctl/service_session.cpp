#include "service_session.h"

#include "verbs.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace tarvoctl {

bool ServiceSession::Open() {
    m_client = m_context.Connect();
    if (!m_client) m_exit = kExitNoService;
    return m_client != nullptr;
}

bool ServiceSession::Subscribe() {
    if (m_client->Subscribe()) return true;
    m_exit = LostService(m_context);
    return false;
}

std::optional<Json::Value> ServiceSession::Ask(const Json::Value& request) {
    const auto answer = m_client->Call(request);
    if (!answer) {
        m_exit = LostService(m_context);
        return std::nullopt;
    }
    if (answer->isMember("error")) {
        if (m_context.json) {
            Json::Value out(Json::objectValue);
            out["error"] = (*answer)["error"];
            std::cout << CompactJson(out) << std::endl;
        }
        m_exit = Fail("the service failed: " + (*answer)["error"].asString());
        return std::nullopt;
    }
    const Json::Value reply = (*answer)["reply"];
    if (m_context.json) std::cout << CompactJson(reply) << std::endl;
    if (IsRefusal(*answer) && m_exit == kExitDone) m_exit = kExitRefused;
    return reply;
}

std::optional<Json::Value> ServiceSession::AskMethod(const std::string& method) {
    Json::Value request(Json::objectValue);
    request["method"] = method;
    return Ask(request);
}

std::vector<Json::Value> ServiceSession::TakeNotifications(const std::string& name) {
    // Notifications written before an answer are already read: a zero wait collects them all.
    while (auto frame = m_client->ReadFrame(std::chrono::milliseconds(0))) {
        if (frame->isMember("notification")) m_notifications.push_back(*frame);
    }
    std::vector<Json::Value> taken;
    auto kept = m_notifications.begin();
    for (auto& frame : m_notifications) {
        const Json::Value& body = frame["notification"];
        if (body.isObject() && body["name"] == name) {
            if (m_context.json) std::cout << CompactJson(frame) << std::endl;
            taken.push_back(body);
        } else {
            *kept++ = frame;
        }
    }
    m_notifications.erase(kept, m_notifications.end());
    return taken;
}

std::optional<Json::Value> ServiceSession::WaitForNotification(const std::string& name,
                                                               const std::string& what,
                                                               std::chrono::milliseconds timeout) {
    CatchInterrupts();
    const bool terminal = isatty(STDERR_FILENO) != 0;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + timeout;
    std::cerr << "waiting for " << what << " (up to " << timeout.count() / 1000 << " s)"
              << (terminal ? "" : "\n") << std::flush;
    while (!Interrupted()) {
        auto taken = TakeNotifications(name);
        if (!taken.empty()) {
            if (terminal) std::cerr << "\n";
            return taken.front();
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) break;
        if (terminal) {
            const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - start).count();
            std::cerr << "\rwaiting for " << what << ": " << waited << " s" << std::flush;
        }
        const auto slice = std::min<std::chrono::milliseconds>(
            std::chrono::milliseconds(1000),
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now));
        auto frame = m_client->ReadFrame(slice);
        if (frame) {
            if (frame->isMember("notification")) m_notifications.push_back(*frame);
        } else if (m_client->Closed()) {
            if (terminal) std::cerr << "\n";
            m_exit = LostService(m_context);
            return std::nullopt;
        }
    }
    if (terminal) std::cerr << "\n";
    m_exit = Fail(Interrupted() ? "interrupted while waiting for " + what : "timed out waiting for " + what);
    return std::nullopt;
}

int ServiceSession::Refuse(const std::string& message) {
    m_exit = Fail(message);
    return m_exit;
}

std::vector<std::string> DescribeAgreements(const std::string& text) {
    std::vector<std::string> entries;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(';', start);
        if (end == std::string::npos) end = text.size();
        const std::string entry = text.substr(start, end - start);
        const size_t colon = entry.rfind(':');
        if (colon == std::string::npos) {
            entries.push_back(entry);
        } else {
            entries.push_back(
                entry.substr(0, colon) +
                (entry.compare(colon + 1, std::string::npos, "true") == 0 ? " agreed" : " disagreed"));
        }
        start = end + 1;
    }
    return entries;
}

void PrintTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(header.size(), 0);
    auto measure = [&widths](const std::vector<std::string>& row) {
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    };
    measure(header);
    for (const auto& row : rows) measure(row);
    auto print = [&widths](const std::vector<std::string>& row) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
        }
        std::cout << line << "\n";
    };
    print(header);
    for (const auto& row : rows) print(row);
    std::cout << std::flush;
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace tarvoctl
