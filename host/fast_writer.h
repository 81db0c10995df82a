// RapidJSON's Writer over its StringBuffer, the pair it scans strings for sixteen bytes at a
// time. Include this header, not RapidJSON's own, wherever frames are written: it first mends
// how RapidJSON 1.1.0 grows a stack that holds nothing yet (it adds to a null pointer, which is
// undefined and which UndefinedBehaviorSanitizer reports) with the test its later releases use.
#pragma once

#if defined(__SSE2__)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/allocators.h>
#include <rapidjson/internal/stack.h>

#include <cstddef>

namespace rapidjson {
namespace internal {

// The string buffer's stack of characters. Declared before stringbuffer.h uses it.
template <>
template <>
inline void Stack<CrtAllocator>::Reserve<char>(size_t count) {
    if (RAPIDJSON_UNLIKELY(static_cast<std::ptrdiff_t>(count) > stackEnd_ - stackTop_)) Expand<char>(count);
}

}  // namespace internal
}  // namespace rapidjson

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace tarvo {
namespace host {

class FastWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
  public:
    using Writer::Level;
    using Writer::Writer;
};

}  // namespace host
}  // namespace tarvo

namespace rapidjson {
namespace internal {

// The writer's stack of open objects and arrays. Declared before the writer first opens one.
template <>
template <>
inline void Stack<CrtAllocator>::Reserve<tarvo::host::FastWriter::Level>(size_t count) {
    using Level = tarvo::host::FastWriter::Level;
    if (RAPIDJSON_UNLIKELY(static_cast<std::ptrdiff_t>(sizeof(Level) * count) > stackEnd_ - stackTop_))
        Expand<Level>(count);
}

}  // namespace internal
}  // namespace rapidjson
