// Receives the descriptor pool's reports while the protobuf factory builds a file.
//
// Errors and warnings alike become one warning line each, "[<file>] <message>": whether a
// file failed is told by the build result, not by the log. Nothing is counted or kept, so one
// collector may serve any number of builds.
#pragma once

#include <string>

#include <google/protobuf/descriptor.h>

namespace tarvik {
namespace korvan {
namespace message {

class ErrorCollector : public google::protobuf::DescriptorPool::ErrorCollector {
 public:
  ErrorCollector() = default;
  ~ErrorCollector() override = default;

  void AddError(const std::string& filename, const std::string& element_name,
                const google::protobuf::Message* descriptor, ErrorLocation location,
                const std::string& message) override;
  void AddWarning(const std::string& filename, const std::string& element_name,
                  const google::protobuf::Message* descriptor, ErrorLocation location,
                  const std::string& message) override;
};

}  // namespace message
}  // namespace korvan
}  // namespace tarvik
