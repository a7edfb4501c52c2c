#include "infra/log_helper.h"

#include <errno.h>

#include <glog/logging.h>

#include "infra/mutex.h"

namespace tarvik {
namespace korvan {
namespace inf {
namespace {

Mutex g_mutex;
// glog keeps the pointer it is initialised with, so the name needs static storage.
std::string g_name KORVAN_GUARDED_BY(g_mutex);
bool g_initialised_by_us KORVAN_GUARDED_BY(g_mutex) = false;

}  // namespace

void LogHelper::init(const std::string& name, int min_level, bool to_file) {
  MutexLock lock(&g_mutex);
  FLAGS_minloglevel = min_level;
  FLAGS_logtostderr = !to_file;
  FLAGS_alsologtostderr = to_file;
  if (google::IsGoogleLoggingInitialized())
    return;  // ours, or the application's own
  g_name = name.empty() ? std::string(program_invocation_short_name) : name;
  google::InitGoogleLogging(g_name.c_str());
  g_initialised_by_us = true;
}

void LogHelper::destroy() {
  MutexLock lock(&g_mutex);
  google::FlushLogFiles(google::GLOG_INFO);
  if (!g_initialised_by_us)
    return;
  google::ShutdownGoogleLogging();
  g_initialised_by_us = false;
}

std::string LogHelper::name() {
  MutexLock lock(&g_mutex);
  return g_initialised_by_us ? g_name : std::string();
}

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
