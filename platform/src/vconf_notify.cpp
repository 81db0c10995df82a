// vconf change notifications: one inotify descriptor and one thread per process,
// watching the folders of the registered keys. The registry is made on first use and
// never destroyed, so that exit never meets a running thread object.
#include <vconf.h>

#include "file_util.h"
#include "vconf_store.h"

#include <dlog.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using tarvo::platform::detail::kPlatformTag;

struct Registration {
    std::string key;
    int wd;
    std::string file_name;
    vconf_callback_fn cb;
    void* user_data;
    unsigned long long id;
};

class NotifyRegistry {
  public:
    static NotifyRegistry* Get() {
        static NotifyRegistry* registry = new NotifyRegistry();
        return registry;
    }

    int Add(const char* key, vconf_callback_fn cb, void* user_data) {
        if (m_fd < 0 || cb == nullptr) return -1;
        auto path = tarvo::platform::detail::VconfKeyPath(key);
        if (!path) return -1;
        const std::string dir = tarvo::platform::detail::DirName(*path);
        // The key's folder may not exist yet: make it, so that its first set is seen.
        if (!tarvo::platform::detail::MakeKeyFolder(*path)) {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot create %s for watching %s",
                         dir.c_str(), key);
            return -1;
        }
        int wd = inotify_add_watch(m_fd, dir.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE);
        if (wd < 0) {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "cannot watch %s: %s", dir.c_str(),
                         strerror(errno));
            return -1;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Registration& r : m_registrations) {
            if (r.key == key && r.cb == cb && r.user_data == user_data) return 0;
        }
        m_registrations.push_back(
            Registration{key, wd, tarvo::platform::detail::BaseName(*path), cb, user_data, m_next_id++});
        return 0;
    }

    int Remove(const char* key, vconf_callback_fn cb) {
        if (key == nullptr) return -1;
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t before = m_registrations.size();
        std::vector<Registration> kept;
        for (Registration& r : m_registrations) {
            if (!(r.key == key && r.cb == cb)) kept.push_back(std::move(r));
        }
        m_registrations.swap(kept);
        return m_registrations.size() < before ? 0 : -1;
    }

  private:
    NotifyRegistry() : m_fd(inotify_init1(IN_CLOEXEC)) {
        if (m_fd < 0) {
            __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "inotify_init1 failed: %s", strerror(errno));
            return;
        }
        std::thread([this] { Run(); }).detach();
    }

    void Run() {
        alignas(struct inotify_event) char buffer[64 * 1024];
        while (true) {
            ssize_t n = read(m_fd, buffer, sizeof(buffer));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "vconf watch stopped: %s",
                             strerror(errno));
                return;
            }
            for (ssize_t offset = 0; offset < n;) {
                const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
                offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
                if (event->len == 0 || event->name[0] == '.') continue;  // temp files never notify
                if ((event->mask & (IN_MOVED_TO | IN_CLOSE_WRITE)) == 0) continue;
                Dispatch(event->wd, event->name);
            }
        }
    }

    // Calls the callbacks without the lock: a callback may register or ignore keys.
    void Dispatch(int wd, const std::string& file_name) {
        std::vector<Registration> matching;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const Registration& r : m_registrations) {
                if (r.wd == wd && r.file_name == file_name) matching.push_back(r);
            }
        }
        for (const Registration& r : matching) {
            if (!StillRegistered(r.id)) continue;  // ignored by an earlier callback
            keynode_t node = tarvo::platform::detail::ReadVconfKey(r.key.c_str());
            // The thread serves every watcher of the process: one that throws must not end it.
            try {
                r.cb(&node, r.user_data);
            } catch (const std::exception& e) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "vconf callback for %s threw: %s",
                             r.key.c_str(), e.what());
            } catch (...) {
                __dlog_print(LOG_ID_MAIN, DLOG_ERROR, kPlatformTag, "vconf callback for %s threw",
                             r.key.c_str());
            }
        }
    }

    bool StillRegistered(unsigned long long id) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Registration& r : m_registrations) {
            if (r.id == id) return true;
        }
        return false;
    }

    const int m_fd;
    std::mutex m_mutex;  // guards m_registrations, m_next_id
    std::vector<Registration> m_registrations;
    unsigned long long m_next_id = 1;
};

}  // namespace

extern "C" int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data) {
    return NotifyRegistry::Get()->Add(key, cb, user_data);
}

extern "C" int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb) {
    return NotifyRegistry::Get()->Remove(key, cb);
}
