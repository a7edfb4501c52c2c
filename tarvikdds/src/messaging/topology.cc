#include "messaging/topology.h"

#include <vector>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "korvan/bus/lumis_component.h"
#include "korvan/bus/service_topics.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/messaging/dds_node.h"

namespace tarvik {
namespace quessa {
namespace {

using korvan::bus::kServiceRequestSuffix;
using korvan::bus::kServiceResponseSuffix;
using rapidjson::Document;
using rapidjson::Value;

Value Text(const std::string& text, Document::AllocatorType& allocator) {
  return Value(text.c_str(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

// The member `key` of `object`, created as an empty object when missing.
Value& Child(Value& object, const std::string& key, Document::AllocatorType& allocator) {
  Value name(key.c_str(), static_cast<rapidjson::SizeType>(key.size()));
  auto it = object.FindMember(name);
  if (it != object.MemberEnd())
    return it->value;
  object.AddMember(Text(key, allocator), Value(rapidjson::kObjectType), allocator);
  return (object.MemberEnd() - 1)->value;
}

Value& NodeObject(Document& tree, const std::string& app, const std::string& soc,
                  const std::string& node) {
  auto& allocator = tree.GetAllocator();
  return Child(Child(Child(tree, app, allocator), soc, allocator), node, allocator);
}

}  // namespace

bool EndsWith(const std::string& text, const std::string& suffix) {
  if (text.size() < suffix.size())
    return false;
  return text.rfind(suffix) == text.size() - suffix.size();
}

void ProcessTopoNode(Document& tree, korvan::bus::NodeAttr& node) {
  NodeObject(tree, node.app_name, node.soc_name, node.node_name);
}

void ProcessTopoPar(Document& tree, korvan::bus::RoleAttr& role) {
  Value& node = NodeObject(tree, role.app_name, role.soc_name, role.node_name);
  const std::string request = kServiceRequestSuffix;
  const std::string response = kServiceResponseSuffix;
  std::string key;
  std::string name = role.topic_name;
  switch (role.role_type) {
    case 1:
      if (EndsWith(name, request)) {
        key = "client";  // the client publishes the requests
        name.resize(name.size() - request.size());
      } else if (EndsWith(name, response)) {
        key = "service";  // the service publishes the responses
        name.resize(name.size() - response.size());
      } else {
        key = "publisher";
      }
      break;
    case 2:
      if (EndsWith(name, request) || EndsWith(name, response))
        return;
      key = "subscriber";
      break;
    case 3:
      key = "service";
      break;
    case 4:
      key = "client";
      break;
    case 5:
      key = "node";
      break;
    default:
      key = "unknown";
      break;
  }
  auto& allocator = tree.GetAllocator();
  Value key_value(key.c_str(), static_cast<rapidjson::SizeType>(key.size()));
  auto it = node.FindMember(key_value);
  if (it == node.MemberEnd()) {
    node.AddMember(Text(key, allocator), Value(rapidjson::kArrayType), allocator);
    it = node.MemberEnd() - 1;
  }
  it->value.PushBack(Text(name, allocator), allocator);
}

bool Node::GetTopo(std::string& out) {
  return GetTopology(out);
}

bool GetTopology(std::string& out) {
  Document tree;
  tree.Parse("{}");
  auto* discovery = korvan::utils::Singleton<korvan::bus::LumisComponent>::Instance();
  std::vector<korvan::bus::NodeAttr> nodes;
  std::vector<korvan::bus::RoleAttr> publishers;
  std::vector<korvan::bus::RoleAttr> subscribers;
  if (!discovery->listAllNodes(&nodes))
    return false;
  if (!discovery->listAllPublishers(&publishers))
    return false;
  if (!discovery->listAllSubscribers(&subscribers))
    return false;
  for (auto& node : nodes)
    ProcessTopoNode(tree, node);
  for (auto& publisher : publishers)
    ProcessTopoPar(tree, publisher);
  for (auto& subscriber : subscribers)
    ProcessTopoPar(tree, subscriber);

  // The node objects are moved out of the working tree, so it must outlive the writing.
  Document result;
  result.SetArray();
  auto& allocator = result.GetAllocator();
  for (auto& app : tree.GetObject()) {
    for (auto& soc : app.value.GetObject()) {
      Value entry(rapidjson::kObjectType);
      entry.AddMember("app_name", Value(app.name, allocator), allocator);
      entry.AddMember("soc", Value(soc.name, allocator), allocator);
      Value node_list(rapidjson::kArrayType);
      for (auto& node : soc.value.GetObject()) {
        node.value.AddMember("node_name", Value(node.name, tree.GetAllocator()),
                             tree.GetAllocator());
        node_list.PushBack(node.value, allocator);
      }
      entry.AddMember("nodes", node_list, allocator);
      result.PushBack(entry, allocator);
    }
  }
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  result.Accept(writer);
  out.assign(buffer.GetString(), buffer.GetSize());
  return true;
}

}  // namespace quessa
}  // namespace tarvik
