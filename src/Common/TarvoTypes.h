// Types shared by the services: service names, event numbers, request kinds and the
// country record. Plain values only; nothing here owns or locks anything.
#pragma once

#include <cstdint>
#include <string>

// Target of CTarvoDataControlService::SendEvent.
enum ETarvoServiceName {
    DATA_CONTROL_MAIN_SERV = 0,
    KELVANE_INFO_SERV = 1,
    DISCLAIMER_AGREEMENT_SERV = 2,
};

// Event numbers carried in Sedge::TCEvent::type.
constexpr int32_t MESSAGE_KELVANE_INFO_SERVICE_INIT = 0x100;
constexpr int32_t MESSAGE_KELVANE_INFO_SERVICE_START_FACTORY = 0x101;
constexpr int32_t MESSAGE_REQUEST_RESET_OSTREL = 0x103;
constexpr int32_t MESSAGE_REQUEST_GET_COUNTRYCODE_LIST = 0x104;
constexpr int32_t MESSAGE_GET_COUNTRYCODE_LIST_SUCCESS = 0x105;
constexpr int32_t MESSAGE_GET_COUNTRYCODE_LIST_FAIL = 0x106;
constexpr int32_t MESSAGE_REQUEST_GET_DISCLAIMER = 0x107;
constexpr int32_t MESSAGE_GET_DISCLAIMER_SUCCESS = 0x108;
constexpr int32_t MESSAGE_GET_DISCLAIMER_FAIL = 0x109;
constexpr int32_t MESSAGE_NIMBRA_VALUE_ALL_READY = 0x10B;
constexpr int32_t MESSAGE_NIMBRA_TIMEOUT = 0x10C;
constexpr int32_t MESSAGE_CLOGGER_EVENT_MOVETOPPANEL = 0x10D;
constexpr int32_t MESSAGE_CLOGGER_EVENT_TICK = 0x10E;
constexpr int32_t MESSAGE_CLOGGER_EVENT_P01_PRIVACY = 0x10F;
constexpr int32_t MESSAGE_TARVODATA_CONTROL_SERVICE_INIT = 0x110;
constexpr int32_t MESSAGE_TARVOPANEL_KELVANE_REQUEST_GET_UPDATE_NOTICE = 0x9601;
constexpr int32_t MESSAGE_TARVOPANEL_KELVANE_REQUEST_GET_SERVICE_DISCLAIMER = 0x9602;
constexpr int32_t MESSAGE_TARVOPANEL_INTERNAL_REQUEST_AGREEMENT_PUT = 0x960A;
constexpr int32_t MESSAGE_TARVOPANEL_INTERNAL_DISCLAIMER_REVISED = 0x960B;

// What a server request or a factory job is.
enum ETarvoKelvaneOpenApiType {
    TARVO_KELVANE_OPENAPI_TYPE_UNKNOWN = 0,
    TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE = 1,
    TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER = 2,
    TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_WIZARD = 3,
    TARVO_KELVANE_OPENAPI_TYPE_REPORT_RESULT_APP = 4,
};

// Who asked for disclaimers; travels as "requester" in an event's data.json.
enum ETarvoKelvaneDisclaimerRequester {
    TARVO_KELVANE_DISCLAIMER_REQUESTER_WIZARD = 0,
    TARVO_KELVANE_DISCLAIMER_REQUESTER_APP = 1,
    TARVO_KELVANE_DISCLAIMER_REQUESTER_SERVICE = 2,
};

// Argument of CTarvoDataControlService::m_DataControlReset.
enum ETarvoResetRequestType {
    TARVO_RESET_REQUEST_OSTREL = 1,
};

// One country of the list the server-configuration library gives.
struct STTarvoCountryCode {
    std::string countryCode;
    std::string countryName;
};
