// The emulated television a benchmark runs: a temporary root, the 21-record data set that
// tarvo-cloud serves, the cloud and the host as child processes, a client of the host's socket,
// and a reader of the service's log. Each object is used from one thread.
#pragma once

#include "bare_http.h"
#include "child_process.h"

#include <json/json.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarvo {
namespace bench {

// The store file's television path.
extern const char* const kStoreFile;

// A temporary folder (under $TMPDIR or /tmp, so on a disk: the store's syncs cost what they cost
// there), removed with everything in it at destruction.
class TempDir {
  public:
    explicit TempDir(const std::string& prefix = "tarvo-bench");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& Path() const { return m_path; }
    // The path + a television path.
    std::string At(const std::string& tv_path) const { return m_path + tv_path; }
    // Removes the folder now, for a program that leaves by _exit (unless TARVO_BENCH_KEEP=1).
    void Remove();

  private:
    std::string m_path;
};

// Copies folders and regular files of `from` into `to` (sockets and the like are left out).
bool CopyTree(const std::string& from, const std::string& to);

// The 21 disclaimer ids the service knows, each one record of the data set.
const std::vector<std::string>& DisclaimerIds();
// How many of them requester 4 (all) lists on the default profile: neither the two common items
// nor the three that need UHD remote management.
size_t ListedCount();
// How many records a run works on (--records N, at least 21; 21 by default): the data set and the
// seeded store hold the 21 known ones and N - 21 more, "extra_0001"..., each as large as the others.
void SetRecords(size_t records);
size_t Records();
std::vector<std::string> ExtraIds();
// What requester 4 lists from a seeded store: ListedCount() and every extra record.
size_t StoredListedCount();
// Writes DIR/openapi/US.json: Records() records with texts in English and French, each language's
// "disclaimers" answer about 18.5 KB a record (about 400 KB for 21). A sync keeps only the 21 known
// ones, but reads them all and keeps the whole answer.
bool WriteDataSet(const std::string& dir);

// tarvo-cloud on loopback, serving `data_dir`, the profile at ROOT/etc/tarvo/device.json pointed at
// its agreement servers and CA.
class Cloud {
  public:
    bool Start(const std::string& data_dir, const TempDir& root, std::string& error);
    std::string OpenApiUrl() const { return "http://127.0.0.1:" + std::to_string(m_openapiPort); }
    // An admin GET's JSON answer; null when it failed.
    Json::Value Admin(const std::string& path) const;
    bool AdminDelete(const std::string& path) const;
    // The requests the cloud recorded with `method`, oldest first, as bare libcurl would send them.
    std::vector<BareRequest> Recorded(const std::string& method) const;
    const std::string& CaFile() const { return m_caFile; }

  private:
    std::unique_ptr<ChildProcess> m_process;
    int m_openapiPort = 0;
    int m_adminPort = 0;
    Json::Value m_ports;
    std::string m_caFile;
};

// Sets TARVO_ROOT to `root` for this process, prepares the root and sets the device values of a
// US set in English that fetches from `openapi_url`, with the network up or down.
bool PrepareTelevision(const TempDir& root, const std::string& openapi_url, bool network_up);
// Sets TARVO_ROOT and the profile's network state only.
bool SetNetwork(const TempDir& root, bool up);
// A copy of the root's store beside it, for a floor's bare SQLite to write to; its path, or
// empty with `error` set.
std::string FloorStore(const TempDir& root, std::string& error);

// A client of the host's socket: one JSON object per line.
class HostLink {
  public:
    HostLink() = default;
    ~HostLink();
    HostLink(const HostLink&) = delete;
    HostLink& operator=(const HostLink&) = delete;
    bool Connect(const std::string& socket_path);
    bool SendLine(const std::string& line);
    // The next line without its newline; nullopt on time-out or end.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Sends {"id": N, "call": request} and gives the reply member of the answer.
    std::optional<Json::Value> Call(const Json::Value& request);
    // Subscribes to the notifications.
    bool Subscribe();
    // The next notification named `name`; others are passed over.
    bool WaitNotification(const std::string& name,
                          std::chrono::milliseconds timeout = std::chrono::seconds(30));

  private:
    int m_fd = -1;
    std::string m_pending;
    long long m_nextId = 1;
};

// tarvo-service-host serving `root`, started and awaited until its socket answers.
class Host {
  public:
    bool Start(const TempDir& root, std::string& error);
    std::string SocketPath() const { return m_socket; }
    pid_t Pid() const { return m_process ? m_process->Pid() : -1; }
    void Stop() { m_process.reset(); }

  private:
    std::unique_ptr<ChildProcess> m_process;
    std::string m_socket;
};

// Follows ROOT/var/log/tarvo.log from its current end.
class LogTail {
  public:
    explicit LogTail(const TempDir& root);
    ~LogTail();
    LogTail(const LogTail&) = delete;
    LogTail& operator=(const LogTail&) = delete;
    // Waits for a new line holding `text` (woken by inotify, not by polling).
    bool WaitFor(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Waits until the log has grown by nothing for `quiet`: the service is idle.
    bool WaitQuiet(std::chrono::milliseconds quiet,
                   std::chrono::milliseconds timeout = std::chrono::seconds(30));

  private:
    bool m_ReadNew();
    std::string m_path;
    int m_inotify = -1;
    int m_file = -1;
    std::string m_buffer;  // read, not yet searched
};

// Fills ROOT's store the way a television does: the host starts with the network up, takes the
// cloud's set and uploads the answers; the host is then stopped.
bool SeedStore(const TempDir& root, std::string& error);
// Writes the extra records into ROOT's store as rows of their own, with the host stopped.
bool AddExtraRows(const TempDir& root, std::string& error);

// WriteDataSet into `data_dir`, PrepareTelevision, the cloud started on `data_dir` and SeedStore: a
// root whose store holds the 21 records, network down, with the cloud still running. The extra
// records, which no sync stores, are then written into the store as rows of their own (copies of a
// listed record under their ids), so that the service loads Records() records at its start.
bool SeededTelevision(const TempDir& root, const std::string& data_dir, Cloud& cloud, std::string& error);

// Waits until files written by the set-up are older than the platform's settling time: until then
// it reads the profile and vconf keys again at each call, as a file changed within a time step of
// a read could change again unseen. A television's files are long settled.
void LetFilesSettle();
// TARVO_BENCH_LOG_TO_NULL=1 sends the service's log under `root` to /dev/null: what a figure would
// be without the log's writes (a diagnosis, never a figure of the table).
void LogToNullIfAsked(const std::string& root);

// User and system CPU seconds a process has used so far, from /proc/PID/stat (in clock ticks).
double CpuSeconds(pid_t pid);
// CPU seconds the live threads of a process have used so far, to the nanosecond
// (/proc/PID/task/*/schedstat): fine enough for one round. A thread that ended is not counted.
double ThreadsCpuSeconds(pid_t pid);
// CPU seconds the calling thread has used so far.
double CallingThreadCpuSeconds();

// Peak and current resident memory of a process, in KiB, from /proc/PID/status.
long ResidentKiB(pid_t pid, const char* field /* "VmHWM" or "VmRSS" */);

}  // namespace bench
}  // namespace tarvo
