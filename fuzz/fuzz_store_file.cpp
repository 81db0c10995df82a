// Bytes as the store's file (data.db) found at start: the store is opened over it as at every
// start, then read and written as the client API does.
#include "service_harness.h"

namespace {

const char* const kStoreFile = "/opt/usr/apps/org.mirlo.tarvodatacontrol-service/data/data.db";

Json::Value Method(const char* name) {
    Json::Value request(Json::objectValue);
    request["method"] = name;
    return request;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    tarvo_fuzz::StartService();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTarvoInternalData* store = CTarvoInternalData::GetInstance();
    store->Finalize();
    tarvo_fuzz::WriteWhole(tarvo_fuzz::At(kStoreFile), data, size);
    if (!store->Initialize()) return 0;

    store->GetDisclaimerOSDLanguge();
    store->IsAgreementPut();
    Json::Value request = Method("get disclaimer number");
    for (int requester = 0; requester < 5; ++requester) {
        request["requester"] = requester;
        const Json::UInt count = tarvo_fuzz::Call(request)["number"].asUInt();
        Json::Value byOrder = Method("get disclaimer by order");
        byOrder["requester"] = requester;
        for (Json::UInt i = 0; i < count && i < 8; ++i) {
            byOrder["request_index"] = i;
            tarvo_fuzz::Call(byOrder);
        }
    }
    // An answer writes the record's row, which is where code stored in the file would run.
    Json::Value agreeAll = Method("set all agreement");
    agreeAll["is_agreed"] = true;
    tarvo_fuzz::Call(agreeAll);
    tarvo_fuzz::Call(Method("get revised disclaimers"));
    return 0;
}
