#include "TarvoKelvaneParser.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>

#include "TarvoLog.h"

namespace {

// One element still to be visited by the breadth-first walk.
struct STParseEntry {
    std::string parentKey;
    std::string key;
    xmlNode* node;
};

const char* NodeName(const xmlNode* node) {
    return node->name != nullptr ? reinterpret_cast<const char*>(node->name) : "";
}

}  // namespace

CTarvoKelvaneParser::CTarvoKelvaneParser() {
    m_NodeAmount.clear();
    m_NodeValue.clear();
    m_AttrValue.clear();
    m_ErrorMsg.clear();
    m_Stat.clear();
}

CTarvoKelvaneParser::~CTarvoKelvaneParser() {
    m_NodeAmount.clear();
    m_NodeValue.clear();
    m_AttrValue.clear();
    m_ErrorMsg.clear();
    m_Stat.clear();
}

bool CTarvoKelvaneParser::Parse(char* buffer, unsigned int size) {
    if (size == 0 || buffer == nullptr) {
        TARVO_LOGW("Xml data empty.");
        return false;
    }
    TARVO_LOGD("begin to parse xml...");
    xmlKeepBlanksDefault(0);
    xmlDoc* doc = xmlParseMemory(buffer, static_cast<int>(size));
    if (doc == nullptr) {
        m_ErrorMsg = "xml file does not exist!";
        return false;
    }
    xmlNode* root = xmlDocGetRootElement(doc);
    if (root == nullptr) {
        m_ErrorMsg = "xml file is empty!";
        xmlFreeDoc(doc);
        return false;
    }
    if (xmlStrcmp(root->name, reinterpret_cast<const xmlChar*>("rsp")) != 0) {
        m_ErrorMsg = "xml rootnode is not qualified!";
        xmlFreeDoc(doc);
        return false;
    }
    for (xmlAttr* attr = root->properties; attr != nullptr; attr = attr->next) {
        if (xmlStrcmp(attr->name, reinterpret_cast<const xmlChar*>("stat")) == 0) {
            xmlChar* value = xmlGetProp(root, attr->name);
            if (value != nullptr) {
                m_Stat = reinterpret_cast<const char*>(value);
                xmlFree(value);
            }
            break;
        }
    }

    std::list<STParseEntry*> work;
    work.push_back(new STParseEntry{std::string(), std::string(), root});
    while (!work.empty()) {
        STParseEntry* entry = work.front();
        xmlNode* node = entry->node;
        if (xmlStrlen(node->name) > 0) {
            entry->key = entry->parentKey + "/" + NodeName(node);
            auto found = m_NodeAmount.find(entry->key);
            if (found == m_NodeAmount.end()) {
                m_NodeAmount[entry->key] = 1;
            } else {
                char suffix[11];
                std::memset(suffix, 0, sizeof(suffix));
                std::snprintf(suffix, 10, "%s%u", "#", found->second);
                found->second++;
                entry->key += suffix;
            }
            for (xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
                const std::string attrKey = entry->key + "/" + NodeName(reinterpret_cast<xmlNode*>(attr));
                xmlChar* value = xmlGetProp(node, attr->name);
                if (value != nullptr) {
                    m_AttrValue[attrKey] = reinterpret_cast<const char*>(value);
                    xmlFree(value);
                }
            }
        }
        for (xmlNode* child = node->children; child != nullptr; child = child->next) {
            if (child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) {
                xmlChar* content = xmlNodeGetContent(child);
                if (content != nullptr) {
                    m_NodeValue[entry->key] = reinterpret_cast<const char*>(content);
                    xmlFree(content);
                }
            } else {
                work.push_back(new STParseEntry{entry->key, std::string(), child});
            }
        }
        work.pop_front();
        delete entry;
    }
    xmlFreeDoc(doc);
    return true;
}

unsigned int CTarvoKelvaneParser::GetNodeAmount(const std::string& key) {
    auto found = m_NodeAmount.find(key);
    return found == m_NodeAmount.end() ? 0 : found->second;
}

bool CTarvoKelvaneParser::GetNodeValue(const std::string& key, std::string& value) {
    auto found = m_NodeValue.find(key);
    if (found == m_NodeValue.end()) return false;
    value = found->second;
    return true;
}

bool CTarvoKelvaneParser::GetAttrValue(const std::string& key, std::string& value) {
    auto found = m_AttrValue.find(key);
    if (found == m_AttrValue.end()) return false;
    value = found->second;
    return true;
}

int CTarvoKelvaneParser::GetErrorCode() {
    const std::string key = std::string("/") + "rsp" + "/" + "err" + "/" + "code";
    std::string code;
    if (!GetAttrValue(key, code)) return -1;
    return static_cast<int>(std::strtol(code.c_str(), nullptr, 10));
}

std::string CTarvoKelvaneParser::GetErrorMsg() {
    if (m_ErrorMsg.empty()) {
        const std::string key = std::string("/") + "rsp" + "/" + "err" + "/" + "msg";
        GetAttrValue(key, m_ErrorMsg);
    }
    return m_ErrorMsg;
}

std::string CTarvoKelvaneParser::GetStat() { return m_Stat; }
