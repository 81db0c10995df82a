#include "disclaimer_view.h"

#include "terminal.h"

#include <algorithm>
#include <iostream>

namespace tarvoctl {

namespace {

const char* const kWindowNames[] = {"none", "Main", "Sub", "Menu"};

// The common items of the wizard's two screens: listed for requester 2 only, and never answered.
bool IsCommonItem(const std::string& id) { return id == "main_common" || id == "sub_common"; }

// Bounds of each id's screen area from the lists sorted by area and then order: along such a
// list the area never falls, and it rises where the order falls back.
std::map<std::string, std::string> InferWindows(const std::map<int, std::vector<Json::Value>>& lists) {
    std::map<std::string, int> low, high;
    for (const auto& list : lists) {
        if (list.first > 2) continue;
        for (const auto& d : list.second) {
            const std::string id = d["id"].asString();
            // A common item is listed whatever its area, also with none.
            low.emplace(id, IsCommonItem(id) ? 0 : 1);
            high.emplace(id, 3);
        }
    }
    for (bool changed = true; changed;) {
        changed = false;
        for (const auto& list : lists) {
            if (list.first > 2) continue;
            for (size_t i = 1; i < list.second.size(); ++i) {
                const std::string a = list.second[i - 1]["id"].asString();
                const std::string b = list.second[i]["id"].asString();
                const int step =
                    list.second[i]["order"].asInt() < list.second[i - 1]["order"].asInt() ? 1 : 0;
                if (low[b] < low[a] + step) {
                    low[b] = low[a] + step;
                    changed = true;
                }
                if (high[a] > high[b] - step) {
                    high[a] = high[b] - step;
                    changed = true;
                }
            }
        }
    }
    std::map<std::string, std::string> windows;
    for (const auto& [id, lo] : low) {
        const int hi = high[id];
        if (lo == hi && lo >= 0 && lo <= 3) {
            windows[id] = kWindowNames[lo];
        } else if (hi == lo + 1 && lo >= 0) {
            windows[id] = std::string(kWindowNames[lo]) + "|" + kWindowNames[hi];
        } else {
            windows[id] = "?";
        }
    }
    return windows;
}

std::string WindowOf(const Placement& placement, const std::string& id) {
    const auto it = placement.window.find(id);
    return it == placement.window.end() ? "?" : it->second;
}

std::string SeenBy(const Placement& placement, const std::string& id) {
    std::string names;
    const auto it = placement.seen_by.find(id);
    if (it == placement.seen_by.end()) return "no requester";
    for (int requester : it->second) {
        names += (names.empty() ? "" : ", ") + std::to_string(requester) + " " + RequesterName(requester);
    }
    return names;
}

// The details of "pp" may be a JSON array of {"title", "content"} sections.
std::optional<Json::Value> Sections(const std::string& details) {
    const size_t first = details.find_first_not_of(" \n");
    if (first == std::string::npos || details[first] != '[') return std::nullopt;
    auto parsed = ParseJson(details.substr(first, details.find_last_not_of(" \n") - first + 1));
    if (!parsed || !parsed->isArray()) return std::nullopt;
    return parsed;
}

void PrintField(const std::string& label, const std::string& value) {
    const std::string indent(18, ' ');
    const auto lines = Wrap(value, OutputWidth() > 28 ? OutputWidth() - 18 : 10);
    std::cout << label << std::string(label.size() < 18 ? 18 - label.size() : 1, ' ')
              << (lines.empty() ? "" : lines.front()) << "\n";
    for (size_t i = 1; i < lines.size(); ++i) std::cout << indent << lines[i] << "\n";
}

void PrintSections(const Json::Value& sections) {
    int number = 0;
    for (const auto& section : sections) {
        ++number;
        if (!section.isObject()) {
            PrintWrapped(section.isString() ? section.asString() : CompactJson(section), "  ");
            continue;
        }
        const std::string title = section["title"].isString() ? section["title"].asString() : "";
        std::cout << "  " << number << ". " << (title.empty() ? "(untitled)" : title) << "\n";
        for (const auto& key : section.getMemberNames()) {
            if (key == "title") continue;
            const Json::Value& value = section[key];
            const std::string text = value.isString() ? value.asString() : CompactJson(value);
            PrintWrapped(key == "content" ? text : key + ": " + text, "     ");
        }
    }
}

}  // namespace

const std::vector<Requester>& Requesters() {
    static const std::vector<Requester> requesters = {
        {0, "menu"}, {1, "app"}, {2, "pnp"}, {3, "none"}, {4, "all"}};
    return requesters;
}

std::string RequesterName(int value) {
    for (const auto& requester : Requesters()) {
        if (requester.value == value) return requester.name;
    }
    return "requester " + std::to_string(value);
}

std::optional<std::vector<Json::Value>> CollectDisclaimers(ServiceSession& session, int requester) {
    Json::Value request(Json::objectValue);
    request["method"] = "get disclaimer number";
    request["requester"] = requester;
    const auto number = session.Ask(request);
    if (!number) return std::nullopt;
    std::vector<Json::Value> disclaimers;
    request["method"] = "get disclaimer by order";
    for (Json::UInt i = 0; i < (*number)["number"].asUInt(); ++i) {
        request["request_index"] = i;
        auto reply = session.Ask(request);
        if (!reply) return std::nullopt;
        // A record withdrawn since the count was taken answers false: left out, and the exit code says so.
        if (!(*reply)["result"].asBool()) continue;
        reply->removeMember("result");
        disclaimers.push_back(*reply);
    }
    return disclaimers;
}

std::optional<Placement> Locate(ServiceSession& session) {
    Placement placement;
    auto& lists = placement.lists;
    for (int requester : {0, 1, 2, 4}) {
        auto list = CollectDisclaimers(session, requester);
        if (!list) return std::nullopt;
        for (const auto& d : *list) {
            placement.seen_by[d["id"].asString()].insert(requester);
            placement.records[d["id"].asString()] = d;
        }
        lists[requester] = std::move(*list);
    }
    placement.window = InferWindows(lists);
    return placement;
}

namespace {

// Edits (insert, delete, replace) between two ids.
size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string JoinIds(const std::vector<std::string>& ids) {
    std::string joined;
    for (const auto& id : ids) joined += (joined.empty() ? "" : ", ") + id;
    return joined;
}

}  // namespace

std::string KnownIdsWords(const Placement& placement, const std::string& id) {
    if (placement.records.empty()) return ": the service lists no disclaimers";
    std::vector<std::string> all, close;
    for (const auto& entry : placement.records) {
        const std::string& known = entry.first;
        all.push_back(known);
        const bool part =
            !id.empty() && (known.find(id) != std::string::npos || id.find(known) != std::string::npos);
        if (part || EditDistance(id, known) <= std::max<size_t>(1, known.size() / 3)) close.push_back(known);
    }
    if (!close.empty())
        return ": did you mean " + JoinIds(close) + "? (the ids listed are " + JoinIds(all) + ")";
    return ": the ids listed are " + JoinIds(all);
}

std::string GroupOf(const Placement& placement, const std::string& id) {
    const auto it = placement.seen_by.find(id);
    if (it == placement.seen_by.end()) return "-";
    const bool pnp = it->second.count(2) > 0;
    const bool menu = it->second.count(0) > 0;
    if (pnp && menu) return "pnp+menu";
    return pnp ? "pnp" : menu ? "menu" : "-";
}

Json::Value DisclaimerDocument(const Json::Value& disclaimer, const Placement& placement) {
    Json::Value document = disclaimer;
    document.removeMember("result");
    const std::string id = disclaimer["id"].asString();
    document["window"] = WindowOf(placement, id);
    document["seen_by"] = Json::Value(Json::arrayValue);
    if (const auto it = placement.seen_by.find(id); it != placement.seen_by.end()) {
        for (int requester : it->second) document["seen_by"].append(RequesterName(requester));
    }
    return document;
}

void PrintDisclaimerTable(const std::vector<Json::Value>& disclaimers, const Placement& placement) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& d : disclaimers) {
        const std::string id = d["id"].asString();
        rows.push_back({std::to_string(d["order"].asInt()), WindowOf(placement, id), GroupOf(placement, id),
                        id, d["version"].asString(), YesNo(d["is_agreed"].asBool()),
                        YesNo(d["only_notice"].asBool()), d["title"].asString()});
    }
    PrintTable({"ORDER", "WINDOW", "GROUP", "ID", "VERSION", "AGREED", "NOTICE", "TITLE"}, rows);
}

