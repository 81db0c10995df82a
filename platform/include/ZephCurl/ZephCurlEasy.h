// HTTP client for one request on one libcurl easy handle. Runs the transfer on the
// calling thread; hands the body to the data function in blocks of at most the
// profile's curl.write_block bytes.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace ZephCurl {

enum ZEPHCURL_OPTION_TYPE {
    NOSIGNAL = 3,
    PUT = 15,
    INFILESIZE_LARGE = 25,
    UPLOAD = 26,
    TIMEOUT = 30,
    FRESH_CONNECT = 35,
    URL = 50,
    HTTPHEADER = 75,
    WRITEFUNCTION = 78,
    READFUNCTION = 79,
    WRITEDATA = 86,
    READDATA = 87,
};

typedef int t_HdrOption;
typedef size_t (*DataFunction)(char* buffer, size_t size, size_t count, void* user);
typedef unsigned (*DataFunction32)(char* buffer, unsigned size, unsigned count, void* user);
// Where size_t is unsigned (a 32-bit television) the two data functions are one type.
#if SIZE_MAX != UINT_MAX
#define ZEPHCURL_DATA_FUNCTION32_DISTINCT 1
#endif

class ZephCurlEasy {
  public:
    ZephCurlEasy();
    ~ZephCurlEasy();
    ZephCurlEasy(const ZephCurlEasy&) = delete;
    ZephCurlEasy& operator=(const ZephCurlEasy&) = delete;

    bool Initialize();
    void reset();

    bool setOption(ZEPHCURL_OPTION_TYPE option, long value);
    bool setOption(ZEPHCURL_OPTION_TYPE option, const std::string& value);
    bool setOption(ZEPHCURL_OPTION_TYPE option, const std::list<std::string>& headers);
    bool setOption(ZEPHCURL_OPTION_TYPE option, void* pointer);
    bool setOption(ZEPHCURL_OPTION_TYPE option, DataFunction fn);
#ifdef ZEPHCURL_DATA_FUNCTION32_DISTINCT
    bool setOption(ZEPHCURL_OPTION_TYPE option, DataFunction32 fn);
#endif

    // Seconds to connect, and seconds without a byte before the transfer is broken off.
    bool setTimeout(int connect, int stall);
    bool setBrellaKelvaneSSLContext();
    bool setLumiqClient(const std::string& name);
    bool setLumiqHeader(t_HdrOption option);

    bool send();
    int getErrorCode() const;
    std::string getLastError() const;

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace ZephCurl
