// The HTTP client on one libcurl easy handle: option table, header lists, the
// platform's own data callbacks that regroup the body into blocks and bound its size, TLS and
// time-outs.
#include <ZephCurl/ZephCurlEasy.h>

#include "curl_support.h"
#include "runtime_support.h"

#include <system_info.h>
#include <vconf.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

namespace ZephCurl {

namespace {

enum class OptionKind {
    Flag,
    FileSize,
    TimeoutSeconds,
    Text,
    HeaderList,
    WriteFunction,
    ReadFunction,
    WriteData,
    ReadData
};

struct OptionEntry {
    ZEPHCURL_OPTION_TYPE number;
    CURLoption curl;
    OptionKind kind;
};

// Option numbers of the television's client and the libcurl options they stand for.
// PUT is set as UPLOAD: over HTTP an upload is a PUT, and libcurl's own PUT is deprecated.
constexpr OptionEntry kOptions[] = {
    {NOSIGNAL, CURLOPT_NOSIGNAL, OptionKind::Flag},
    {PUT, CURLOPT_UPLOAD, OptionKind::Flag},
    {INFILESIZE_LARGE, CURLOPT_INFILESIZE_LARGE, OptionKind::FileSize},
    {UPLOAD, CURLOPT_UPLOAD, OptionKind::Flag},
    {TIMEOUT, CURLOPT_TIMEOUT_MS, OptionKind::TimeoutSeconds},
    {FRESH_CONNECT, CURLOPT_FRESH_CONNECT, OptionKind::Flag},
    {URL, CURLOPT_URL, OptionKind::Text},
    {HTTPHEADER, CURLOPT_HTTPHEADER, OptionKind::HeaderList},
    {WRITEFUNCTION, CURLOPT_WRITEFUNCTION, OptionKind::WriteFunction},
    {READFUNCTION, CURLOPT_READFUNCTION, OptionKind::ReadFunction},
    {WRITEDATA, CURLOPT_WRITEDATA, OptionKind::WriteData},
    {READDATA, CURLOPT_READDATA, OptionKind::ReadData},
};

const OptionEntry* FindOption(ZEPHCURL_OPTION_TYPE number) {
    for (const OptionEntry& entry : kOptions) {
        if (entry.number == number) return &entry;
    }
    return nullptr;
}

constexpr const char* kModelIdKey = "db/nimbra/modelid";
constexpr int kDeviceHeaders = 1;

}  // namespace

struct ZephCurlEasy::State {
    CURL* handle = nullptr;
    curl_slist* headerList = nullptr;  // what libcurl sends: headers, then deviceHeaders
    std::list<std::string> headers;
    std::list<std::string> deviceHeaders;

    DataFunction write = nullptr;
    DataFunction32 write32 = nullptr;
    void* writeData = nullptr;
    DataFunction read = nullptr;
    DataFunction32 read32 = nullptr;
    void* readData = nullptr;

    // Body bytes received but not yet handed over, from pendingStart on.
    std::string pending;
    size_t pendingStart = 0;
    size_t writeBlock = 16384;
    bool refused = false;
    // Body bytes libcurl delivered in this transfer, decoded, against the profile's limit: an
    // answer sent in chunks announces no length that libcurl could refuse up front.
    curl_off_t received = 0;
    curl_off_t maxBody = 0;
    bool tooLarge = false;

    std::string url;      // for the outcome line and a refusal without a network
    bool upload = false;  // PUT or UPLOAD set

    char errorBuffer[CURL_ERROR_SIZE] = {};
    CURLcode errorCode = CURLE_OK;
    std::string errorDetail;

    void Clear() {
        if (handle != nullptr) curl_easy_cleanup(handle);
        handle = nullptr;
        if (headerList != nullptr) curl_slist_free_all(headerList);
        headerList = nullptr;
        headers.clear();
        deviceHeaders.clear();
        write = nullptr;
        write32 = nullptr;
        writeData = nullptr;
        read = nullptr;
        read32 = nullptr;
        readData = nullptr;
        pending.clear();
        pendingStart = 0;
        refused = false;
        received = 0;
        tooLarge = false;
        url.clear();
        upload = false;
        errorBuffer[0] = '\0';
    }

    // Keeps the outcome of the last operation; true when it is CURLE_OK.
    bool Record(CURLcode code, std::string detail = std::string()) {
        errorCode = code;
        errorDetail = std::move(detail);
        return code == CURLE_OK;
    }

    bool Ready() {
        if (handle != nullptr) return true;
        return Record(CURLE_FAILED_INIT, "not initialised");
    }

