#include "infra/nenv.h"

#include "infra/env.h"

namespace tarvik {
namespace korvan {
namespace inf {

NEnv* NEnv::Instance() {
  static NEnv* instance = new NEnv();  // never destroyed: read by logging at process exit
  return instance;
}

NEnv::NEnv() {
  Env* env = Env::Current();
  const char* label = env->GetVariable("KORVAN_ENV_LABEL");
  if (label != nullptr && *label != '\0') {
    label_ = label;
    return;
  }
  std::string host;
  if (env->HostName(&host) && !host.empty()) {
    label_ = host;
  } else {
    label_ = "unknown";
  }
}

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
