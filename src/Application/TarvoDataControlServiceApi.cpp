#include "TarvoDataControlService.h"

#include <string>

#include "TarvoExternalData.h"
#include "TarvoInternalData.h"
#include "TarvoLog.h"

Sedge::TCMessage CTarvoDataControlService::OnCallAPI(Sedge::TCMessage& message) {
    const Json::Value& request = message.json;
    std::string messageType = message.type;
    TARVO_LOGD("OnCallApi called,  message Type: %s, method: %s", messageType.c_str(),
               request["method"].asString().c_str());
    [[maybe_unused]] CTarvoInternalData* pInternalData = CTarvoInternalData::GetInstance();
    [[maybe_unused]] CTarvoExternalData* pExternalData = CTarvoExternalData::GetInstance();
    Sedge::TCMessage reply;

    // Exact, case-sensitive comparison in a fixed order; the first match answers.
    const std::string method = request["method"].asString();
    if (method == "is service available") {
        if (m_pKelvaneInfoServ == nullptr) {
            TARVO_LOGD("m_pKelvaneInfoServ is not created yet");
            reply.json["result"] = false;
        } else {
            reply.json["result"] = true;
        }
        return reply;
    } else {
        TARVO_LOGW("UNKNOWN MESSAGE FOR TARVODATACONTROL");
    }

    if (reply.json.empty()) {
        TARVO_LOGD("reply empty...");
    } else {
        TARVO_LOGD("reply not empty!");
    }
    return reply;
}
