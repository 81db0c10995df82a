// Bytes as the server's "disclaimers" answer, merged into the store.
#include "factory_harness.h"

namespace {
CTarvoKelvaneDataFactory* g_factory = nullptr;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_factory = tarvo_fuzz::StartFactory();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tarvo_fuzz::Give(g_factory, TARVO_KELVANE_OPENAPI_TYPE_GET_SERVICE_DISCLAIMER, data, size);
    return 0;
}
