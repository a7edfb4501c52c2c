#include "tarvikdds/application/application.h"

#include <errno.h>
#include <pthread.h>

#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <system_error>

#include "detail/registry_lock.h"
#include "infra/env.h"
#include "infra/nenv.h"
#include "infra/system_info.h"
#include "infra/time.h"
#include "tarvikdds/detail/location.h"
#include "tarvikdds/detail/logging.h"
#include "tarvikdds/fault_reporter.h"
#include "tarvikdds/messaging/perf_counter.h"

namespace tarvik {
namespace quessa {
namespace {

using korvan::Time;
using messages::internal::AppSignal;
using messages::internal::RawMessage;

constexpr const char* kSuffixes[Application::kSignalCount] = {
    "pre_init",    "post_init",    "failed_init",   "pre_proc",       "post_proc",
    "failed_proc", "pre_finalize", "post_finalize", "failed_finalize"};

using detail::RegistryLock;
using detail::RegistryReadLock;
using detail::RegistryWriteLock;

RegistryLock s_registryLock;
// Registration index of each name, and the instances by index.
std::unordered_map<std::string, uint64_t> s_registry KORVAN_GUARDED_BY(s_registryLock);
uint64_t s_counter KORVAN_GUARDED_BY(s_registryLock) = 0;
std::map<uint64_t, std::shared_ptr<Application>> s_auxiliary KORVAN_GUARDED_BY(s_registryLock);

void TerminateHandler() {
  std::exception_ptr current = std::current_exception();
  if (!current)
    std::abort();
  try {
    try {
      std::rethrow_exception(current);
    } catch (const std::exception& e) {
      std::cerr << "caught unhandled std::exception. what(): " << e.what() << std::endl;
    } catch (...) {
      std::cerr << "caught unhandled exception of unknown type." << std::endl;
    }
  } catch (...) {
    std::cerr << "Terminate handler threw an unexpected exception" << std::endl;
  }
  std::abort();
}

const std::string& EnvLabel() {
  return korvan::inf::NEnv::Instance()->Label();
}

}  // namespace

// Releases the gate when a scope ends, also by an exception.
class Application::GateHold {
 public:
  explicit GateHold(StepGate& gate) : gate_(gate) {}
  ~GateHold() { gate_.Unlock(); }

