#include "tarvikdds/application/init.h"

#include <cstdint>
#include <stdexcept>

#include "infra/async.h"
#include "infra/env.h"
#include "infra/log_helper.h"
#include "infra/mutex.h"
#include "infra/time.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace quessa {
namespace tarvikdds {
namespace {

using korvan::Time;
using korvan::bus::KorvanBusConfig;
using korvan::bus::KorvanBusManager;

// -1 not initialised (or the last Init failed), 0 running, 1 shutting down, 2 shut down.
korvan::inf::Mutex g_state_mtx;
int32_t g_state KORVAN_GUARDED_BY(g_state_mtx) = -1;
korvan::inf::Mutex g_init_mtx;
bool g_atexit_registered KORVAN_GUARDED_BY(g_init_mtx) = false;

int32_t State() {
  korvan::inf::MutexLock lock(&g_state_mtx);
  return g_state;
}

int InitialiseBus(const std::string& name) {
  korvan::inf::Env* env = korvan::inf::Env::Current();
  KorvanBusManager* bus = korvan::utils::Singleton<KorvanBusManager>::Instance();
  if (const char* path = env->GetVariable("KORVAN_BUS_CONFIG_PATH")) {
    return bus->initial(std::string(path), name);
  }
  KorvanBusConfig config;
  if (const char* ip = env->GetVariable("LUMIS_IP")) {
    config.mutable_lumis_config()->set_discovery_ip(ip);
  }
  if (const char* locator = env->GetVariable("LUMIS_LOCATOR_IP")) {
    config.mutable_lumis_config()->set_locator_ip(locator);
  }
  if (const char* port = env->GetVariable("LUMIS_PORT")) {
    // std::stoi's exception leaves Init as it always has; it names nothing, so say here what
    // was wrong before it does.
    try {
      config.mutable_lumis_config()->set_port(std::stoi(port));
    } catch (const std::out_of_range&) {
      KORVAN_LOG_ERROR << "LUMIS_PORT '" << port
                       << "' is out of range: Init throws std::out_of_range";
      throw;
    } catch (const std::invalid_argument&) {
      KORVAN_LOG_ERROR << "LUMIS_PORT '" << port
                       << "' is not a number: Init throws std::invalid_argument";
      throw;
    }
  }
  return bus->initial(config);
}

}  // namespace

bool Ok() {
  return State() == 0;
}

bool IsShutdown() {
  return State() == 1;
}

bool Init(const std::string& name) {
  if (Ok())
    return true;
  korvan::inf::MutexLock init_lock(&g_init_mtx);
  if (Ok())
    return true;

  korvan::inf::LogHelper::init(name, 0, false);
  if (!g_atexit_registered) {
    if (korvan::inf::Env::Current()->AtExit(&Shutdown) != 0) {
      KORVAN_LOG_ERROR << "Register exit handle failed";
      return false;
    }
    KORVAN_LOG_INFO << "Register exit handle succ.";
    g_atexit_registered = true;
  }
  korvan::async::Instance();
  const int status = InitialiseBus(name);
  {
    korvan::inf::MutexLock state_lock(&g_state_mtx);
    g_state = status == 0 ? 0 : -1;
  }
  return status == 0;
}

void Shutdown() {
  {
    korvan::inf::MutexLock lock(&g_state_mtx);
    if (g_state == 1 || g_state == 2)
      return;
    g_state = 1;  // also from -1: a process whose Init failed still cleans up
  }
  korvan::async::CleanUp();
  korvan::inf::LogHelper::destroy();
  korvan::inf::MutexLock lock(&g_state_mtx);
  g_state = 2;
}

void WaitForShutdown() {
  for (;;) {
    Time::Sleep(500, Time::kMillisecond);
    if (State() == 2)
      return;
  }
}

}  // namespace tarvikdds
}  // namespace quessa
}  // namespace tarvik
