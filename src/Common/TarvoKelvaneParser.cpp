#include "TarvoKelvaneParser.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

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

// The agreement server answers in a few hundred bytes. These bounds keep a hostile answer from
// holding the upload's worker: libxml2 and the walk are quadratic in the attributes of an element.
// Four full blocks of the reception.
constexpr unsigned int kMaxAnswerBytes = 64 * 1024;
// Each of '<' and '=' in the raw answer, bounding what libxml2 builds before anything is counted.
constexpr long kMaxMarkup = 4096;
constexpr unsigned int kMaxNodes = 1024;
constexpr unsigned int kMaxAttributes = 1024;

// Elements, comments and processing instructions are walked; anything else below an element
// (an entity reference and the declaration it points to) is not.
bool IsWalked(const xmlNode* node) {
    return node->type == XML_ELEMENT_NODE || node->type == XML_COMMENT_NODE || node->type == XML_PI_NODE;
}

// A DOCTYPE stops the parse before its subset is read: no entity of an answer is declared,
// expanded or fetched.
void RefuseDocType(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    xmlParserCtxt* parser = static_cast<xmlParserCtxt*>(context);
    *static_cast<bool*>(parser->_private) = true;
    xmlStopParser(parser);
}

// The answer's tree, or null when it is no well-formed document or has a DOCTYPE. The options
// are those of xmlParseMemory under xmlKeepBlanksDefault(0), without the network and stderr.
xmlDoc* ReadAnswer(const char* buffer, unsigned int size, bool& hasDocType) {
    hasDocType = false;
    xmlParserCtxt* parser = xmlCreateMemoryParserCtxt(buffer, static_cast<int>(size));
    if (parser == nullptr) return nullptr;
    xmlCtxtUseOptions(parser, XML_PARSE_NOBLANKS | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    parser->sax->internalSubset = &RefuseDocType;
    parser->_private = &hasDocType;
    xmlParseDocument(parser);
    xmlDoc* doc = parser->myDoc;
    if (doc != nullptr && (!parser->wellFormed || hasDocType)) {
        xmlFreeDoc(doc);
        doc = nullptr;
    }
    parser->myDoc = nullptr;
    xmlFreeParserCtxt(parser);
    return doc;
}

// Counts what the walk would visit, stopping once a bound is passed.
bool WithinBounds(xmlNode* root) {
    unsigned int nodes = 0;
    unsigned int attributes = 0;
    std::vector<xmlNode*> pending{root};
    while (!pending.empty()) {
        xmlNode* node = pending.back();
        pending.pop_back();
        if (++nodes > kMaxNodes) return false;
        for (xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next) {
            if (++attributes > kMaxAttributes) return false;
        }
        for (xmlNode* child = node->children; child != nullptr; child = child->next) {
            if (IsWalked(child)) pending.push_back(child);
        }
    }
    return true;
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
    // Bounds the parse itself, which runs before any count can be taken.
    if (size > kMaxAnswerBytes) {
        TARVO_LOGW("xml answer of %u bytes is over %u, not parsed", size, kMaxAnswerBytes);
        m_ErrorMsg = "xml answer is too large!";
        return false;
    }
    const long opens = std::count(buffer, buffer + size, '<');
    const long equals = std::count(buffer, buffer + size, '=');
    if (opens > kMaxMarkup || equals > kMaxMarkup) {
        TARVO_LOGW("xml answer with %ld '<' and %ld '=' is over %ld of either, not parsed", opens, equals,
                   kMaxMarkup);
        m_ErrorMsg = "xml answer has too many nodes or attributes!";
        return false;
    }
    TARVO_LOGD("begin to parse xml...");
    xmlKeepBlanksDefault(0);
    bool hasDocType = false;
    xmlDoc* doc = ReadAnswer(buffer, size, hasDocType);
    if (hasDocType) {
        // An answer never declares anything; entities would be walked into or fetched.
        TARVO_LOGW("xml answer with a DOCTYPE refused");
        m_ErrorMsg = "xml answer has a DOCTYPE!";
        return false;
    }
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
    if (!WithinBounds(root)) {
        TARVO_LOGW("xml answer over %u nodes or %u attributes, not read", kMaxNodes, kMaxAttributes);
        m_ErrorMsg = "xml answer has too many nodes or attributes!";
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
            } else if (IsWalked(child)) {
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
