// A SQLite VFS over "unix" that keeps each file's unsynced writes in memory (served back as a page
// cache would) and puts only synced content on disk; a delete is durable at the next sync, as in a
// journaling file system. At a chosen operation the power goes: a random part of the unsynced
// sectors may reach the disk (torn), the rest and the undurable deletes are lost, and SIGKILL ends
// the process. Installed as the default VFS in a test child before the store opens; any thread.
#pragma once

#include <cstdint>

namespace tarvo::test {

struct CutPlan {
    uint64_t cutAt = 0;  // the 1-based write/truncate/sync/delete at which the power goes; 0: never
    bool torn = false;   // a random part of the unsynced 512-byte sectors reaches the disk
    uint64_t seed = 1;   // chooses those sectors
};

// Registers the VFS as the process's default; false when SQLite refuses.
bool InstallCutVfs(const CutPlan& plan);
// The power goes when the work has ended: what is not durable yet is undone on disk. The
// process must end right after, without SQLite touching a file again.
void CutVfsLoseUnsynced();
// Writes, truncates, syncs and deletes seen so far.
uint64_t CutVfsOperations();

}  // namespace tarvo::test
