// Usage-log client: queues events and POSTs them as JSON to the configured URL on
// FlushLog, when the queue is full, and at Finalize.
#pragma once

#include <string>

class ILogger {
  public:
    virtual ~ILogger() = default;
    virtual bool SetServiceConfInfo(std::string service_name, long queue_max, long expiration, long threshold,
                                    long log_level, std::string url) = 0;
    virtual bool AddEventConfInfo(std::string event_name, long queue_max, long expiration, long threshold,
                                  long event_level) = 0;
    virtual bool SetEventHeader(std::string model_name, std::string user_id, std::string duid,
                                std::string country_code, long reserved1, long reserved2, long reserved3) = 0;
    virtual bool SetEventOption(std::string event_name, long option) = 0;
    virtual bool AddEventLog(std::string event_name, std::string time, std::string category,
                             std::string value, std::string desc) = 0;
    virtual bool RemoveEventLog(std::string event_name) = 0;
    virtual bool FlushLog() = 0;
    virtual bool ClearLog() = 0;
    virtual bool Finalize() = 0;
};

// True on success with a new client in *logger, which the caller deletes after Finalize.
bool CreateLogger(ILogger** logger);
