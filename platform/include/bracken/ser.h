// Service framework: services, proxies, named single-thread workers and jobs.
// A worker's thread lives as long as the process; the same name always gives the
// same worker. Notifications go to the sink the host registers.
#pragma once

#include <Sedge/Sedge.h>

#include <functional>
#include <memory>
#include <string>

namespace bracken {
namespace ser {

class Job {
  public:
    explicit Job(std::function<void()> fn);
    ~Job();
    void Run();

  private:
    std::function<void()> m_fn;
};

class Worker : public Sedge::TCEventIO {
  public:
    explicit Worker(std::string name);
    ~Worker() override;
    // Takes ownership of the job and nulls the caller's pointer; the job runs on the
    // worker's thread in the order given. An exception from a job is logged and the
    // next job runs.
    bool Do(Job*& job);
    bool PostFunction(std::function<void()> fn) override;
    const std::string& Name() const;

  private:
    struct State;
    std::shared_ptr<State> m_state;
};

class WorkerFactory {
  public:
    static WorkerFactory* Get();
    std::shared_ptr<Worker> GetWorker(std::string name);

  private:
    WorkerFactory() = default;
};

class Service {
  public:
    explicit Service(std::string name);
    virtual bool Start();
    virtual bool Stop();
    virtual bool IsStarted();
    virtual std::shared_ptr<Worker> GetWorker();
    virtual ~Service();

  protected:
    virtual bool OnStart() = 0;
    virtual bool OnStop() = 0;

  private:
    std::string m_name;
    bool m_started = false;
};

class IServiceProxy {
  public:
    virtual Sedge::TCMessage CallAPI(const Sedge::TCMessage& message) = 0;
    virtual void SendNotification(const Sedge::TCMessage& message) = 0;
    virtual ~IServiceProxy() = default;
};

class ServiceProxy : public IServiceProxy {
  public:
    explicit ServiceProxy(std::string name);
    Sedge::TCMessage CallAPI(const Sedge::TCMessage& message) override;
    void SendNotification(const Sedge::TCMessage& message) override;
    ~ServiceProxy() override;
    virtual Sedge::TCMessage OnCallAPI(Sedge::TCMessage& message) = 0;

  private:
    std::string m_name;
};

// Where SendNotification delivers; the host sets it. Without a sink notifications are dropped.
using NotificationSink = std::function<void(const Sedge::TCMessage&)>;
void SetNotificationSink(NotificationSink sink);

}  // namespace ser
}  // namespace bracken
