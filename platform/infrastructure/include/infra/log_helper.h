// Sets up and closes the process's log sink (glog).
//
// init() initialises glog once per process under `name` (the program name when empty) unless
// the application did so itself; destroy() flushes and, when init() was the one to set glog
// up, shuts it down so that a later init() can set it up again. Thread-safe.
#pragma once

#include <string>

namespace tarvik {
namespace korvan {
namespace inf {

class LogHelper {
 public:
  // `min_level`: glog's minimum severity (0 info, 1 warning, 2 error). `to_file`: false writes
  // to standard error only; true also writes glog's files into GLOG_log_dir (or /tmp).
  static void init(const std::string& name, int min_level, bool to_file);
  static void destroy();

  // The name glog was initialised with by init(), empty when it was not.
  static std::string name();
};

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
