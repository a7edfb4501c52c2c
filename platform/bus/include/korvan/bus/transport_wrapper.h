// Forwards every call to another transport; a test derives from it and overrides the call it
// wants to fake (for example CreateWriter, to corrupt what one writer sends).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "korvan/bus/transport.h"

namespace tarvik {
namespace korvan {
namespace bus {

class TransportWrapper : public Transport {
 public:
  explicit TransportWrapper(std::shared_ptr<Transport> target) : target_(std::move(target)) {}

  const char* Name() const override { return target_->Name(); }
  std::unique_ptr<TransportWriter> CreateWriter(const EndpointDescription& endpoint) override {
    return target_->CreateWriter(endpoint);
  }
  std::unique_ptr<TransportReader> CreateReader(const EndpointDescription& endpoint,
                                                std::shared_ptr<ReaderSink> sink) override {
    return target_->CreateReader(endpoint, std::move(sink));
  }
  void Announce(const EntityRecord& record) override { target_->Announce(record); }
  void Withdraw(const std::string& entity_id) override { target_->Withdraw(entity_id); }
  bool ListEntities(std::vector<EntityRecord>* out) override { return target_->ListEntities(out); }
  void AnnounceType(const TypeDescription& description) override {
    target_->AnnounceType(description);
  }
  bool ListTypes(std::vector<TypeDescription>* out) override { return target_->ListTypes(out); }

  Transport* target() const { return target_.get(); }

 private:
  std::shared_ptr<Transport> target_;
};

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
