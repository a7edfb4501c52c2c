#include "support/fake_transport.h"

#include "korvan/bus/korvan_bus_manager.h"

namespace korvan_test {
namespace {

namespace bus = tarvik::korvan::bus;

class NullWriter : public bus::TransportWriter {
 public:
  int Write(bus::OutboundSample&) override { return 1; }
  int MatchedReaders() override { return 0; }
};

class NullReader : public bus::TransportReader {
 public:
  size_t Take(size_t, const std::function<void(const bus::InboundSample&)>&) override { return 0; }
  int MatchedWriters() override { return 0; }
};

class FakeFactory : public bus::TransportFactory {
 public:
  explicit FakeFactory(std::shared_ptr<FakeTransport> transport)
      : transport_(std::move(transport)) {}
  std::shared_ptr<bus::Transport> Create(const bus::KorvanBusConfig&, std::string*) override {
    return transport_;
  }

 private:
  std::shared_ptr<FakeTransport> transport_;
};

}  // namespace

std::unique_ptr<bus::TransportWriter> FakeTransport::CreateWriter(const bus::EndpointDescription&) {
  return std::make_unique<NullWriter>();
}

std::unique_ptr<bus::TransportReader> FakeTransport::CreateReader(
    const bus::EndpointDescription&, std::shared_ptr<bus::ReaderSink>) {
  return std::make_unique<NullReader>();
}

bool FakeTransport::ListEntities(std::vector<bus::EntityRecord>* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (calls_until_failure_ > 0 && --calls_until_failure_ == 0)
    return false;
  out->insert(out->end(), remote_.begin(), remote_.end());
  return true;
}

void FakeTransport::SetRemote(std::vector<bus::EntityRecord> records) {
  std::lock_guard<std::mutex> lock(mutex_);
  remote_ = std::move(records);
}

void FakeTransport::FailListCall(int n) {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_until_failure_ = n;
}

std::shared_ptr<FakeTransport> InstallFakeTransport() {
  static auto transport = std::make_shared<FakeTransport>();
  static FakeFactory factory(transport);
  bus::KorvanBusManager::SetTransportFactory(&factory);
  return transport;
}

}  // namespace korvan_test
