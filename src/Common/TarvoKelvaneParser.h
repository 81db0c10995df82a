// Flattens an XML answer of the agreement server (root "rsp") into maps keyed by element
// paths such as "/rsp/err/code". Made on the stack for one answer and used by one thread;
// it keeps nothing of the document after Parse.
#pragma once

#include <map>
#include <string>

class CTarvoKelvaneParser {
  public:
    CTarvoKelvaneParser();
    ~CTarvoKelvaneParser();

    bool Parse(char* buffer, unsigned int size);
    unsigned int GetNodeAmount(const std::string& key);
    bool GetNodeValue(const std::string& key, std::string& value);
    bool GetAttrValue(const std::string& key, std::string& value);
    int GetErrorCode();
    std::string GetErrorMsg();
    std::string GetStat();

  private:
    // Elements seen under one key; later ones take a "#n" suffix.
    std::map<std::string, unsigned int> m_NodeAmount;
    std::map<std::string, std::string> m_NodeValue;
    std::map<std::string, std::string> m_AttrValue;
    std::string m_ErrorMsg;
    std::string m_Stat;
};
