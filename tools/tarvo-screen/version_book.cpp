#include "version_book.h"

#include "client.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace tarvoscreen {

namespace {

std::string BookPath(const std::string& socket) {
    const size_t slash = socket.rfind('/');
    return (slash == std::string::npos ? std::string(".") : socket.substr(0, slash)) +
           "/tarvo-screen-versions.json";
}

}  // namespace

VersionBook::VersionBook(const std::string& socket_path) : m_path(BookPath(socket_path)) {
    std::ifstream in(m_path);
    if (!in) return;
    std::stringstream text;
    text << in.rdbuf();
    const auto book = tarvoctl::ParseJson(text.str());
    // A damaged book is started afresh: it only names old versions.
    if (book && book->isObject()) m_book = *book;
}

void VersionBook::Update(const std::vector<Json::Value>& records) {
    std::lock_guard<std::mutex> lock(m_mutex);
    bool changed = false;
    for (const auto& record : records) {
        if (!record["id"].isString() || !record["version"].isString()) continue;
        const std::string id = record["id"].asString();
        Json::Value entry =
            m_book.isMember(id) && m_book[id].isObject() ? m_book[id] : Json::Value(Json::objectValue);
        const std::string version = record["version"].asString();
        if (entry["version"].isString() && entry["version"].asString() != version) {
            entry["previous"] = entry["version"];
            entry["previous_agreed"] = entry["agreed"].isBool() && entry["agreed"].asBool();
        }
        entry["version"] = version;
        entry["agreed"] = record["is_agreed"].isBool() && record["is_agreed"].asBool();
        if (entry != m_book[id]) {
            m_book[id] = entry;
            changed = true;
        }
    }
    if (changed) m_Save();
}

Json::Value VersionBook::Snapshot() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_book;
}

void VersionBook::m_Save() const {
    const std::string temp = m_path + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << tarvoctl::CompactJson(m_book) << "\n";
        if (!out) return;
    }
    std::rename(temp.c_str(), m_path.c_str());
}

}  // namespace tarvoscreen
