// One connection to the service for the friendly verbs: calls whose replies are printed as
// they came under --json, waits for a named notification, and the exit code the answers add
// up to. Used from the main thread only.
#pragma once

#include "context.h"

#include <json/json.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarvoctl {

class ServiceSession {
  public:
    explicit ServiceSession(Context& context) : m_context(context) {}

    // Connects; false after printing why (the exit code is then kExitNoService).
    bool Open();
    // Notifications are wanted; they are collected as they come, also during calls.
    bool Subscribe();
    // The reply of one call, null for an empty reply. Nullopt when the host answered with an
    // error or was lost: the reason is printed and ExitCode() tells it. A reply whose "result"
    // is false makes the exit code kExitRefused.
    std::optional<Json::Value> Ask(const Json::Value& request);
    // A call made of a method and nothing else.
    std::optional<Json::Value> AskMethod(const std::string& method);
    // Notification bodies named `name` that have arrived so far, in order; printed under --json.
    std::vector<Json::Value> TakeNotifications(const std::string& name);
    // Waits up to `timeout` for the notification `name`, telling `what` it waits for on stderr.
    std::optional<Json::Value> WaitForNotification(const std::string& name, const std::string& what,
                                                   std::chrono::milliseconds timeout);

    int ExitCode() const { return m_exit; }
    // Records a failure that the verb itself found.
    int Refuse(const std::string& message);
    bool JsonOutput() const { return m_context.json; }

  private:
    Context& m_context;
    std::unique_ptr<Client> m_client;
    int m_exit = kExitDone;
    std::vector<Json::Value> m_notifications;
};

// The "id:true;" entries of an agreement text as "id agreed" / "id disagreed".
std::vector<std::string> DescribeAgreements(const std::string& text);
// Prints rows under a header, each column as wide as its widest cell; the last column is free.
void PrintTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);
const char* YesNo(bool value);

}  // namespace tarvoctl