    bool RebuildHeaderList() {
        curl_slist* list = nullptr;
        for (const auto* group : {&headers, &deviceHeaders}) {
            for (const std::string& line : *group) {
                curl_slist* grown = curl_slist_append(list, line.c_str());
                if (grown == nullptr) {
                    curl_slist_free_all(list);
                    return Record(CURLE_OUT_OF_MEMORY, "header list");
                }
                list = grown;
            }
        }
        const CURLcode code = curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list);
        if (code != CURLE_OK) {
            curl_slist_free_all(list);
            return Record(code);
        }
        if (headerList != nullptr) curl_slist_free_all(headerList);
        headerList = list;
        return Record(CURLE_OK);
    }

    bool HasWriter() const { return write != nullptr || write32 != nullptr; }

    // Hands one block to the service's function; false when it took less.
    bool Deliver(char* data, size_t size) {
        const size_t taken =
            write != nullptr ? write(data, 1, size, writeData)
                             : static_cast<size_t>(write32(data, 1, static_cast<unsigned>(size), writeData));
        if (taken == size) return true;
        TARVO_PLATFORM_LOG(DLOG_WARN, "data function took %zu of %zu bytes; transfer ends", taken, size);
        refused = true;
        return false;
    }

    size_t PendingSize() const { return pending.size() - pendingStart; }

    static size_t OnWrite(char* data, size_t size, size_t count, void* user) {
        auto* state = static_cast<State*>(user);
        const size_t total = size * count;
        state->received += static_cast<curl_off_t>(total);
        if (state->received > state->maxBody) {
            state->tooLarge = true;
            return 0;
        }
        if (!state->HasWriter()) return total;
        state->pending.append(data, total);
        while (state->PendingSize() >= state->writeBlock) {
            if (!state->Deliver(&state->pending[state->pendingStart], state->writeBlock)) return 0;
            state->pendingStart += state->writeBlock;
        }
        state->pending.erase(0, state->pendingStart);
        state->pendingStart = 0;
        return total;
    }

    static size_t OnRead(char* buffer, size_t size, size_t count, void* user) {
        auto* state = static_cast<State*>(user);
        if (state->read != nullptr) return state->read(buffer, size, count, state->readData);
        if (state->read32 != nullptr) {
            return state->read32(buffer, static_cast<unsigned>(size), static_cast<unsigned>(count),
                                 state->readData);
        }
        return 0;
    }
};

ZephCurlEasy::ZephCurlEasy() : m_state(std::make_unique<State>()) {}

ZephCurlEasy::~ZephCurlEasy() { m_state->Clear(); }

bool ZephCurlEasy::Initialize() {
    m_state->Clear();
    tarvo::platform::EnsureCurlReady();
    CURL* handle = curl_easy_init();
    if (handle == nullptr) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "curl_easy_init failed");
        return m_state->Record(CURLE_FAILED_INIT, "curl_easy_init");
    }
    m_state->handle = handle;
    State* state = m_state.get();
    CURLcode code = curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, state->errorBuffer);
    // gzip and deflate answers reach the service decoded.
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &State::OnWrite);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_WRITEDATA, state);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_READFUNCTION, &State::OnRead);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_READDATA, state);
    if (code != CURLE_OK) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "curl set-up failed: %s", curl_easy_strerror(code));
        m_state->Clear();
        return m_state->Record(code);
    }
    return m_state->Record(CURLE_OK);
}

void ZephCurlEasy::reset() {
    m_state->Clear();
    m_state->Record(CURLE_OK);
}

bool ZephCurlEasy::setOption(ZEPHCURL_OPTION_TYPE option, long value) {
    const OptionEntry* entry = FindOption(option);
    if (entry == nullptr) return m_state->Record(CURLE_UNKNOWN_OPTION, "option " + std::to_string(option));
    if (!m_state->Ready()) return false;
    switch (entry->kind) {
        case OptionKind::Flag:
            if (entry->curl == CURLOPT_UPLOAD) m_state->upload = value != 0;
            return m_state->Record(curl_easy_setopt(m_state->handle, entry->curl, value));
        case OptionKind::FileSize:
            return m_state->Record(
                curl_easy_setopt(m_state->handle, entry->curl, static_cast<curl_off_t>(value)));
        case OptionKind::TimeoutSeconds:
            return m_state->Record(curl_easy_setopt(m_state->handle, entry->curl,
                                                    tarvo::platform::ScaledTimeoutMs(value * 1000L)));
        default:
            return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT,
                                   "option " + std::to_string(option) + " takes no number");
    }
}

