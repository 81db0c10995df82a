// Bytes as the server's "checkversion" answer, compared against a store that holds a disclaimer set.
#include "factory_harness.h"

namespace {

CTarvoKelvaneDataFactory* g_factory = nullptr;

// A small disclaimers answer, so that the versions of an input meet stored records.
constexpr char kStoredSet[] =
    R"({"rsp":{"stat":"ok","disclaimer":{"id":"SET-1","reverseOSD":"false","items":[)"
    R"({"id":"tnc","version":"3.1","content":{"displayWindow":"main","order":"1","title":"T"}},)"
    R"({"id":"pp","version":"4.0","content":{"displayWindow":"main","order":"2","details":[{"a":"b"}]}},)"
    R"({"id":"viewing","version":"2.0","content":{"displayWindow":"sub","agree_dependency":"pp"}}]}}})";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_factory = tarvo_fuzz::StartFactory();
    tarvo_fuzz::Give(g_factory, TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER,
                     reinterpret_cast<const uint8_t*>(kStoredSet), sizeof(kStoredSet) - 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tarvo_fuzz::Give(g_factory, TARVO_KELVANE_OPENAPI_TYPE_GET_UPDATE_NOTICE, data, size);
    return 0;
}
