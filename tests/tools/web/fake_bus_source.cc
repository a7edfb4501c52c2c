#include "fake_bus_source.h"

#include <algorithm>
#include <chrono>
#include <set>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>
#include <rapidjson/document.h>

namespace korvan_web_test {

namespace pb = google::protobuf;

std::string DescriptorSetOf(const pb::Descriptor* type) {
  pb::FileDescriptorSet set;
  std::set<std::string> seen;
  // Imports first, so that a pool can be built from the set in order.
  std::function<void(const pb::FileDescriptor*)> add = [&](const pb::FileDescriptor* file) {
    if (!seen.insert(file->name()).second)
      return;
    for (int i = 0; i < file->dependency_count(); ++i)
      add(file->dependency(i));
    file->CopyTo(set.add_file());
  };
  add(type->file());
  return set.SerializeAsString();
}

int64_t WallNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void FakeBusSource::AddTopic(const std::string& name, const pb::Descriptor* type,
                             std::vector<std::string> publishers,
                             std::vector<std::string> subscribers) {
  AddTopicInfo(TopicInfo{name, type->full_name(), DescriptorSetOf(type), std::move(publishers),
                         std::move(subscribers)});
}

void FakeBusSource::AddTopicInfo(TopicInfo topic) {
  MutexLock lock(&mu_);
  auto& topics = graph_.topics;
  auto it = std::find_if(topics.begin(), topics.end(),
                         [&](const TopicInfo& t) { return t.name == topic.name; });
  if (meters_.count(topic.name) == 0)
    meters_[topic.name] = std::make_unique<TopicMeter>();
  if (it != topics.end())
    *it = std::move(topic);
  else
    topics.push_back(std::move(topic));
}

void FakeBusSource::RemoveTopic(const std::string& name) {
  MutexLock lock(&mu_);
  auto& topics = graph_.topics;
  topics.erase(std::remove_if(topics.begin(), topics.end(),
                              [&](const TopicInfo& t) { return t.name == name; }),
               topics.end());
}

void FakeBusSource::AddNode(const std::string& name, const std::string& application) {
  MutexLock lock(&mu_);
  graph_.nodes.push_back({name, application});
}

void FakeBusSource::AddService(const std::string& name, const pb::Descriptor* request,
                               const pb::Descriptor* response, std::vector<std::string> providers,
                               ServiceHandler handler) {
  // One set for both types: the request's file defines the response too in these tests, and
  // when it does not, the response's files are merged in.
  pb::FileDescriptorSet set;
  set.ParseFromString(DescriptorSetOf(request));
  if (response->file() != request->file()) {
    pb::FileDescriptorSet more;
    more.ParseFromString(DescriptorSetOf(response));
    std::set<std::string> have;
    for (const auto& f : set.file())
      have.insert(f.name());
    for (const auto& f : more.file())
      if (have.insert(f.name()).second)
        *set.add_file() = f;
  }
  MutexLock lock(&mu_);
  graph_.services.push_back(ServiceInfo{name, request->full_name(), response->full_name(),
                                        set.SerializeAsString(), std::move(providers)});
  services_[name] = std::move(handler);
}

void FakeBusSource::SetApplications(std::vector<ApplicationInfo> apps) {
  MutexLock lock(&mu_);
  apps_ = std::move(apps);
}

void FakeBusSource::SetParameters(const std::string& node, std::vector<Parameter> params) {
  MutexLock lock(&mu_);
  params_[node] = std::move(params);
}

void FakeBusSource::NotifyChanged() {
  MutexLock lock(&change_mu_);
  if (on_change_)
    on_change_();
}

void FakeBusSource::Publish(const std::string& topic, const std::string& payload,
                            std::optional<int64_t> publish_ns) {
  MutexLock delivery(&delivery_mu_);
  ReceivedMessage message{WallNs(), publish_ns, payload};
  std::vector<std::shared_ptr<Subscription>> targets;
  {
    MutexLock lock(&mu_);
    auto meter = meters_.find(topic);
    if (meter != meters_.end())
      meter->second->Record(message.receive_ns, publish_ns, payload.size());
    for (const auto& [handle, sub] : subscriptions_)
      if (sub->topic == topic)
        targets.push_back(sub);
  }
  for (const auto& sub : targets)
    sub->callback(message);
}

int FakeBusSource::Subscriptions(const std::string& topic) const {
  MutexLock lock(&mu_);
  int n = 0;
  for (const auto& [handle, sub] : subscriptions_)
    n += sub->topic == topic ? 1 : 0;
  return n;
}

std::vector<std::string> FakeBusSource::ParameterWrites() const {
  MutexLock lock(&mu_);
  return param_writes_;
}

Graph FakeBusSource::GetGraph() {
  MutexLock lock(&mu_);
  return graph_;
}

std::vector<ApplicationInfo> FakeBusSource::GetApplications() {
  MutexLock lock(&mu_);
  return apps_;
}

std::vector<TopicStats> FakeBusSource::GetStats() {
  const int64_t now = WallNs();
  MutexLock lock(&mu_);
  std::vector<TopicStats> out;
  for (const auto& t : graph_.topics) {
    auto meter = meters_.find(t.name);
    if (meter == meters_.end())
      continue;
    TopicStats stats = meter->second->Snapshot(now);
    stats.topic = t.name;
    out.push_back(std::move(stats));
  }
  return out;
}

uint64_t FakeBusSource::Subscribe(const std::string& topic, MessageCallback callback) {
  MutexLock lock(&mu_);
  const bool known = std::any_of(graph_.topics.begin(), graph_.topics.end(),
                                 [&](const TopicInfo& t) { return t.name == topic; });
  if (!known)
    return 0;
  const uint64_t handle = next_handle_++;
  subscriptions_[handle] = std::make_shared<Subscription>(Subscription{topic, std::move(callback)});
  return handle;
}

void FakeBusSource::Unsubscribe(uint64_t handle) {
  {
    MutexLock lock(&mu_);
    subscriptions_.erase(handle);
  }
  // A delivery that picked the subscription before it left finishes first.
  MutexLock delivery(&delivery_mu_);
}

Result<std::string> FakeBusSource::DecodeToJson(const std::string& type, std::string_view payload) {
  std::string schema;
  {
    MutexLock lock(&mu_);
    for (const auto& t : graph_.topics)
      if (t.type == type)
        schema = t.schema;
    for (const auto& s : graph_.services)
      if (s.request_type == type || s.response_type == type)
        schema = s.schema;
  }
  pb::FileDescriptorSet set;
  if (schema.empty() || !set.ParseFromString(schema))
    return Result<std::string>::Fail("no schema for " + type);
  pb::DescriptorPool pool;
  for (const auto& file : set.file())
    if (pool.BuildFile(file) == nullptr)
      return Result<std::string>::Fail("bad schema for " + type);
  const pb::Descriptor* descriptor = pool.FindMessageTypeByName(type);
  if (descriptor == nullptr)
    return Result<std::string>::Fail(type + " is not in its schema");
  pb::DynamicMessageFactory factory(&pool);
  std::unique_ptr<pb::Message> message(factory.GetPrototype(descriptor)->New());
  if (!message->ParseFromArray(payload.data(), static_cast<int>(payload.size())))
    return Result<std::string>::Fail("payload is not a " + type);
  std::string json;
  if (!pb::util::MessageToJsonString(*message, &json).ok())
    return Result<std::string>::Fail("cannot print " + type);
  return Result<std::string>::Ok(json);
}

Result<std::string> FakeBusSource::CallService(const std::string& service, Encoding encoding,
                                               std::string_view request) {
  ServiceHandler handler;
  {
    MutexLock lock(&mu_);
    auto it = services_.find(service);
    if (it == services_.end())
      return Result<std::string>::Fail("no service " + service);
    handler = it->second;
  }
  return handler(encoding, request);
}

Result<std::vector<Parameter>> FakeBusSource::ListParameters(const std::string& node) {
  MutexLock lock(&mu_);
  auto it = params_.find(node);
  if (it == params_.end())
    return Result<std::vector<Parameter>>::Fail("node " + node + " serves no parameters");
  return Result<std::vector<Parameter>>::Ok(it->second);
}

Result<Parameter> FakeBusSource::GetParameter(const std::string& node, const std::string& name) {
  MutexLock lock(&mu_);
  auto it = params_.find(node);
  if (it != params_.end())
    for (const auto& p : it->second)
      if (p.name == name)
        return Result<Parameter>::Ok(p);
  return Result<Parameter>::Fail("no parameter " + node + "/" + name);
}

Result<Parameter> FakeBusSource::SetParameter(const std::string& node, const std::string& name,
                                              const std::string& value_json) {
  rapidjson::Document doc;
  doc.Parse(value_json.c_str());
  if (doc.HasParseError())
    return Result<Parameter>::Fail("value is not JSON");
  MutexLock lock(&mu_);
  auto it = params_.find(node);
  if (it == params_.end())
    return Result<Parameter>::Fail("node " + node + " serves no parameters");
  for (auto& p : it->second) {
    if (p.name != name)
      continue;
    const bool fits = (p.type == "double" && doc.IsNumber()) ||
                      (p.type == "int" && doc.IsInt64()) || (p.type == "bool" && doc.IsBool()) ||
                      (p.type == "string" && doc.IsString()) ||
                      (p.type != "double" && p.type != "int" && p.type != "bool" &&
                       p.type != "string" && doc.IsObject());
    if (!fits)
      return Result<Parameter>::Fail(name + " holds a " + p.type);
    p.value_json = value_json;
    param_writes_.push_back(node + "/" + name + "=" + value_json);
    return Result<Parameter>::Ok(p);
  }
  return Result<Parameter>::Fail("no parameter " + node + "/" + name);
}

void FakeBusSource::SetChangeCallback(std::function<void()> on_change) {
  MutexLock lock(&change_mu_);
  on_change_ = std::move(on_change);
}

}  // namespace korvan_web_test