bool ZephCurlEasy::setOption(ZEPHCURL_OPTION_TYPE option, const std::string& value) {
    const OptionEntry* entry = FindOption(option);
    if (entry == nullptr) return m_state->Record(CURLE_UNKNOWN_OPTION, "option " + std::to_string(option));
    if (!m_state->Ready()) return false;
    if (entry->kind != OptionKind::Text) {
        return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT,
                               "option " + std::to_string(option) + " takes no text");
    }
    if (entry->curl == CURLOPT_URL) m_state->url = value;
    return m_state->Record(curl_easy_setopt(m_state->handle, entry->curl, value.c_str()));
}

bool ZephCurlEasy::setOption(ZEPHCURL_OPTION_TYPE option, const std::list<std::string>& headers) {
    const OptionEntry* entry = FindOption(option);
    if (entry == nullptr) return m_state->Record(CURLE_UNKNOWN_OPTION, "option " + std::to_string(option));
    if (!m_state->Ready()) return false;
    if (entry->kind != OptionKind::HeaderList) {
        return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT,
                               "option " + std::to_string(option) + " takes no list");
    }
    m_state->headers = headers;
    return m_state->RebuildHeaderList();
}

bool ZephCurlEasy::setOption(ZEPHCURL_OPTION_TYPE option, void* pointer) {
    const OptionEntry* entry = FindOption(option);
    if (entry == nullptr) return m_state->Record(CURLE_UNKNOWN_OPTION, "option " + std::to_string(option));
    if (!m_state->Ready()) return false;
    switch (entry->kind) {
        case OptionKind::WriteData:
            m_state->writeData = pointer;
            return m_state->Record(CURLE_OK);
        case OptionKind::ReadData:
            m_state->readData = pointer;
            return m_state->Record(CURLE_OK);
        default:
            return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT,
                                   "option " + std::to_string(option) + " takes no pointer");
    }
}

bool ZephCurlEasy::setOption(ZEPHCURL_OPTION_TYPE option, DataFunction fn) {
    const OptionEntry* entry = FindOption(option);
    if (entry == nullptr) return m_state->Record(CURLE_UNKNOWN_OPTION, "option " + std::to_string(option));
    if (!m_state->Ready()) return false;
    switch (entry->kind) {
        case OptionKind::WriteFunction:
            m_state->write = fn;
            m_state->write32 = nullptr;
            return m_state->Record(CURLE_OK);
        case OptionKind::ReadFunction:
            m_state->read = fn;
            m_state->read32 = nullptr;
            return m_state->Record(CURLE_OK);
        default:
            return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT,
                                   "option " + std::to_string(option) + " takes no function");
    }
}

#ifdef ZEPHCURL_DATA_FUNCTION32_DISTINCT
bool ZephCurlEasy::setOption(ZEPHCURL_OPTION_TYPE option, DataFunction32 fn) {
    const OptionEntry* entry = FindOption(option);
    if (entry == nullptr) return m_state->Record(CURLE_UNKNOWN_OPTION, "option " + std::to_string(option));
    if (!m_state->Ready()) return false;
    switch (entry->kind) {
        case OptionKind::WriteFunction:
            m_state->write32 = fn;
            m_state->write = nullptr;
            return m_state->Record(CURLE_OK);
        case OptionKind::ReadFunction:
            m_state->read32 = fn;
            m_state->read = nullptr;
            return m_state->Record(CURLE_OK);
        default:
            return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT,
                                   "option " + std::to_string(option) + " takes no function");
    }
}
#endif

bool ZephCurlEasy::setTimeout(int connect, int stall) {
    if (!m_state->Ready()) return false;
    CURL* handle = m_state->handle;
    const long connect_ms = tarvo::platform::ScaledTimeoutMs(static_cast<long>(connect) * 1000L);
    // libcurl measures a stall in whole seconds only.
    const long stall_ms = tarvo::platform::ScaledTimeoutMs(static_cast<long>(stall) * 1000L);
    const long stall_s = stall_ms == 0 ? 0 : std::max(1L, static_cast<long>(std::ceil(stall_ms / 1000.0)));
    CURLcode code = curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, connect_ms);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, stall_s == 0 ? 0L : 1L);
    if (code == CURLE_OK) code = curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, stall_s);
    return m_state->Record(code);
}

bool ZephCurlEasy::setBrellaKelvaneSSLContext() {
    if (!m_state->Ready()) return false;
    const auto result = tarvo::platform::ApplyTlsVerification(m_state->handle);
    return m_state->Record(result.code, result.detail);
}

