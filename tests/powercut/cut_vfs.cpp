#include "cut_vfs.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <set>
#include <string>

namespace tarvo::test {

namespace {

constexpr sqlite3_int64 kSector = 512;

// What the process sees of one file (`data`) against what its disk holds (`diskSize` bytes, and
// the old content of every sector in `dirty`).
struct Image {
    std::string data;
    std::set<sqlite3_int64> dirty;
    sqlite3_int64 diskSize = 0;
    dev_t device = 0;
    ino_t inode = 0;
    int handles = 0;
};

struct CutFile {
    sqlite3_file base;
    sqlite3_file* real;            // the unix VFS's file, in the memory right behind this struct
    std::shared_ptr<Image> image;  // null: a file passed through untouched (temporary files)
    std::string path;
};

constexpr const char* kDeletedSuffix = ".cut-deleted";

std::mutex g_mutex;  // guards g_images, g_deleted, g_operations
std::map<std::string, std::shared_ptr<Image>> g_images;
// Files deleted since the last sync, moved aside under kDeletedSuffix: like a journaling file
// system, a sync of any file makes the deletes before it durable; a cut brings them back.
std::set<std::string> g_deleted;
uint64_t g_operations = 0;
CutPlan g_plan;
sqlite3_vfs* g_real = nullptr;
sqlite3_vfs g_vfs;
sqlite3_io_methods g_methods;

void WriteToDisk(const std::string& path, const Image& image, sqlite3_int64 sector) {
    const int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0) return;
    const sqlite3_int64 at = sector * kSector;
    if (at < static_cast<sqlite3_int64>(image.data.size())) {
        const size_t length = std::min<size_t>(kSector, image.data.size() - at);
        (void)!pwrite(fd, image.data.data() + at, length, at);
    }
    close(fd);
}

// The power goes: what was not synced is lost, but for the sectors a torn write lets through.
[[noreturn]] void CutLocked() {
    for (const std::string& path : g_deleted) rename((path + kDeletedSuffix).c_str(), path.c_str());
    std::mt19937_64 random(g_plan.seed);
    if (g_plan.torn) {
        for (const auto& entry : g_images) {
            for (sqlite3_int64 sector : entry.second->dirty) {
                if (random() % 2 == 0) WriteToDisk(entry.first, *entry.second, sector);
            }
        }
    }
    kill(getpid(), SIGKILL);
    for (;;) pause();
}

// Counts one write, truncate, sync or delete, and cuts the power before the chosen one.
void CountLocked() {
    ++g_operations;
    if (g_plan.cutAt != 0 && g_operations == g_plan.cutAt) CutLocked();
}

void ForgetDeletedLocked() {
    for (const std::string& path : g_deleted) unlink((path + kDeletedSuffix).c_str());
    g_deleted.clear();
}

CutFile* Cut(sqlite3_file* file) { return reinterpret_cast<CutFile*>(file); }

int Close(sqlite3_file* file) {
    CutFile* f = Cut(file);
    if (f->image) {
        std::lock_guard<std::mutex> lock(g_mutex);
        --f->image->handles;
    }
    const int rc = f->real->pMethods != nullptr ? f->real->pMethods->xClose(f->real) : SQLITE_OK;
    f->image.~shared_ptr();
    f->path.~basic_string();
    return rc;
}

int Read(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    CutFile* f = Cut(file);
    if (!f->image) return f->real->pMethods->xRead(f->real, buffer, amount, offset);
    std::lock_guard<std::mutex> lock(g_mutex);
    const std::string& data = f->image->data;
    const sqlite3_int64 size = static_cast<sqlite3_int64>(data.size());
    const sqlite3_int64 available =
        std::max<sqlite3_int64>(0, std::min<sqlite3_int64>(amount, size - offset));
    if (available > 0) std::memcpy(buffer, data.data() + offset, available);
    if (available < amount) {
        std::memset(static_cast<char*>(buffer) + available, 0, amount - available);
        return SQLITE_IOERR_SHORT_READ;
    }
    return SQLITE_OK;
}

int Write(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    CutFile* f = Cut(file);
    if (!f->image) return f->real->pMethods->xWrite(f->real, buffer, amount, offset);
    std::lock_guard<std::mutex> lock(g_mutex);
    CountLocked();
    Image& image = *f->image;
    const sqlite3_int64 old_size = static_cast<sqlite3_int64>(image.data.size());
    if (offset + amount > old_size) image.data.resize(offset + amount, '\0');
    std::memcpy(&image.data[offset], buffer, amount);
    for (sqlite3_int64 s = std::min(offset, old_size) / kSector; s <= (offset + amount - 1) / kSector; ++s) {
        image.dirty.insert(s);
    }
    return SQLITE_OK;
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    CutFile* f = Cut(file);
    if (!f->image) return f->real->pMethods->xTruncate(f->real, size);
    std::lock_guard<std::mutex> lock(g_mutex);
    CountLocked();
    Image& image = *f->image;
    if (size < static_cast<sqlite3_int64>(image.data.size())) image.data.resize(size);
    return SQLITE_OK;
}

int Sync(sqlite3_file* file, int flags) {
    CutFile* f = Cut(file);
    if (!f->image) return f->real->pMethods->xSync(f->real, flags);
    std::lock_guard<std::mutex> lock(g_mutex);
    CountLocked();
    ForgetDeletedLocked();
    Image& image = *f->image;
    const sqlite3_int64 size = static_cast<sqlite3_int64>(image.data.size());
    for (sqlite3_int64 sector : image.dirty) {
        const sqlite3_int64 at = sector * kSector;
        if (at >= size) continue;
        const int length = static_cast<int>(std::min<sqlite3_int64>(kSector, size - at));
        const int rc = f->real->pMethods->xWrite(f->real, image.data.data() + at, length, at);
        if (rc != SQLITE_OK) return rc;
    }
    image.dirty.clear();
    if (image.diskSize != size) {
        const int rc = f->real->pMethods->xTruncate(f->real, size);
        if (rc != SQLITE_OK) return rc;
        image.diskSize = size;
    }
    // The disk is the page cache here: a SIGKILL loses none of it, so no fsync is needed.
    return SQLITE_OK;
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    CutFile* f = Cut(file);
    if (!f->image) return f->real->pMethods->xFileSize(f->real, size);
    std::lock_guard<std::mutex> lock(g_mutex);
    *size = static_cast<sqlite3_int64>(f->image->data.size());
    return SQLITE_OK;
}

int FileControl(sqlite3_file* file, int op, void* arg) {
    // A size hint would grow the real file behind the image.
    if (op == SQLITE_FCNTL_SIZE_HINT && Cut(file)->image) return SQLITE_OK;
    return Cut(file)->real->pMethods->xFileControl(Cut(file)->real, op, arg);
}

// The image of `path` as the disk and the unsynced writes of earlier handles make it. An image
// whose file was unlinked or replaced behind SQLite (the store removes its file with unlink) is
// dropped; a file that some handle still holds open keeps its image.
std::shared_ptr<Image> OpenImageLocked(const std::string& path, sqlite3_file* real) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) st = {};
    const dev_t device = st.st_dev;
    const ino_t inode = st.st_ino;
    sqlite3_int64 disk_size = 0;
    real->pMethods->xFileSize(real, &disk_size);
    auto found = g_images.find(path);
    if (found != g_images.end()) {
        const Image& old = *found->second;
        if (old.handles > 0 || (old.device == device && old.inode == inode && old.diskSize == disk_size)) {
            return found->second;
        }
        g_images.erase(found);
    }
    auto image = std::make_shared<Image>();
    image->data.resize(disk_size);
    if (disk_size > 0) real->pMethods->xRead(real, &image->data[0], static_cast<int>(disk_size), 0);
    image->diskSize = disk_size;
    image->device = device;
    image->inode = inode;
    g_images[path] = image;
    return image;
}

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
    CutFile* f = Cut(file);
    f->real = reinterpret_cast<sqlite3_file*>(f + 1);
    new (&f->path) std::string(name != nullptr ? name : "");
    new (&f->image) std::shared_ptr<Image>();
    f->base.pMethods = nullptr;
    const int rc = g_real->xOpen(g_real, name, f->real, flags, out_flags);
    if (rc != SQLITE_OK) {
        f->image.~shared_ptr();
        f->path.~basic_string();
        return rc;
    }
    const int kept =
        SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL | SQLITE_OPEN_SUPER_JOURNAL;
    if (name != nullptr && (flags & kept) != 0 && (flags & SQLITE_OPEN_DELETEONCLOSE) == 0) {
        std::lock_guard<std::mutex> lock(g_mutex);
        f->image = OpenImageLocked(f->path, f->real);
        ++f->image->handles;
    }
    f->base.pMethods = &g_methods;
    return SQLITE_OK;
}

