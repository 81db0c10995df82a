// The mark `tarvoctl power off` leaves beside the host's socket when it closed the service's
// store: the state it sent, when, and which socket file the host served then. A host that starts
// anew binds a new socket file, and the mark no longer applies. tarvoctl and tarvo-screen both
// read it; any thread may call, each call reads the file afresh.
#pragma once

#include <json/json.h>

#include <optional>
#include <string>

namespace tarvoctl {

// Records a power-off without bit 30 (the store is closed from now on) for the host at `socket`.
void MarkStoreClosed(const std::string& socket, int state);
// The mark, while the host that got the power-off still serves `socket`; a stale mark is removed.
std::optional<Json::Value> StoreClosedMark(const std::string& socket);
// "the store is closed since 'power off 0' at ...; a restart of the service opens it".
std::string ClosedStoreWords(const Json::Value& mark);
// "; " + ClosedStoreWords when the store is closed, else empty: said where a list comes out empty.
std::string ClosedStoreNote(const std::string& socket);

}  // namespace tarvoctl
