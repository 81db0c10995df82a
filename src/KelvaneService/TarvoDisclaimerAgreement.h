// Reports the user's answers to the agreement server: builds the "AgreeTerms" document,
// signs it and PUTs it over HTTPS, one upload at a time on its own worker
// "DisclaimerAgreement". Owns the document, the answer buffer and the worker reference; the
// store and the device data lock for themselves, so this class takes no lock.
#pragma once

#include <Sedge/Sedge.h>
#include <bracken/ser.h>
#include <libxml/tree.h>

#include <cstddef>
#include <list>
#include <memory>
#include <string>

namespace ZephCurl {
class ZephCurlEasy;
}

class CTarvoDisclaimerAgreement {
  public:
    CTarvoDisclaimerAgreement();
    ~CTarvoDisclaimerAgreement();
    CTarvoDisclaimerAgreement(const CTarvoDisclaimerAgreement&) = delete;
    CTarvoDisclaimerAgreement& operator=(const CTarvoDisclaimerAgreement&) = delete;

    bool Create();
    void Destroy();
    void PutAgreementToServer();
    // Posts a copy of `event` to the worker; the caller keeps the original.
    void SendEvent(Sedge::TCEvent* event);

  protected:
    bool t_OnEvent(Sedge::TCEvent event);
    void t_Clear(Sedge::TCEvent* event);

  private:
    bool m_PutAgreementToServer();
    void m_GetTermsXML(xmlNode*& root);
    std::string m_MakeXML();
    bool m_SetOption(ZephCurl::ZephCurlEasy* easyHandle);
    bool m_SetHeader(std::list<std::string>& headers, ZephCurl::ZephCurlEasy* easyHandle);
    bool m_IsSuccess();
    static size_t m_ReadData(char* buffer, size_t size, size_t count, void* user);
    static size_t m_ReceiveData(char* buffer, size_t size, size_t count, void* user);

    std::string m_AgreementXml;
    char* m_pReadPos;
    unsigned int m_ReadLeft;
    // The answer as received, from realloc, without a terminating zero byte.
    char* m_pRecvBuffer;
    unsigned int m_RecvSize;
    // "Y" or "N" per reported disclaimer in document order; part of the signature.
    std::string m_AgreeValues;
    std::shared_ptr<bracken::ser::Worker> m_pWorker;
};
