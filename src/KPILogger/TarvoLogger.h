// CTarvoLogger: the base of the usage loggers. It owns one logging client, set up lazily on the
// first event from the policy file (or built-in defaults) and torn down after any failure, so
// that the next event sets it up again. Called from one thread at a time; it has no lock.
#pragma once

#include <ILogger.h>
#include <libxml/xpath.h>

#include <map>
#include <string>

// The set-up state of one logging client.
struct STTarvoLoggerInfo {
    STTarvoLoggerInfo();

    // Finalises and deletes the client and forgets the event levels; service_name stays.
    void Reset();

    ILogger* m_logger;  // owned; null until set up
    std::string service_name;
    bool m_bInitialized;
    std::map<std::string, int> m_EventLevels;
};

class __attribute__((visibility("default"))) CTarvoLogger {
  public:
    enum ETarvoLoggerType {
        TARVO_LOGGER_TYPE_GLOBAL = 0,
        TARVO_LOGGER_TYPE_PNP = 1,
    };

    explicit CTarvoLogger(ETarvoLoggerType type);
    virtual ~CTarvoLogger();

  protected:
    // Sets service_name and the default event levels.
    virtual void t_InitialTarvoLoggerInfo() = 0;
    // Reads the event levels from the policy; its result decides whether the policy's service values stand.
    virtual bool t_ParseTarvoLoggerInfo(xmlXPathContext* context) = 0;

    void t_AddEventLog(std::string eventName, std::string category, std::string desc);

    ETarvoLoggerType m_LoggerType;
    STTarvoLoggerInfo m_LoggerInfo;

  private:
    CTarvoLogger(const CTarvoLogger&) = delete;
    CTarvoLogger& operator=(const CTarvoLogger&) = delete;

    bool m_Initialize();
    bool m_ParseConfigXml(std::string path, std::string& url, std::string& queueMax, std::string& expiration,
                          std::string& logLevel);
    void m_SetDefualtConfig(std::string& url, std::string& queueMax, std::string& expiration,
                            std::string& logLevel);
    void m_FlushLog();
};
