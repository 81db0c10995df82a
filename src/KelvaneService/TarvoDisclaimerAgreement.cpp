#include "TarvoDisclaimerAgreement.h"

#include <ZephCurl/ZephCurlEasy.h>
#include <libxml/parser.h>
#include <openssl/sha.h>
#include <tarvo/platform.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

#include "TarvoDataControlService.h"
#include "TarvoDisclaimerDataItem.h"
#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoKelvaneParser.h"
#include "TarvoLog.h"

namespace {

constexpr const char* kWorkerName = "DisclaimerAgreement";
constexpr const char* kAgreementPath = "/openapi/zephterms/";
constexpr const char* kProductionKey = "7c1e04a2-3b9d-4f16-8a52-e6d0c4b7f913";
constexpr const char* kStagingKey = "a4d92e60-15f7-4c3b-b8e1-2f06d7c93a58";
constexpr size_t kMaxReceiveBlock = 16384;

const xmlChar* XmlText(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

std::string AgreementUrl() {
    const char* host = CTarvoExternalData::GetInstance()->IsServiceMode() ? "agreement_production_host"
                                                                          : "agreement_staging_host";
    return std::string("https://") + platform_deployment_value(host) + kAgreementPath;
}

}  // namespace

CTarvoDisclaimerAgreement::CTarvoDisclaimerAgreement()
    : m_pReadPos(nullptr), m_ReadLeft(0), m_pRecvBuffer(nullptr), m_RecvSize(0) {}

CTarvoDisclaimerAgreement::~CTarvoDisclaimerAgreement() {
    m_pWorker.reset();
    m_AgreementXml.clear();
    m_AgreeValues.clear();
}

bool CTarvoDisclaimerAgreement::Create() {
    TARVO_LOGI("TarvoDisclaimerAgreement Create...");
    // Published atomically: the main service hands this object out before Create, so a client's
    // answer may post here from another thread while the worker is being taken.
    std::atomic_store(&m_pWorker, bracken::ser::WorkerFactory::Get()->GetWorker(kWorkerName));
    PutAgreementToServer();
    return true;
}

void CTarvoDisclaimerAgreement::Destroy() {
    std::free(m_pRecvBuffer);
    m_pRecvBuffer = nullptr;
}

void CTarvoDisclaimerAgreement::PutAgreementToServer() {
    TARVO_LOGI("PutAgreementToServer");
    Sedge::TCEvent event;
    event.type = MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT;
    CTarvoDataControlService::GetInstance()->SendEvent(&event, DISCLAIMER_AGREEMENT_SERV);
}

void CTarvoDisclaimerAgreement::SendEvent(Sedge::TCEvent* event) {
    Sedge::TCEvent copy(*event);
    std::function<void()> fn = [this, copy]() { t_OnEvent(copy); };
    std::shared_ptr<bracken::ser::Worker> worker = std::atomic_load(&m_pWorker);
    // Before Create has taken the worker: Create's own upload carries whatever this event asked for.
    if (worker == nullptr) return;
    bracken::ser::Job* job = new bracken::ser::Job(fn);
    // The info service's wording, kept for every service that posts this way.
    TARVO_LOGD("Send event to KELVANE_INFO_SERV %p", static_cast<void*>(job));
    worker->Do(job);
}

bool CTarvoDisclaimerAgreement::t_OnEvent(Sedge::TCEvent event) {
    TARVO_LOGI("CTarvoDisclaimerAgreement::t_OnEvent....%ld", static_cast<long>(event.type));
    if (event.type != MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT) return true;
    TARVO_LOGI("MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT");
    if (!m_PutAgreementToServer()) {
        TARVO_LOGW("Agreement Server Connection Fail!");
    }
    return true;
}

void CTarvoDisclaimerAgreement::t_Clear(Sedge::TCEvent* /*event*/) {}

bool CTarvoDisclaimerAgreement::m_PutAgreementToServer() {
    TARVO_LOGI("m_PutAgreementToServer");
    if (CTarvoInternalData::GetInstance()->IsAgreementPut()) {
        TARVO_LOGI("already all agreements was put to server");
        return true;
    }
    TARVO_LOGI("m_easyHandle Initialize");
    ZephCurl::ZephCurlEasy easyHandle;
    if (!easyHandle.Initialize()) {
        TARVO_LOGW("m_easyHandle Initialize falied");
        return false;
    }

    bool result = false;
    std::list<std::string> headers;
    // Read before the document is built: an answer given while the upload is on its way is not
    // in it, and must not be marked reported by its success.
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    const unsigned long generation = store->GetAgreementGeneration();
    m_AgreementXml = m_MakeXML();
    if (m_AgreementXml.empty()) {
        TARVO_LOGW("xml size is zero or less");
    } else {
        m_pReadPos = &m_AgreementXml[0];
        m_ReadLeft = static_cast<unsigned int>(m_AgreementXml.size());
        if (m_pRecvBuffer != nullptr) std::free(m_pRecvBuffer);
        m_pRecvBuffer = nullptr;
        m_RecvSize = 0;

        if (!m_SetOption(&easyHandle)) {
            TARVO_LOGW("set option fail");
        } else if (!m_SetHeader(headers, &easyHandle)) {
            TARVO_LOGW("set option fail");
        } else {
            const bool sent = easyHandle.send();
            TARVO_LOGI("m_easyHandle send = %d", easyHandle.getErrorCode());
            if (sent) {
                // The answer has no terminating zero: log a bounded copy.
                const std::string raw =
                    m_pRecvBuffer != nullptr ? std::string(m_pRecvBuffer, m_RecvSize) : std::string();
                TARVO_LOGI("raw data = %s", raw.c_str());
                if (m_IsSuccess()) {
                    TARVO_LOGI("set agreement success!");
                    // Otherwise the event that the change posted, queued behind this one, sends
                    // the answers again with it.
                    if (!store->SetAgreementPutIfUnchanged(generation)) {
                        TARVO_LOGI("answers changed during the upload: they go with the next one");
                    }
                    result = true;
                }
            }
        }
    }
    headers.clear();
    TARVO_LOGI("m_easyHandle reset");
    easyHandle.reset();
    return result;
}

std::string CTarvoDisclaimerAgreement::m_MakeXML() {
    m_AgreeValues.clear();
    xmlDoc* doc = xmlNewDoc(XmlText("1.0"));
    if (doc == nullptr) {
        TARVO_LOGW("Create xml document fail!");
        return std::string();
    }
    xmlNode* root = xmlNewNode(nullptr, XmlText("AgreeTerms"));
    if (root == nullptr) {
        TARVO_LOGW("Create xml node fail!");
        xmlFreeDoc(doc);
        return std::string();
    }
    xmlDocSetRootElement(doc, root);
    m_GetTermsXML(root);

    xmlChar* memory = nullptr;
    int size = 0;
    xmlDocDumpFormatMemoryEnc(doc, &memory, &size, "UTF-8", 1);
    std::string text;
    if (size >= 1 && memory != nullptr) text = reinterpret_cast<const char*>(memory);
    xmlFree(memory);
    xmlFreeDoc(doc);
    TARVO_LOGD("Generate xml : %s", text.c_str());
    return text;
}

void CTarvoDisclaimerAgreement::m_GetTermsXML(xmlNode*& root) {
    CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    std::map<std::string, TarvoDisclaimerDataItem*>* copies = pInternalData->CopyDisclaimerItems(true);
    for (const auto& entry : *copies) {
        const TarvoDisclaimerDataItem* item = entry.second;
        if (item->isOnlyNotice) {
            TARVO_LOGD("%s is not related with Agreement", item->id.c_str());
            continue;
        }
        if (!pInternalData->IsDisclaimerAvailable(item)) {
            TARVO_LOGD("%s is not available", item->id.c_str());
            continue;
        }
        const char* agree = item->isAgreed ? "Y" : "N";
        xmlNode* term = xmlNewChild(root, nullptr, XmlText("term"), nullptr);
        xmlNewTextChild(term, nullptr, XmlText("id"), XmlText(item->id.c_str()));
        xmlNewTextChild(term, nullptr, XmlText("agree"), XmlText(agree));
        xmlNewTextChild(term, nullptr, XmlText("agreeVer"), XmlText(item->version.c_str()));
        m_AgreeValues += agree;
    }
    pInternalData->DeleteCopyMap(copies);
}

bool CTarvoDisclaimerAgreement::m_SetOption(ZephCurl::ZephCurlEasy* easyHandle) {
    const std::string url = AgreementUrl();
    TARVO_LOGI("url = %s", url.c_str());
    if (!easyHandle->setOption(ZephCurl::URL, url)) {
        TARVO_LOGW("setOption - URL return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    easyHandle->setTimeout(3, 10);
    if (!easyHandle->setOption(ZephCurl::TIMEOUT, 90L)) {
        TARVO_LOGW("setOption - TIMEOUT return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::NOSIGNAL, 1L)) {
        TARVO_LOGW("setoption- NOSIGNAL return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setBrellaKelvaneSSLContext()) {
        TARVO_LOGW("setOption - setBrellaKelvaneSSLContext return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::UPLOAD, 1L)) {
        TARVO_LOGW("setoption- UPLOAD return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::PUT, 1L)) {
        TARVO_LOGW("setoption- PUT return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::INFILESIZE_LARGE, static_cast<long>(m_AgreementXml.size()))) {
        TARVO_LOGW("setoption- INFILESIZE_LARGE return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::READFUNCTION, &CTarvoDisclaimerAgreement::m_ReadData)) {
        TARVO_LOGW("setoption- READFUNCTION return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::READDATA, static_cast<void*>(this))) {
        TARVO_LOGW("setoption- READDATA return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::WRITEFUNCTION, &CTarvoDisclaimerAgreement::m_ReceiveData)) {
        TARVO_LOGW("setoption- WRITEFUNCTION return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    if (!easyHandle->setOption(ZephCurl::WRITEDATA, static_cast<void*>(this))) {
        TARVO_LOGW("setoption- WRITEDATA return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    return true;
}

bool CTarvoDisclaimerAgreement::m_SetHeader(std::list<std::string>& headers,
                                            ZephCurl::ZephCurlEasy* easyHandle) {
    CTarvoExternalData* pExternalData = CTarvoExternalData::GetInstance();
    headers.push_back("Content-Type: application/xml;charset=UTF-8");

    const std::string duid = pExternalData->GetDUID();
    const std::string duidHeader = "DUID: " + duid;
    TARVO_LOGD("duidHeader = %s", duidHeader.c_str());
    headers.push_back(duidHeader);

    const std::string country = pExternalData->GetCountryCode();
    const std::string countryHeader = "Country: " + country;
    TARVO_LOGD("countryHeader = %s", countryHeader.c_str());
    headers.push_back(countryHeader);

    const std::string modelId = pExternalData->GetModelID();
    const std::string modelIdHeader = "ModelID: " + modelId;
    TARVO_LOGD("modelIdHeader = %s", modelIdHeader.c_str());
    headers.push_back(modelIdHeader);

    const char* key = pExternalData->IsServiceMode() ? kProductionKey : kStagingKey;
    const std::string signatureStr = duid + "+" + country + "+" + modelId + "+++" + m_AgreeValues + "+" + key;
    TARVO_LOGD("signaturestr = %s", signatureStr.c_str());

    unsigned char digest[SHA_DIGEST_LENGTH];
    std::memset(digest, 0, sizeof(digest));
    SHA1(reinterpret_cast<const unsigned char*>(signatureStr.data()), signatureStr.size(), digest);
    std::string signature;
    for (unsigned char byte : digest) {
        char hex[3];
        std::snprintf(hex, sizeof(hex), "%02x", byte);
        signature += hex;
    }
    const std::string signatureHeader = "Signature: " + signature;
    TARVO_LOGD("signatureHeader = %s", signatureHeader.c_str());
    headers.push_back(signatureHeader);

    if (!easyHandle->setOption(ZephCurl::HTTPHEADER, headers)) {
        TARVO_LOGW("setoption- CURLOPT_HTTPHEADER return CURLcode = %d", easyHandle->getErrorCode());
        return false;
    }
    return true;
}

bool CTarvoDisclaimerAgreement::m_IsSuccess() {
    TARVO_LOGI("Process Agreement Begin...");
    CTarvoKelvaneParser parser;
    if (!parser.Parse(m_pRecvBuffer, m_RecvSize)) return false;
    const std::string stat = parser.GetStat();
    TARVO_LOGI("rsp stat = %s", stat.c_str());
    TARVO_LOGI("errCode = %d", parser.GetErrorCode());
    TARVO_LOGI("errMsg = %s", parser.GetErrorMsg().c_str());
    return stat == "ok";
}

size_t CTarvoDisclaimerAgreement::m_ReadData(char* buffer, size_t size, size_t count, void* user) {
    CTarvoDisclaimerAgreement* agreement = static_cast<CTarvoDisclaimerAgreement*>(user);
    if (agreement == nullptr || agreement->m_pReadPos == nullptr) {
        TARVO_LOGW("agreement is NULL");
        return 0;
    }
    if (agreement->m_ReadLeft == 0) {
        TARVO_LOGD("already put");
        return 0;
    }
    size_t toCopy = size * count;
    if (agreement->m_ReadLeft < toCopy) toCopy = agreement->m_ReadLeft;
    std::memcpy(buffer, agreement->m_pReadPos, toCopy);
    agreement->m_pReadPos += toCopy;
    agreement->m_ReadLeft -= static_cast<unsigned int>(toCopy);
    TARVO_LOGD("to_copy = %d", static_cast<int>(toCopy));
    return toCopy;
}

size_t CTarvoDisclaimerAgreement::m_ReceiveData(char* buffer, size_t size, size_t count, void* user) {
    CTarvoDisclaimerAgreement* agreement = static_cast<CTarvoDisclaimerAgreement*>(user);
    const size_t total = size * count;
    TARVO_LOGD("Received %d elements of size %d", static_cast<int>(count), static_cast<int>(size));
    if (total == 0) {
        TARVO_LOGW("Zero length transfer");
        return 0;
    }
    if (total > kMaxReceiveBlock) {
        TARVO_LOGW("Received %d elements of size %d", static_cast<int>(count), static_cast<int>(size));
        return 0;
    }
    char* grown = static_cast<char*>(std::realloc(agreement->m_pRecvBuffer, agreement->m_RecvSize + total));
    if (grown == nullptr) {
        TARVO_LOGW("Insufficient memory");
        return 0;
    }
    agreement->m_pRecvBuffer = grown;
    std::memcpy(agreement->m_pRecvBuffer + agreement->m_RecvSize, buffer, total);
    agreement->m_RecvSize += static_cast<unsigned int>(total);
    return total;
}
