// CTarvoPnPLogger: the usage logger of the first-run wizard, service "14_tvpnp". It measures how
// long the privacy disclaimer stayed on screen and reports it as P01_PRIVACY. A process-wide
// singleton exported to the television's applications; no lock, one caller at a time.
#pragma once

#include <string>

#include "TarvoLogger.h"

class __attribute__((visibility("default"))) CTarvoPnPLogger : public CTarvoLogger {
  public:
    static CTarvoPnPLogger* GetInstance();
    static void Destroy();

    void SetPNPDisclaimerStartTime();
    void SendP01PrivacyLog();

    ~CTarvoPnPLogger() override;

  protected:
    void t_InitialTarvoLoggerInfo() override;
    bool t_ParseTarvoLoggerInfo(xmlXPathContext* context) override;
    bool t_ParseTarvoLoggerInfo(const std::string& expression, xmlXPathContext* context, int& level);

  private:
    CTarvoPnPLogger();

    static CTarvoPnPLogger* m_Instance;

    unsigned long m_StartTick;
};
