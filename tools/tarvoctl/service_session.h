// One connection to the service for the friendly verbs: calls, a wait for a named
// notification with a progress line, and the exit code the answers add up to. The verbs print
// their own results; under --json a host error is printed here as {"error": ...}. Used from the
// main thread only.
#pragma once

#include "context.h"

#include <json/json.h>

#include <chrono>
#include <functional>
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
    // Like AskMethod, for a question whose false "result" is an answer, not a refusal.
    std::optional<Json::Value> AskQuestion(const std::string& method);
    // Runs a power control ("wakeup", "power-off") with `state`; false after printing why.
    bool Control(const std::string& name, int state);
    // Notification bodies named `name` that have arrived so far, in order.
    std::vector<Json::Value> TakeNotifications(const std::string& name);
    // Waits up to `timeout` for the notification `name`. While it waits, `awaited` is asked
    // about four times a second what is awaited now, for the progress line.
    std::optional<Json::Value> WaitForNotification(const std::string& name, std::chrono::milliseconds timeout,
                                                   const std::function<std::string()>& awaited);

    int ExitCode() const { return m_exit; }
    // Records a failure that the verb itself found.
    int Refuse(const std::string& message);
    bool JsonOutput() const { return m_context.json; }
    Context& GetContext() { return m_context; }

  private:
    Context& m_context;
    std::unique_ptr<Client> m_client;
    int m_exit = kExitDone;
    std::vector<Json::Value> m_notifications;
};

// Prints rows under a header, each column as wide as its widest cell; the last column is free.
void PrintTable(const std::vector<std::string>& header, const std::vector<std::vector<std::string>>& rows);
const char* YesNo(bool value);
// Prints one JSON document on a line of its own.
void PrintDocument(const Json::Value& document);

}  // namespace tarvoctl
