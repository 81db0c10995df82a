#include "TarvoExternalData.h"

#include <json/json.h>
#include <nimbra.h>

#include <cstdlib>
#include <exception>
#include <string>

#include "TarvoLog.h"

namespace {

// Parses with comments collected; true only for a JSON object. The reader refuses nesting deeper
// than its stack limit by throwing, and JsonCpp throws on a member read from anything but an
// object, so both count as text that is no list.
bool ParseObject(const std::string& text, Json::Value& root) {
    try {
        Json::Reader reader;
        return reader.parse(text, root, true) && root.isObject();
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

bool CTarvoExternalData::GetCountryCodeList() {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (m_CountryCodeList != nullptr) {
        for (STTarvoCountryCode* country : *m_CountryCodeList) {
            delete country;
        }
        delete m_CountryCodeList;
        m_CountryCodeList = nullptr;
    }
    // From here on the former list is gone, whatever the fetch gives.
    m_CountryCodeList = new std::vector<STTarvoCountryCode*>();

    char* text = nullptr;
    nimbra_get_countrylist(&text);
    if (text == nullptr) {
        TARVO_LOGW("nimbra_get_countrylist NULL");
        return false;
    }
    std::string rawData(text);
    TARVO_LOGW("nimbra_get_countrylist rawData %s", rawData.c_str());
    free(text);

    Json::Value root;
    if (!ParseObject(rawData, root)) {
        TARVO_LOGW("<<WARN: NOT JSON TYPE MESSAGE>>");
        return false;
    }
    if (root["rsp"].empty()) {
        TARVO_LOGW("rsp is empty");
        return false;
    }
    // An "rsp" that is no object has no members to read: the list is no JSON the service knows.
    if (!root["rsp"].isObject()) {
        TARVO_LOGW("<<WARN: NOT JSON TYPE MESSAGE>>");
        return false;
    }
    Json::Value rsp = root["rsp"];
    if (!rsp["stat"].isString()) {
        TARVO_LOGW("stat is not string type");
        return false;
    }
    std::string stat = rsp["stat"].asString();
    TARVO_LOGW("nimbra_get_countrylist result stat %s", stat.c_str());
    if (stat != "ok") {
        TARVO_LOGW("GetCountryCodeList stat is not ok :%s", stat.c_str());
        return false;
    }
    if (!rsp["modelId"].isString()) {
        TARVO_LOGW("modelId is not string type");
        return false;
    }
    TARVO_LOGW("nimbra_get_countrylist result modelIdStr %s", rsp["modelId"].asString().c_str());
    const Json::Value& countries = rsp["countriesList"];
    if (!countries.isArray()) {
        TARVO_LOGW("modelId is not array type");
        return false;
    }
    for (Json::ArrayIndex i = 0; i < countries.size(); ++i) {
        const Json::Value& country = countries[i];
        const bool isCountry =
            country.isObject() && country["countryCode"].isString() && country["countryName"].isString();
        if (isCountry) {
            const Json::Value& code = country["countryCode"];
            const Json::Value& name = country["countryName"];
            m_CountryCodeList->push_back(new STTarvoCountryCode{code.asString(), name.asString()});
        } else {
            TARVO_LOGW("countryCode countryName is not string type");
        }
    }
    if (m_CountryCodeList->empty()) {
        TARVO_LOGW("m_CountryCodeList Empty");
        return false;
    }
    return true;
}

void CTarvoExternalData::CopyCountryCodeList(std::vector<STTarvoCountryCode*>& out) {
    Sedge::TCMutexGuard guard(m_Mutex);
    if (m_CountryCodeList == nullptr || m_CountryCodeList->empty()) {
        return;
    }
    for (const STTarvoCountryCode* country : *m_CountryCodeList) {
        out.push_back(new STTarvoCountryCode(*country));
    }
}
