#include "file_util.h"

#include <atomic>

#include <dlog.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <exception>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tarvo {
namespace platform {
namespace detail {

bool MakeDirs(const std::string& dir, std::optional<mode_t> mode) {
    if (dir.empty()) return true;
    struct stat st;
    if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    std::string parent = DirName(dir);
    if (!parent.empty() && parent != dir && !MakeDirs(parent, mode)) return false;
    if (mkdir(dir.c_str(), mode.value_or(0755)) == 0) {
        if (mode && chmod(dir.c_str(), *mode) != 0) return false;
        return true;
    }
    return errno == EEXIST && stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string DirName(const std::string& path) {
    std::string::size_type end = path.find_last_not_of('/');
    if (end == std::string::npos) return path.empty() ? "" : "/";
    std::string::size_type slash = path.rfind('/', end);
    if (slash == std::string::npos) return "";
    std::string::size_type keep = path.find_last_not_of('/', slash);
    return keep == std::string::npos ? "/" : path.substr(0, keep + 1);
}

std::string BaseName(const std::string& path) {
    std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string content;
    char buffer[4096];
    while (true) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        content.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return content;
}

static bool WriteAll(int fd, const std::string& content) {
    size_t done = 0;
    while (done < content.size()) {
        ssize_t n = write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool WriteFileAtomically(const std::string& path, const std::string& content, std::optional<mode_t> mode) {
    const std::string dir = DirName(path);
    if (!MakeDirs(dir)) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot create folder %s", dir.c_str());
        return false;
    }
    const std::string temp = (dir.empty() ? "" : dir + "/") + "." + BaseName(path) + ".tmp";
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot write %s: %s", temp.c_str(),
                     strerror(errno));
        return false;
    }
    const bool written = (!mode || fchmod(fd, *mode) == 0) && WriteAll(fd, content);
    const int saved = errno;
    if (close(fd) != 0 || !written) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot write %s: %s", temp.c_str(),
                     strerror(written ? errno : saved));
        unlink(temp.c_str());
        return false;
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot replace %s: %s", path.c_str(),
                     strerror(errno));
        unlink(temp.c_str());
        return false;
    }
    NoteFileReplaced();
    return true;
}

namespace {
std::atomic<std::uint64_t> g_filesReplaced{0};
}  // namespace

std::uint64_t FilesReplaced() { return g_filesReplaced.load(std::memory_order_acquire); }

void NoteFileReplaced() { g_filesReplaced.fetch_add(1, std::memory_order_acq_rel); }

int OpenForAppend(const std::string& path, mode_t mode, mode_t folder_mode) {
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC;
    int fd = open(path.c_str(), flags);
    if (fd >= 0 || errno != ENOENT) return fd;
    if (!MakeDirs(DirName(path), folder_mode)) return -1;
    fd = open(path.c_str(), flags | O_CREAT | O_EXCL, mode);
    if (fd >= 0) {
        fchmod(fd, mode);
        return fd;
    }
    // Another writer made it in between.
    return errno == EEXIST ? open(path.c_str(), flags) : -1;
}

std::optional<Json::Value> ParseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    // The reader throws on nesting past its stack limit; a file that deep is no value either.
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return value;
}

std::string CompactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string StyledJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, value) + "\n";
}

char* MallocCopy(const std::string& text) {
    char* copy = static_cast<char*>(malloc(text.size() + 1));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

}  // namespace detail
}  // namespace platform
}  // namespace tarvo
