// How tarvoctl reads and shows disclaimers: the lists each requester gets, where each
// disclaimer is shown (its screen area and the screens that list it), the table of `list`
// and the page of `show`. Main thread only.
#pragma once

#include "service_session.h"

#include <json/json.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarvoctl {

// Requesters of the ordered lists, with the names people know them by.
struct Requester {
    int value;
    const char* name;
};
const std::vector<Requester>& Requesters();
std::string RequesterName(int value);

// The disclaimers requester `requester` gets, in its order, each without the reply's "result".
std::optional<std::vector<Json::Value>> CollectDisclaimers(ServiceSession& session, int requester);

// Where the disclaimers are shown, as far as the service's lists tell.
struct Placement {
    // Requesters 0 to 2 get their list sorted by screen area first, so the places where the order
    // falls back mark a new area. "Main", "Sub", "Menu", "Main|Sub" when the lists leave it open,
    // "?" when they tell nothing.
    std::map<std::string, std::string> window;
    // The requesters whose list holds each id.
    std::map<std::string, std::set<int>> seen_by;
    // Every disclaimer any requester lists, by id.
    std::map<std::string, Json::Value> records;
    // The lists of requesters 0, 1, 2 and 4 as the service gave them.
    std::map<int, std::vector<Json::Value>> lists;
};
std::optional<Placement> Locate(ServiceSession& session);

// "pnp+menu", "pnp", "menu" or "-": the screens whose lists hold the id.
std::string GroupOf(const Placement& placement, const std::string& id);
// For an id no list holds: ": did you mean a, b?" naming the close ids, else ": the ids listed
// are ..." naming all of them, else ": the service lists no disclaimers".
std::string KnownIdsWords(const Placement& placement, const std::string& id);
// A disclaimer as one --json document: its fields, "window" and "seen_by".
Json::Value DisclaimerDocument(const Json::Value& disclaimer, const Placement& placement);

// The table of `list` and `revised`.
void PrintDisclaimerTable(const std::vector<Json::Value>& disclaimers, const Placement& placement);
// Every field of one disclaimer, its texts wrapped and its sectioned details under their titles.
void PrintDisclaimerPage(const Json::Value& disclaimer, const Placement& placement);

}  // namespace tarvoctl
