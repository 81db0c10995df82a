#include "service_session.h"

#include "terminal.h"
#include "verbs.h"

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
            PrintDocument(out);
        }
        m_exit = Fail("the service failed: " + (*answer)["error"].asString());
        return std::nullopt;
    }
    if (IsRefusal(*answer) && m_exit == kExitDone) m_exit = kExitRefused;
    return (*answer)["reply"];
}

std::optional<Json::Value> ServiceSession::AskMethod(const std::string& method) {
    Json::Value request(Json::objectValue);
    request["method"] = method;
    return Ask(request);
}

std::optional<Json::Value> ServiceSession::AskQuestion(const std::string& method) {
    const int before = m_exit;
    auto reply = AskMethod(method);
    if (reply && m_exit == kExitRefused) m_exit = before;
    return reply;
}

bool ServiceSession::Control(const std::string& name, int state) {
    const auto answer = m_client->Control(name, state);
    if (!answer) {
        m_exit = LostService(m_context);
        return false;
    }
    if (answer->isMember("error")) {
        m_exit = Fail("the host refused " + name + ": " + (*answer)["error"].asString());
        return false;
    }
    return true;
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
            taken.push_back(body);
        } else {
            *kept++ = frame;
        }
    }
    m_notifications.erase(kept, m_notifications.end());
    return taken;
}

std::optional<Json::Value> ServiceSession::WaitForNotification(const std::string& name,
                                                               std::chrono::milliseconds timeout,
                                                               const std::function<std::string()>& awaited) {
    CatchInterrupts();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    Progress progress(timeout);
    std::string what;
    while (!Interrupted()) {
        auto taken = TakeNotifications(name);
        if (!taken.empty()) return taken.front();
        what = awaited();
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) break;
        progress.Show(what);
        const auto slice = std::min<std::chrono::milliseconds>(
            std::chrono::milliseconds(250),
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now));
        auto frame = m_client->ReadFrame(slice);
        if (frame) {
            if (frame->isMember("notification")) m_notifications.push_back(*frame);
        } else if (m_client->Closed()) {
            progress.Clear();
            m_exit = LostService(m_context);
            return std::nullopt;
        }
    }
    progress.Clear();
    const auto seconds = std::to_string((timeout.count() + 999) / 1000);
    m_exit = Fail(Interrupted() ? "interrupted while waiting for " + what
                                : "timed out after " + seconds + " s waiting for " + what);
    return std::nullopt;
}

int ServiceSession::Refuse(const std::string& message) {
    m_exit = Fail(message);
    return m_exit;
}

void PrintTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths(header.size(), 0);
    auto measure = [&widths](const std::vector<std::string>& row) {
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], DisplayWidth(row[i]));
    };
    measure(header);
    for (const auto& row : rows) measure(row);
    auto print = [&widths](const std::vector<std::string>& row) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line += std::string(widths[i] - DisplayWidth(row[i]) + 2, ' ');
        }
        std::cout << line << "\n";
    };
    print(header);
    for (const auto& row : rows) print(row);
    std::cout << std::flush;
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }

void PrintDocument(const Json::Value& document) { std::cout << CompactJson(document) << std::endl; }

}  // namespace tarvoctl
