// Clone copies of the store's file to and from the cloning folder; they take no lock.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <tarvo/platform.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "TarvoInternalData.h"
#include "TarvoLog.h"

namespace {
const char* const kCloneDirectory =
    "/opt/usr/apps/org.mirlo.cloning/data/Clone/org.mirlo.tarvodatacontrol-service";
const char* const kCloneSuffix = "_clone";

// Opens the file at `path` below the root without following a link, neither in its last part
// nor in a folder on the way, and only if it is a regular file: the clone folder comes from a
// USB stick, and a planted link would let a copy write or read any file. -1 on refusal.
int OpenRegularNoFollow(const std::string& path, int flags) {
    std::vector<std::string> parts;
    for (size_t start = 0; start < path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    if (parts.empty()) return -1;
    const std::string root = platform_path("");
    int folder = open(root.empty() ? "/" : root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (size_t i = 0; folder >= 0 && i + 1 < parts.size(); ++i) {
        const int next = openat(folder, parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        close(folder);
        folder = next;
    }
    if (folder < 0) return -1;
    // Non-blocking, so that a FIFO in the file's place cannot hold the caller.
    int fd = openat(folder, parts.back().c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
    close(folder);
    struct stat info {};
    if (fd >= 0 && (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
                    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)) {
        close(fd);
        fd = -1;
    }
    return fd;
}

FILE* OpenStream(const std::string& path, int flags, const char* mode) {
    const int fd = OpenRegularNoFollow(path, flags);
    if (fd < 0) return nullptr;
    FILE* stream = fdopen(fd, mode);
    if (stream == nullptr) close(fd);
    return stream;
}
}  // namespace

bool CTarvoInternalData::CopyCloneDataTVtoUSB() {
    const std::string cloneDirectory = kCloneDirectory;
    if (access(platform_path(cloneDirectory).c_str(), F_OK) != 0 &&
        mkdir(platform_path(cloneDirectory).c_str(), 0755) != 0) {
        TARVO_LOGW("create directory %s fail", cloneDirectory.c_str());
        return false;
    }
    return m_ExecuteCopy(std::string(m_DataDirectory) + "/" + m_DataFileName,
                         cloneDirectory + "/" + m_DataFileName);
}

bool CTarvoInternalData::CopyCloneDataUSBtoTV() {
    const std::string localDataBase = std::string(m_DataDirectory) + "/" + m_DataFileName;
    return m_ExecuteCopy(std::string(kCloneDirectory) + "/" + m_DataFileName, localDataBase + kCloneSuffix);
}

void CTarvoInternalData::m_CloningFileCheck() {
    const std::string localDataBase = std::string(m_DataDirectory) + "/" + m_DataFileName;
    const std::string cloneFile = localDataBase + kCloneSuffix;
    if (access(platform_path(cloneFile).c_str(), F_OK) != 0) {
        TARVO_LOGD("cloneFile is NOT Exist");
        return;
    }
    TARVO_LOGI("cloneFile is Exist");
    if (remove(platform_path(localDataBase).c_str()) != 0) TARVO_LOGW("orignalFile remove fail");
    if (rename(platform_path(cloneFile).c_str(), platform_path(localDataBase).c_str()) != 0) {
        TARVO_LOGW("cloneFile rename to original name fail");
    } else {
        TARVO_LOGI("cloneFile rename to original name success");
    }
    TARVO_LOGD("SYNC");
    sync();
}

bool CTarvoInternalData::m_ExecuteCopy(std::string from, std::string to) {
    FILE* source = OpenStream(from, O_RDONLY, "rb");
    if (source == nullptr) {
        TARVO_LOGW("fail open 1:%s", from.c_str());
        return false;
    }
    FILE* target = OpenStream(to, O_WRONLY | O_CREAT | O_TRUNC, "wb");
    if (target == nullptr) {
        TARVO_LOGW("fail open 2:%s", to.c_str());
        fclose(source);
        return false;
    }
    fseek(source, 0, SEEK_END);
    const long length = ftell(source);
    if (length < 1) {
        TARVO_LOGW("Lengther is under 0:len %d", static_cast<int>(length));
        fclose(source);
        fclose(target);
        return false;
    }
    rewind(source);
    std::unique_ptr<char[]> buffer(new char[length]);
    const size_t read = fread(buffer.get(), 1, static_cast<size_t>(length), source);
    if (read < static_cast<size_t>(length)) {
        TARVO_LOGW("Reading error result %d , len %d", static_cast<int>(read), static_cast<int>(length));
        fclose(source);
        fclose(target);
        return false;
    }
    fwrite(buffer.get(), static_cast<size_t>(length), 1, target);
    fclose(source);
    fclose(target);
    TARVO_LOGI("m_ExecuteCopy %s -> %s success", from.c_str(), to.c_str());
    return true;
}