void PrintDisclaimerPage(const Json::Value& d, const Placement& placement) {
    const std::string id = d["id"].asString();
    PrintField("id", id);
    PrintField("title", d["title"].asString());
    PrintField("version", d["version"].asString());
    PrintField("order", std::to_string(d["order"].asInt()) + " (window " + WindowOf(placement, id) + ")");
    PrintField("seen by", SeenBy(placement, id));
    PrintField("agreed",
               IsCommonItem(id) ? "takes no answer (a common item)" : YesNo(d["is_agreed"].asBool()));
    PrintField("only notice", YesNo(d["only_notice"].asBool()));
    PrintField("pp used", YesNo(d["ppused"].asBool()));
    PrintField("reverse", YesNo(d["reverse"].asBool()));
    PrintField("agree dependency", d["agree_dependency"].asString());
    for (int i = 1; i <= 10; ++i) {
        const std::string key = "button" + std::to_string(i);
        if (!d[key].asString().empty()) PrintField(key, d[key].asString());
    }
    std::cout << "intro:\n";
    PrintWrapped(d["intro"].asString(), "  ");
    std::cout << "details:\n";
    const std::string details = d["details"].asString();
    if (const auto sections = Sections(details)) {
        PrintSections(*sections);
    } else {
        PrintWrapped(details, "  ");
    }
    std::cout << std::flush;
}

}  // namespace tarvoctl