 private:
  StepGate& gate_;
};

void Application::StepGate::Lock() {
  korvan::inf::MutexLock lock(&mutex_);
  while (held_)
    released_.Wait(&mutex_);
  held_ = true;
}

bool Application::StepGate::LockUnlessStopping() {
  korvan::inf::MutexLock lock(&mutex_);
  while (held_ && !stop_requested_)
    released_.Wait(&mutex_);
  if (held_)
    return false;
  held_ = true;
  return true;
}

void Application::StepGate::Unlock() {
  {
    korvan::inf::MutexLock lock(&mutex_);
    held_ = false;
  }
  released_.SignalAll();
}

void Application::StepGate::SetStopRequested(bool requested) {
  {
    korvan::inf::MutexLock lock(&mutex_);
    stop_requested_ = requested;
  }
  released_.SignalAll();  // waiting steps look again
}

bool Application::StepGate::StopRequested() {
  korvan::inf::MutexLock lock(&mutex_);
  return stop_requested_;
}

Application::Application(const std::string& name) {
  for (uint32_t i = 0; i < kSignalCount; ++i) {
    signal_numbers_[i] = i;
    signal_suffixes_[i] = kSuffixes[i];
  }
  std::set_terminate(&TerminateHandler);
  const char* use_bin_name = korvan::inf::Env::Current()->GetVariable("USE_BIN_NAME");
  name_ = use_bin_name != nullptr && std::string(use_bin_name) == "1"
              ? std::string(program_invocation_short_name)
              : name;
}

Application::~Application() = default;

void Application::Register(const std::string& name, const std::shared_ptr<Application>& app) {
  RegistryWriteLock lock(s_registryLock, "application registry");
  auto it = s_registry.find(name);
  if (it == s_registry.end())
    it = s_registry.emplace(name, s_counter++).first;
  s_auxiliary[it->second] = app;
}

std::shared_ptr<Application> Application::GetInstance(const std::string& name) {
  {
    RegistryReadLock lock(s_registryLock, "application registry");
    auto known = s_registry.find(name);
    if (known != s_registry.end()) {
      auto app = s_auxiliary.find(known->second);
      if (app != s_auxiliary.end())
        return app->second;
    }
  }
  // Unknown names are entered with id 0, so they find the first registration; kept so.
  // Entering changes both maps: that takes the write lock.
  RegistryWriteLock lock(s_registryLock, "application registry");
  return s_auxiliary[s_registry[name]];
}

uint32_t Application::GetInstanceCount() {
  RegistryReadLock lock(s_registryLock, "application registry");
  return static_cast<uint32_t>(s_auxiliary.size());
}

std::shared_ptr<Application> Application::GetInstanceAt(uint32_t index) {
  RegistryReadLock lock(s_registryLock, "application registry");
  auto it = s_auxiliary.begin();
  std::advance(it, index);
  return it->second;
}

void Application::StopAll(bool clear) {
  const uint32_t count = GetInstanceCount();
  for (uint32_t i = 0; i < count; ++i) {
    std::shared_ptr<Application> app = GetInstanceAt(i);
    if (app && app->IsRunning())
      app->Stop();
  }
  if (clear) {
    RegistryWriteLock lock(s_registryLock, "application registry");
    s_registry.clear();
    s_auxiliary.clear();
    s_counter = 0;
  }
}

std::string Application::GetTopicName(uint32_t signal) const {
  std::string topic = name_;
  const uint32_t soc = tarvikdds::GetCurrentSOC();
  if (soc != 0)
    topic += "_S" + std::to_string(soc);
  return topic + "/" + signal_suffixes_[signal];
}

void Application::Notify(uint32_t signal, const std::string* error) {
  auto message = std::make_shared<AppSignal>();
  message->set_frame(frame_counter_.load());
  message->set_timestamp(Time::Ptp(Time::kMillisecond));
  if (error != nullptr)
    message->set_error(*error);
  message->set_interval(interval_.load());

  if (signal < kSignalCount && signal_publishers_[signal]) {
    signal_publishers_[signal]->Publish(message);
  }
}

void Application::LogFailure(const std::string& phase, const std::string& error) {
  TREVAM_WARNING(kAppLogModule) << "[" << EnvLabel() << "]"
                                << "[" << Time::Utc(Time::kSecond) << "]"
                                << "App " << name_ << phase << error;
}

void Application::Start(int interval) {
  interval_ = interval;
  Start();
}

void Application::Start(const std::vector<std::vector<std::string>>& events) {
  events_ = events;
  interval_ = -1;
  Start();
}

void Application::Start() {
  {
    gate_.Lock();
    GateHold hold(gate_);
    gate_.SetStopRequested(false);
  }
  if (IsRunning())
    TARVIKDDS_THROW("Start", "Application has already been started: " + name_);
  PerfCounter::Init(100);
  KORVAN_LOG_INFO << "Start app " << name_;
  node_ = Node::CreateNode(name_, "");
  running_ = true;
  FaultReporter::Init(node_.get());
  for (uint32_t n = 0; n < kSignalCount; ++n) {
    QoS qos;
    qos.history_type = 0;
    qos.history_depth = 10;
    qos.durability = 1;
    qos.reliability = 1;
    signal_publishers_[n] = node_->CreatePublisher<AppSignal>(GetTopicName(n), qos);
  }
  const int interval = interval_.load();
  const std::vector<std::vector<std::string>> events = events_;

  KORVAN_LOG_DETAIL << "Send pre-init";
  Notify(kPreInit, nullptr);
  const std::string error = Init();
  if (error.empty()) {
    KORVAN_LOG_DETAIL << "Send post-init";
    Notify(kPostInit, nullptr);
  } else {
    // The application still runs; supervisors see failed_init and decide.
    LogFailure(" failed to init: ", error);
    Notify(kFailedInit, &error);
  }

  if (interval >= 0) {
    interval_ = interval;
    events_.clear();
  } else if (!events.empty()) {
    interval_ = -1;
    events_ = events;
  }
  frame_counter_ = 0;
  last_proc_time_ = 0;
  InitEventTriggers();
}

void Application::Stop() {
  gate_.Lock();
  GateHold hold(gate_);
  gate_.SetStopRequested(true);
  if (!IsRunning())
    TARVIKDDS_THROW("Stop", "Application is not running: " + name_);
  KORVAN_LOG_INFO << "Stop app " << name_;
  if (timer_)
    timer_->Stop();
  KORVAN_LOG_DETAIL << "Send pre-finalize";
  Notify(kPreFinalize, nullptr);
  const std::string error = Finalize();
  if (error.empty()) {
    KORVAN_LOG_DETAIL << "Send post-finalize";
    Notify(kPostFinalize, nullptr);
  } else {
    LogFailure(" failed to finalize: ", error);
    Notify(kFailedFinalize, &error);
  }
  ShutdownEventTriggers();
  for (auto& publisher : signal_publishers_)
    publisher.reset();
  running_ = false;
  node_.reset();
  FaultReporter::Finalize();
  PerfCounter::Finalize();
}

void Application::InitEventTriggers() {
  if (interval_ < 0) {
    if (timer_) {
      timer_->Stop();
      timer_.reset();
    }
    QoS qos;
    qos.history_type = 0;
    qos.history_depth = 10;
    qos.durability = 1;
    qos.reliability = 1;
    // Every flag exists before the first subscriber can look one up.
    for (const auto& set : events_) {
      for (const auto& event : set) {
        EventFlag& flag = event_flags_[event];
        flag.received = 0;
        flag.consumed = 0;
      }
    }
    for (const auto& set : events_) {
      for (const auto& event : set) {
        if (event_subscribers_.count(event) != 0)
          continue;  // one per name
        event_subscribers_[event] = std::make_shared<Subscriber<RawMessage>>(
            event, [this, event](const std::shared_ptr<RawMessage>&) { OnEvent(event); }, qos, 0,
            node_->name(), node_->domain());
      }
    }
    return;
  }
  if (timer_)
    timer_->Stop();
  timer_ = std::make_unique<korvan::Timer>();
  timer_->Start(
      static_cast<uint32_t>(interval_.load()), [this] { CallProc(); }, true, true);
}

void Application::OnEvent(const std::string& event) {
  auto it = event_flags_.find(event);
  if (it == event_flags_.end())
    return;
  it->second.received = Time::Ptp(Time::kNanosecond);
  TREVAM_DETAIL(kAppLogModule) << "[" << EnvLabel() << "]"
                               << "[DEBUG] "
                               << "[" << Time::Utc(Time::kSecond) << "]" << event << " recevied. ";
  if (EvaluateEventTriggers())
    CallProc();
}

bool Application::EvaluateEventTriggers() {
  for (const auto& set : events_) {
    bool all_dirty = true;
    for (const auto& event : set) {
      auto it = event_flags_.find(event);
      const bool dirty =
          it != event_flags_.end() && it->second.consumed.load() != it->second.received.load();
      all_dirty = all_dirty && dirty;
      TREVAM_DETAIL(kAppLogModule) << "[" << EnvLabel() << "]"
                                   << "[DEBUG] "
                                   << "[" << Time::Utc(Time::kSecond) << "]" << event
                                   << " dirty now: " << (all_dirty ? 1 : 0);
    }
    if (all_dirty)
      return true;
  }
  return false;
}

void Application::ShutdownEventTriggers() {
  // Subscribers first: their callbacks write the flags.
  event_subscribers_.clear();
  event_flags_.clear();
  if (timer_)
    timer_->Stop();
}

void Application::CallProc() {
  if (!gate_.LockUnlessStopping()) {
    KORVAN_LOG_INFO << "app name: " << name_ << " CallProc stopped";
    return;
  }
  GateHold hold(gate_);
  if (gate_.StopRequested()) {
    KORVAN_LOG_INFO << "app name: " << name_ << " CallProc stopped";
    return;
  }
  KORVAN_LOG_DETAIL << name_ << " calling Proc";
  const uint64_t start = Time::Ptp(Time::kMicrosecond);
  PerfCounter::Sample(name_ + "_proc_start", static_cast<double>(start));
  const uint64_t now = Time::Ptp(Time::kMicrosecond);
  const uint64_t delta = last_proc_time_ == 0 ? 0 : now - last_proc_time_;
  last_proc_time_ = now;
  PerfCounter::Sample(name_ + "_proc_delta", static_cast<double>(delta));
  Notify(kPreProc, nullptr);
  PerfCounter::BeginSample(name_ + "_proc_duration");
  const std::string error = Proc(now / 1000, delta / 1000);
  PerfCounter::EndSample(name_ + "_proc_duration");
  if (error.empty()) {
    Notify(kPostProc, nullptr);
  } else {
    LogFailure(" failed to proc: ", error);
    Notify(kFailedProc, &error);
  }
  ++frame_counter_;
  for (const auto& set : events_) {
    for (const auto& event : set) {
      auto it = event_flags_.find(event);
      if (it == event_flags_.end())
        continue;
      const uint64_t received = it->second.received.load();
      if (it->second.consumed.load() != received)
        it->second.consumed = received;
    }
  }
  const uint64_t end = Time::Ptp(Time::kMicrosecond);
  const uint64_t cost = end - now;
  const int interval = interval_.load();
  if (interval >= 0 && cost >= 3000ULL * static_cast<uint64_t>(interval)) {
    TREVAM_WARNING(kAppLogModule) << "[" << EnvLabel() << "]"
                                  << "[" << Time::Utc(Time::kSecond) << "]"
                                  << "app name: " << name_ << " pre proc ts: " << now
                                  << ", post proc ts: " << end << ", cost: " << cost << "us"
                                  << ", m_interval: " << interval * 1000 << "us";
  }
  PerfCounter::Sample(name_ + "_proc_end", static_cast<double>(end));
}

}  // namespace quessa
}  // namespace tarvik
