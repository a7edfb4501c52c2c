#include "infra/nenv.h"

#include <unistd.h>

#include <cstdlib>

namespace tarvik {
namespace korvan {
namespace inf {

NEnv* NEnv::Instance() {
  static NEnv* instance = new NEnv();  // never destroyed: read by logging at process exit
  return instance;
}

NEnv::NEnv() {
  const char* label = std::getenv("KORVAN_ENV_LABEL");
  if (label != nullptr && *label != '\0') {
    label_ = label;
    return;
  }
  char host[256] = {0};
  if (::gethostname(host, sizeof(host) - 1) == 0 && host[0] != '\0') {
    label_ = host;
  } else {
    label_ = "unknown";
  }
}

}  // namespace inf
}  // namespace korvan
}  // namespace tarvik
