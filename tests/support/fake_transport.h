// A network transport for tests that moves nothing and lists what the test tells it to, for
// checking what the library builds from discovery. Install with InstallFakeTransport() before
// the runtime starts.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvan/bus/transport.h"
#include "korvan/bus/transport_factory.h"

namespace korvan_test {

class FakeTransport : public tarvik::korvan::bus::Transport {
 public:
  const char* Name() const override { return "fake"; }
  std::unique_ptr<tarvik::korvan::bus::TransportWriter> CreateWriter(
      const tarvik::korvan::bus::EndpointDescription& endpoint) override;
  std::unique_ptr<tarvik::korvan::bus::TransportReader> CreateReader(
      const tarvik::korvan::bus::EndpointDescription& endpoint,
      std::shared_ptr<tarvik::korvan::bus::ReaderSink> sink) override;
  void Announce(const tarvik::korvan::bus::EntityRecord&) override {}
  void Withdraw(const std::string&) override {}
  bool ListEntities(std::vector<tarvik::korvan::bus::EntityRecord>* out) override;

  // What ListEntities reports as the rest of the bus.
  void SetRemote(std::vector<tarvik::korvan::bus::EntityRecord> records);
  // Makes the n-th ListEntities call from now (1-based) fail; 0 never.
  void FailListCall(int n);

 private:
  std::mutex mutex_;
  std::vector<tarvik::korvan::bus::EntityRecord> remote_;
  int calls_until_failure_ = 0;
};

// Installs a factory that makes the network transport a FakeTransport, and returns it.
std::shared_ptr<FakeTransport> InstallFakeTransport();

}  // namespace korvan_test
