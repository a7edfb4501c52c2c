// The environment label of this process, printed as the first bracket of the application
// framework's log lines: KORVAN_ENV_LABEL when set, otherwise the host name. A singleton,
// created on first use; its label never changes afterwards.
#pragma once

#include <string>

namespace tarvik {
namespace korvan {
namespace inf {

class NEnv {
 public:
  static NEnv* Instance();
  const std::string& Label() const { return label_; }

 private:
  NEnv();
  std::string label_;
};

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
