// FakeBusSource: a BusSource held entirely in memory, for the web server's tests and the test
// server the outside clients talk to. The test sets the graph, the applications, parameters and
// service handlers, and publishes messages itself; every method is safe from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>

#include "infra/mutex.h"
#include "infra/thread_annotations.h"
#include "korvan/web/bus_source.h"
#include "korvan/web/topic_meter.h"

namespace korvan_web_test {

using namespace tarvik::korvan::web;
using tarvik::korvan::inf::Mutex;
using tarvik::korvan::inf::MutexLock;

// The serialized FileDescriptorSet of a type: its file and every file it imports.
std::string DescriptorSetOf(const google::protobuf::Descriptor* type);

int64_t WallNs();

class FakeBusSource : public BusSource {
 public:
  using ServiceHandler = std::function<Result<std::string>(Encoding, std::string_view)>;

  // Adds or replaces a topic (by name), with a schema from the compiled-in type.
  void AddTopic(const std::string& name, const google::protobuf::Descriptor* type,
                std::vector<std::string> publishers = {},
                std::vector<std::string> subscribers = {});
  void AddTopicInfo(TopicInfo topic);
  void RemoveTopic(const std::string& name);
  void AddNode(const std::string& name, const std::string& application = "");
  void AddService(const std::string& name, const google::protobuf::Descriptor* request,
                  const google::protobuf::Descriptor* response, std::vector<std::string> providers,
                  ServiceHandler handler);
  void SetApplications(std::vector<ApplicationInfo> apps);
  void SetParameters(const std::string& node, std::vector<Parameter> params);
  // Tells the server (through the change callback) that something changed.
  void NotifyChanged();

  // Delivers a message to the topic's subscribers on the calling thread and counts it in the
  // topic's statistics.
  void Publish(const std::string& topic, const std::string& payload,
               std::optional<int64_t> publish_ns = std::nullopt);
  // Subscriptions open at the source for a topic.
  int Subscriptions(const std::string& topic) const;
  // "node/name=value" for every successful SetParameter, in order.
  std::vector<std::string> ParameterWrites() const;

  Graph GetGraph() override;
  std::vector<ApplicationInfo> GetApplications() override;
  std::vector<TopicStats> GetStats() override;
  uint64_t Subscribe(const std::string& topic, MessageCallback callback) override;
  void Unsubscribe(uint64_t handle) override;
  Result<std::string> DecodeToJson(const std::string& type, std::string_view payload) override;
  Result<std::string> CallService(const std::string& service, Encoding encoding,
                                  std::string_view request) override;
  Result<std::vector<Parameter>> ListParameters(const std::string& node) override;
  Result<Parameter> GetParameter(const std::string& node, const std::string& name) override;
  Result<Parameter> SetParameter(const std::string& node, const std::string& name,
                                 const std::string& value_json) override;
  void SetChangeCallback(std::function<void()> on_change) override;

 private:
  struct Subscription {
    std::string topic;
    MessageCallback callback;
  };

  mutable Mutex mu_;
  Graph graph_ KORVAN_GUARDED_BY(mu_);
  std::vector<ApplicationInfo> apps_ KORVAN_GUARDED_BY(mu_);
  std::map<std::string, std::vector<Parameter>> params_ KORVAN_GUARDED_BY(mu_);
  std::vector<std::string> param_writes_ KORVAN_GUARDED_BY(mu_);
  std::map<std::string, ServiceHandler> services_ KORVAN_GUARDED_BY(mu_);
  std::map<std::string, std::unique_ptr<TopicMeter>> meters_ KORVAN_GUARDED_BY(mu_);
  std::map<uint64_t, std::shared_ptr<Subscription>> subscriptions_ KORVAN_GUARDED_BY(mu_);
  uint64_t next_handle_ KORVAN_GUARDED_BY(mu_) = 1;

  // Held while delivering, so that Unsubscribe can wait for a running callback.
  Mutex delivery_mu_;
  Mutex change_mu_;
  std::function<void()> on_change_ KORVAN_GUARDED_BY(change_mu_);
};

}  // namespace korvan_web_test
