#include "tarvikdds/message/error_collector.h"

#include "tarvikdds/detail/logging.h"

namespace tarvik {
namespace korvan {
namespace message {

void ErrorCollector::AddError(const std::string& filename, const std::string& /*element_name*/,
                              const google::protobuf::Message* /*descriptor*/,
                              ErrorLocation /*location*/, const std::string& message) {
  // Warning severity on purpose: a failed build is reported by its result.
  KORVAN_LOG_WARNING << "[" << filename << "] " << message;
}

void ErrorCollector::AddWarning(const std::string& filename, const std::string& /*element_name*/,
                                const google::protobuf::Message* /*descriptor*/,
                                ErrorLocation /*location*/, const std::string& message) {
  KORVAN_LOG_WARNING << "[" << filename << "] " << message;
}

}  // namespace message
}  // namespace korvan
}  // namespace tarvik
