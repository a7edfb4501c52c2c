// Application: the base of an integrated application. Derive from it, supply Init, Proc and
// Finalize, register the instance under a name, and Start it:
//
//   Start(interval_ms)  runs Proc every interval on a timer thread (periodic mode);
//   Start(events)       runs Proc when every event of one event set has fresh data on its
//                       topic (event mode; an OR of ANDs of topic names);
//   Start()             uses the interval and events stored by the last Start.
//
// Start creates the application's node, the fault reporter and the performance counter, and
// nine publishers of lifecycle signals on "<node>/<signal>" (pre_init, post_init,
// failed_init, pre_proc, post_proc, failed_proc, pre_finalize, post_finalize,
// failed_finalize), calls Init, and arms the proc loop. Stop disarms it, calls Finalize and
// releases everything. Texts returned by Init, Proc and Finalize are failures: logged and
// sent as the matching failed_* signal; they never throw. Start while running and Stop while
// stopped throw std::runtime_error.
//
// Threads: Proc runs on the timer thread or on the event subscribers' threads, one step at a
// time (the application's mutex); Stop waits for a running step, and a step that would begin
// after Stop started returns without calling Proc. Do not call Stop from inside Proc.
//
// The registry (Register, GetInstance...) is process-wide and thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "infra/mutex.h"
#include "infra/timer.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_publisher.h"
#include "tarvikdds/messaging/dds_subscriber.h"
#include "tarvikdds/proto/app_messages.pb.h"
#include "tarvikdds/proto/raw_message.pb.h"

namespace tarvik {
namespace quessa {

class Application {
 public:
  // Lifecycle signal numbers.
  enum Signal : uint32_t {
    kPreInit = 0,
    kPostInit = 1,
    kFailedInit = 2,
    kPreProc = 3,
    kPostProc = 4,
    kFailedProc = 5,
    kPreFinalize = 6,
    kPostFinalize = 7,
    kFailedFinalize = 8,
  };
  static constexpr uint32_t kSignalCount = 9;

  // With USE_BIN_NAME=1 in the environment the name is the program's name instead of `name`.
  explicit Application(const std::string& name);

  // The user's three operations: an empty result is success, anything else the error text.
  virtual std::string Init() = 0;
  // `now` is the PTP time of this step and `delta` the time since the previous step (0 on
  // the first), both in milliseconds.
  virtual std::string Proc(uint64_t now, uint64_t delta) = 0;
  virtual std::string Finalize() = 0;

  // Releases members; does not stop a running application and sends no signal.
  virtual ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // Stores `app` under `name`; a name keeps its place in the order when registered again.
  static void Register(const std::string& name, const std::shared_ptr<Application>& app);
  // The instance registered under `name`. An unknown name yields the first registered
  // instance (or an empty pointer when there is none).
  static std::shared_ptr<Application> GetInstance(const std::string& name);
  static uint32_t GetInstanceCount();
  // The instance at `index` in registration order; `index` must be below GetInstanceCount().
  static std::shared_ptr<Application> GetInstanceAt(uint32_t index);
  // Stops every running instance; `clear` then empties the registry.
  static void StopAll(bool clear);

  void Start();
  void Start(int interval);
  void Start(const std::vector<std::vector<std::string>>& events);
  void Stop();
  bool IsRunning() const { return running_.load(); }

  // Publishes lifecycle signal `signal` with the current frame; `error` may be null.
  void Notify(uint32_t signal, const std::string* error);
  // "<node name>[_S<chip>]/<signal suffix>".
  std::string GetTopicName(uint32_t signal) const;

  void InitEventTriggers();
  bool EvaluateEventTriggers();
  void ShutdownEventTriggers();
  // One proc step.
  void CallProc();

  const std::string& name() const { return name_; }
  int interval() const { return interval_.load(); }
  const std::vector<std::vector<std::string>>& events() const { return events_; }
  uint64_t frame() const { return frame_counter_.load(); }
  // The application's node while it runs (null otherwise): for the parameter servers,
  // publishers and subscribers that Init creates.
  Node* node() const { return node_.get(); }

 private:
  // The last arrival on an event's topic, and the arrival a step last consumed; the event
  // is fresh while they differ. Written by subscriber threads and by proc steps.
  struct EventFlag {
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> consumed{0};
  };

  // The application's mutex, held by Stop and by each proc step. A step waiting for it gives
  // up as soon as a stop is requested: Stop holds it while it waits for the timer's running
  // callback, which may be that very step.
  class StepGate {
   public:
    void Lock();
    // False, without the gate, once a stop is requested.
    bool LockUnlessStopping();
    void Unlock();
    // The caller holds the gate.
    void SetStopRequested(bool requested);
    bool StopRequested();

   private:
    korvan::inf::Mutex mutex_;
    korvan::inf::CondVar released_;
    bool held_ KORVAN_GUARDED_BY(mutex_) = false;
    bool stop_requested_ KORVAN_GUARDED_BY(mutex_) = false;
  };
  class GateHold;

  void OnEvent(const std::string& event);
  void LogFailure(const std::string& phase, const std::string& error);

  uint32_t signal_numbers_[kSignalCount];
  const char* signal_suffixes_[kSignalCount];
  std::atomic<uint64_t> frame_counter_{0};
  uint64_t last_proc_time_ = 0;
  std::unordered_map<std::string, EventFlag> event_flags_;
  std::shared_ptr<Publisher<messages::internal::AppSignal>> signal_publishers_[kSignalCount];
  std::unordered_map<std::string, std::shared_ptr<Subscriber<messages::internal::RawMessage>>>
      event_subscribers_;
  std::unique_ptr<korvan::Timer> timer_;
  StepGate gate_;
  std::string name_;
  std::atomic<int> interval_{-1};

  std::vector<std::vector<std::string>> events_;
  std::unique_ptr<Node> node_;
  std::atomic<bool> running_{false};
};

}  // namespace quessa
}  // namespace tarvik