int Delete(sqlite3_vfs*, const char* name, int sync_dir) {
    std::lock_guard<std::mutex> lock(g_mutex);
    CountLocked();
    g_images.erase(name);
    if (sync_dir != 0) {
        // A synced folder makes this delete and the ones before it durable.
        ForgetDeletedLocked();
        return g_real->xDelete(g_real, name, sync_dir);
    }
    if (rename(name, (std::string(name) + kDeletedSuffix).c_str()) != 0) {
        return errno == ENOENT ? SQLITE_IOERR_DELETE_NOENT : SQLITE_IOERR_DELETE;
    }
    g_deleted.insert(name);
    return SQLITE_OK;
}

}  // namespace

bool InstallCutVfs(const CutPlan& plan) {
    if (sqlite3_initialize() != SQLITE_OK) return false;
    g_real = sqlite3_vfs_find("unix");
    if (g_real == nullptr) return false;
    g_plan = plan;
    g_methods = sqlite3_io_methods{};
    g_methods.iVersion = 2;
    g_methods.xClose = Close;
    g_methods.xRead = Read;
    g_methods.xWrite = Write;
    g_methods.xTruncate = Truncate;
    g_methods.xSync = Sync;
    g_methods.xFileSize = FileSize;
    g_methods.xFileControl = FileControl;
    // The rest is the unix VFS's own, on the real file.
#define TARVO_PASS(NAME)                                         \
    g_methods.NAME = [](sqlite3_file* f, auto... a) {            \
        return Cut(f)->real->pMethods->NAME(Cut(f)->real, a...); \
    }
    TARVO_PASS(xLock);
    TARVO_PASS(xUnlock);
    TARVO_PASS(xCheckReservedLock);
    TARVO_PASS(xSectorSize);
    TARVO_PASS(xDeviceCharacteristics);
    TARVO_PASS(xShmMap);
    TARVO_PASS(xShmLock);
    TARVO_PASS(xShmBarrier);
    TARVO_PASS(xShmUnmap);
#undef TARVO_PASS
    g_vfs = *g_real;  // the unix VFS's calls but for opening and deleting files
    g_vfs.pNext = nullptr;
    g_vfs.szOsFile = static_cast<int>(sizeof(CutFile)) + g_real->szOsFile;
    g_vfs.zName = "tarvo-power-cut";
    g_vfs.xOpen = Open;
    g_vfs.xDelete = Delete;
    return sqlite3_vfs_register(&g_vfs, 1) == SQLITE_OK;
}

void CutVfsLoseUnsynced() {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (const std::string& path : g_deleted) rename((path + kDeletedSuffix).c_str(), path.c_str());
    g_deleted.clear();
    g_images.clear();
}

uint64_t CutVfsOperations() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_operations;
}

}  // namespace tarvo::test

// The store calls sync(2) after it removes its file; this process's sync makes the deletes before
// it durable too. The executable's definition comes before the C library's for every library.
void sync() noexcept {
    {
        std::lock_guard<std::mutex> lock(tarvo::test::g_mutex);
        tarvo::test::ForgetDeletedLocked();
    }
    ::syscall(SYS_sync);
}
