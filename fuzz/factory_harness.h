// What the job factory's fuzz targets share: the service started for real (service_harness.h), and
// a factory of its own that is handed each input as a server answer through GiveResource. Used from
// the fuzzer's thread.
#pragma once

#include <TarvoKelvaneDataFactory.h>

#include <cstring>

#include "service_harness.h"

namespace tarvo_fuzz {

// Starts the service and returns the factory the inputs go to.
inline CTarvoKelvaneDataFactory* StartFactory() {
    StartService();
    return new CTarvoKelvaneDataFactory();
}

// Hands `size` bytes to the factory as the answer of `type`, zero-ended as the info service does.
inline void Give(CTarvoKelvaneDataFactory* factory, ETarvoKelvaneOpenApiType type, const uint8_t* data,
                 size_t size) {
    char* copy = new char[size + 1]();
    if (size != 0) memcpy(copy, data, size);
    factory->GiveResource(type, copy, static_cast<unsigned>(size));
}

}  // namespace tarvo_fuzz
