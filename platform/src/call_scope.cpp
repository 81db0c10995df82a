#include <tarvo/call_scope.h>

#include <atomic>

namespace tarvo {
namespace platform {

namespace {

std::atomic<uint64_t> g_lastCall{0};
thread_local uint64_t t_call = 0;
thread_local int t_depth = 0;

}  // namespace

CallScope::CallScope() {
    if (t_depth++ == 0) t_call = g_lastCall.fetch_add(1, std::memory_order_relaxed) + 1;
}

CallScope::~CallScope() {
    if (--t_depth == 0) t_call = 0;
}

uint64_t CallScope::Current() { return t_call; }

}  // namespace platform
}  // namespace tarvo
