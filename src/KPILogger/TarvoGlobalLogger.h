// CTarvoGlobalLogger: the usage logger of the service "14_global" (MOVETOPANEL and TICK). A
// process-wide singleton exported to the television's applications; it collects ticks between
// two SendTickLog calls. No lock: its callers use it from one thread at a time.
#pragma once

#include <string>

#include "TarvoLogger.h"

class __attribute__((visibility("default"))) CTarvoGlobalLogger : public CTarvoLogger {
  public:
    static CTarvoGlobalLogger* GetInstance();
    static void Destroy();

    void AddTick(std::string name);
    void SendMoveToPanelLog(std::string service);
    void SendTickLog();

    ~CTarvoGlobalLogger() override;

  protected:
    void t_InitialTarvoLoggerInfo() override;
    bool t_ParseTarvoLoggerInfo(xmlXPathContext* context) override;
    bool t_ParseTarvoLoggerInfo(const std::string& expression, xmlXPathContext* context, int& level);

  private:
    CTarvoGlobalLogger();

    static CTarvoGlobalLogger* m_pInstance;

    std::string m_BigDataTickInfo;
};
