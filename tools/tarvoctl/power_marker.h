// The mark `power off` leaves in ROOT/run/ when it closed the service's store: the state it
// sent, when, and which socket file the host served then. A host that starts anew makes a new
// socket file, and the mark no longer applies. Main thread only.
#pragma once

#include "context.h"

#include <json/json.h>

#include <optional>

namespace tarvoctl {

// Records a power-off without bit 30 (the store is closed from now on).
void MarkStoreClosed(const Context& context, int state);
// The mark, while the host that got the power-off still serves; a stale mark is removed.
std::optional<Json::Value> StoreClosedMark(const Context& context);
// "; the store is closed since ..." when it is, else empty: said where a list comes out empty.
std::string ClosedStoreNote(const Context& context);

}  // namespace tarvoctl
