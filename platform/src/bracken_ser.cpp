// Service framework: jobs, named single-thread workers, services and proxies.
#include <bracken/ser.h>
#include <tarvo/call_scope.h>

#include "runtime_support.h"

#include <malloc.h>

#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>

namespace bracken {
namespace ser {

Job::Job(std::function<void()> fn) : m_fn(std::move(fn)) {}
Job::~Job() = default;

void Job::Run() {
    if (m_fn) m_fn();
}

// Shared by the Worker and its detached thread, so the thread never outlives what it reads.
struct Worker::State {
    std::string name;
    std::mutex mutex;  // guards queue and stopping
    std::condition_variable wake;
    std::deque<std::unique_ptr<Job>> queue;
    bool stopping = false;
};

namespace {

void RunJob(const std::string& worker, Job& job) {
    try {
        job.Run();
    } catch (const std::exception& e) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "worker %s: job threw: %s", worker.c_str(), e.what());
    } catch (...) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "worker %s: job threw: unknown exception", worker.c_str());
    }
}

// Free memory above this, when a worker goes idle, is given back to the system.
constexpr size_t kTrimAbove = 4u << 20;

// A sync frees tens of megabytes (the answer's copies, its parsed document) in the middle of the
// heap, where free() keeps them; once the worker has nothing left to do they go back.
void ReleaseFreedMemory() {
    const struct mallinfo2 info = mallinfo2();
    if (info.fordblks > kTrimAbove) malloc_trim(0);
}

}  // namespace

Worker::Worker(std::string name) : m_state(std::make_shared<State>()) {
    m_state->name = std::move(name);
    // Detached: the thread holds its own reference to the state and ends when told to stop.
    std::thread([state = m_state] {
        while (true) {
            std::unique_ptr<Job> job;
            {
                std::unique_lock<std::mutex> lock(state->mutex);
                state->wake.wait(lock, [&] { return state->stopping || !state->queue.empty(); });
                if (state->queue.empty()) return;  // stopping and drained
                job = std::move(state->queue.front());
                state->queue.pop_front();
            }
            RunJob(state->name, *job);
            job.reset();
            bool idle = false;
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                idle = state->queue.empty();
            }
            if (idle) ReleaseFreedMemory();
        }
    }).detach();
}

Worker::~Worker() {
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->stopping = true;
    }
    m_state->wake.notify_one();
}

bool Worker::Do(Job*& job) {
    if (job == nullptr) return false;
    std::unique_ptr<Job> owned(job);
    job = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->queue.push_back(std::move(owned));
    }
    m_state->wake.notify_one();
    return true;
}

bool Worker::PostFunction(std::function<void()> fn) {
    if (!fn) return false;
    Job* job = new Job(std::move(fn));
    return Do(job);
}

const std::string& Worker::Name() const { return m_state->name; }

namespace {

// Every named worker of the process; leaked on purpose so exit never tears down a running thread.
struct WorkerRegistry {
    std::mutex mutex;  // guards workers
    std::map<std::string, std::shared_ptr<Worker>> workers;
};

WorkerRegistry& Registry() {
    static WorkerRegistry* const registry = new WorkerRegistry();
    return *registry;
}

}  // namespace

WorkerFactory* WorkerFactory::Get() {
    static WorkerFactory* const factory = new WorkerFactory();
    return factory;
}

std::shared_ptr<Worker> WorkerFactory::GetWorker(std::string name) {
    WorkerRegistry& registry = Registry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto& slot = registry.workers[name];
    if (!slot) slot = std::make_shared<Worker>(name);
    return slot;
}

Service::Service(std::string name) : m_name(std::move(name)) {}
Service::~Service() = default;

bool Service::Start() {
    m_started = OnStart();
    return m_started;
}

bool Service::Stop() {
    const bool stopped = OnStop();
    m_started = false;
    return stopped;
}

bool Service::IsStarted() { return m_started; }

std::shared_ptr<Worker> Service::GetWorker() { return nullptr; }

namespace {

struct NotificationRoute {
    std::mutex mutex;  // guards sink
    std::shared_ptr<NotificationSink> sink;
};

NotificationRoute& Route() {
    static NotificationRoute* const route = new NotificationRoute();
    return *route;
}

}  // namespace

void SetNotificationSink(NotificationSink sink) {
    auto next = sink ? std::make_shared<NotificationSink>(std::move(sink)) : nullptr;
    std::lock_guard<std::mutex> lock(Route().mutex);
    Route().sink = std::move(next);
}

ServiceProxy::ServiceProxy(std::string name) : m_name(std::move(name)) {}
ServiceProxy::~ServiceProxy() = default;

Sedge::TCMessage ServiceProxy::CallAPI(const Sedge::TCMessage& message) {
    // A call writes its log lines at once when it returns, before its reply goes anywhere, and
    // reads each device file once.
    tarvo::platform::CallScope scope;
    Sedge::TCMessage copy(message);
    return OnCallAPI(copy);
}

void ServiceProxy::SendNotification(const Sedge::TCMessage& message) {
    std::shared_ptr<NotificationSink> sink;
    {
        std::lock_guard<std::mutex> lock(Route().mutex);
        sink = Route().sink;
    }
    if (!sink) return;
    // Called outside the lock so a sink may itself send or replace the sink.
    try {
        (*sink)(message);
    } catch (const std::exception& e) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "notification sink threw: %s", e.what());
    } catch (...) {
        TARVO_PLATFORM_LOG(DLOG_ERROR, "notification sink threw");
    }
}

}  // namespace ser
}  // namespace bracken