bool ZephCurlEasy::setLumiqClient(const std::string& name) {
    if (!m_state->Ready()) return false;
    return m_state->Record(curl_easy_setopt(m_state->handle, CURLOPT_USERAGENT, name.c_str()));
}

bool ZephCurlEasy::setLumiqHeader(t_HdrOption option) {
    if (!m_state->Ready()) return false;
    if (option != kDeviceHeaders) {
        return m_state->Record(CURLE_BAD_FUNCTION_ARGUMENT, "header option " + std::to_string(option));
    }
    char* model = vconf_get_str(kModelIdKey);
    char* firmware = nullptr;
    const bool have_firmware = system_info_get_value_string(SYSTEM_INFO_KEY_PRODUCT_SW_VERSION, &firmware) ==
                                   SYSTEM_INFO_ERROR_NONE &&
                               firmware != nullptr;
    bool ok = true;
    if (model == nullptr || !have_firmware) {
        TARVO_PLATFORM_LOG(DLOG_WARN, "device headers: model id %s, firmware %s", model ? "set" : "missing",
                           have_firmware ? "set" : "missing");
        ok = m_state->Record(CURLE_FAILED_INIT, "device model id or firmware version unavailable");
    } else {
        m_state->deviceHeaders = {std::string("X-Device-Model: ") + model,
                                  std::string("X-Device-Firmware: ") + firmware};
        ok = m_state->RebuildHeaderList();
    }
    std::free(model);
    std::free(firmware);
    return ok;
}

bool ZephCurlEasy::send() {
    if (!m_state->Ready()) return false;
    State& state = *m_state;
    state.writeBlock = tarvo::platform::ProfileWriteBlock();
    state.maxBody = tarvo::platform::ProfileMaxBody();
    state.pending.clear();
    state.pendingStart = 0;
    state.refused = false;
    state.received = 0;
    state.tooLarge = false;
    state.errorBuffer[0] = '\0';
    const char* method = state.upload ? "PUT" : "GET";
    // The outcome lines leave out the query, which carries device values.
    const std::string where = state.url.substr(0, state.url.find('?'));

    // A television whose network is down has no route to any server.
    if (tarvo::platform::NetworkDown()) {
        const auto refused = tarvo::platform::NoRouteTo(state.url);
        TARVO_PLATFORM_LOG(DLOG_WARN, "transfer failed: %s %s: %s", method, where.c_str(),
                           tarvo::platform::DescribeCurlError(refused.code, refused.detail).c_str());
        return state.Record(refused.code, refused.detail);
    }

    // A told length over the limit is refused before any byte of the body is taken.
    CURLcode code = curl_easy_setopt(state.handle, CURLOPT_MAXFILESIZE_LARGE, state.maxBody);
    if (code == CURLE_OK) code = curl_easy_perform(state.handle);
    if (code == CURLE_OK && state.HasWriter() && state.PendingSize() > 0) {
        state.Deliver(&state.pending[state.pendingStart], state.PendingSize());
    }
    state.pending.clear();
    state.pendingStart = 0;
    std::string detail = state.errorBuffer;
    if (state.tooLarge) {
        code = CURLE_FILESIZE_EXCEEDED;
        detail = "the answer's body is larger than " + std::to_string(state.maxBody) + " bytes";
    } else if (state.refused) {
        code = CURLE_WRITE_ERROR;
        detail = "the data function took less than it was given";
    }
    if (code != CURLE_OK) {
        TARVO_PLATFORM_LOG(DLOG_WARN, "transfer failed: %s %s: %s", method, where.c_str(),
                           tarvo::platform::DescribeCurlError(code, detail).c_str());
    } else {
        long status = 0;
        curl_off_t micros = 0;
        curl_easy_getinfo(state.handle, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_getinfo(state.handle, CURLINFO_TOTAL_TIME_T, &micros);
        __dlog_print(LOG_ID_MAIN, DLOG_INFO, TARVO_HTTP_TAG, "%s %s -> HTTP %ld, %lld bytes in %lld ms",
                     method, where.c_str(), status, static_cast<long long>(state.received),
                     static_cast<long long>(micros / 1000));
    }
    return state.Record(code, detail);
}

int ZephCurlEasy::getErrorCode() const { return static_cast<int>(m_state->errorCode); }

std::string ZephCurlEasy::getLastError() const {
    return tarvo::platform::DescribeCurlError(m_state->errorCode, m_state->errorDetail);
}

}  // namespace ZephCurl
