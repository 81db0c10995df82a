// A SQLite VFS for power-cut tests: it wraps the real "unix" VFS, keeps in memory what was
// written to a file since that file's last xSync (the process reads it back as the disk's page
// cache would serve it) and writes only synced content to the files on disk. A deleted file
// stays on disk, out of sight, until the next sync of any file or a delete that syncs its
// folder, as a journaling file system keeps an unlink in its journal until then. At a chosen write,
// truncate, sync or delete it cuts the power: optionally a random part of the unsynced sectors
// reaches the disk (a torn write), the rest is lost, deletes not yet durable are undone, and the
// process is killed by SIGKILL.
// Installed as the default VFS in a test child before the service opens its store; any thread.
#pragma once

#include <cstdint>

namespace tarvo {
namespace test {

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

}  // namespace test
}  // namespace tarvo
