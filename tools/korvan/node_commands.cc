// korvan node list | info NODE
#include <cstdio>

#include "cli.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::EndpointRef;
using tarvik::korvan::tools::NodeRef;

std::string ProcessJson(const tarvik::korvan::tools::ProcessRef& p) {
  return "\"application\":" + JsonQuote(p.app_name) + ",\"host\":" + JsonQuote(p.host_name) +
         ",\"pid\":" + std::to_string(p.process_id);
}

int ListNodes(const CommonOptions& options) {
  Session& session = Session::Get();
  BusSnapshot snapshot;
  if (!session.Start() || !session.Snapshot(&snapshot, options.timeout())) {
    PrintError("cannot read discovery");
    return kExitFailure;
  }
  if (options.json) {
    std::string out = "[";
    for (size_t i = 0; i < snapshot.nodes.size(); ++i) {
      const NodeRef& node = snapshot.nodes[i];
      out += (i ? "," : "") + std::string("{\"name\":") + JsonQuote(node.name) + "," +
             ProcessJson(node.process) + "}";
    }
    std::printf("%s]\n", out.c_str());
    return kExitOk;
  }
  if (snapshot.nodes.empty()) {
    std::printf("no nodes on the bus\n");
    return kExitOk;
  }
  std::printf("%-28s %-24s %-20s %s\n", "NODE", "APPLICATION", "HOST", "PID");
  for (const NodeRef& node : snapshot.nodes) {
    std::printf("%-28s %-24s %-20s %d\n", node.name.c_str(), node.process.app_name.c_str(),
                node.process.host_name.c_str(), node.process.process_id);
  }
  return kExitOk;
}

std::string EndpointsJson(const std::vector<EndpointRef>& list, bool service) {
  std::string out = "[";
  for (size_t i = 0; i < list.size(); ++i) {
    out += (i ? "," : "") + std::string("{\"name\":") + JsonQuote(list[i].topic) +
           ",\"type\":" + JsonQuote(list[i].type_name);
    if (!service)
      out += ",\"qos\":" + JsonQuote(list[i].DescribeQos());
    out += "}";
  }
  return out + "]";
}

void PrintEndpoints(const char* title, const std::vector<EndpointRef>& list,
                    const BusSnapshot& snapshot, bool service) {
  std::printf("  %s:%s\n", title, list.empty() ? " none" : "");
  for (const auto& e : list) {
    if (service) {
      const auto* ref = snapshot.FindService(e.topic);
      std::printf("    %s [%s -> %s]\n", e.topic.c_str(),
                  ref ? ref->request_type.c_str() : e.type_name.c_str(),
                  ref ? ref->response_type.c_str() : "?");
    } else {
      std::printf("    %s [%s]\n", e.topic.c_str(), e.type_name.c_str());
    }
  }
}

int NodeInfo(const std::string& name, const CommonOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  BusSnapshot snapshot;
  std::vector<const NodeRef*> nodes;
  const auto deadline = std::chrono::steady_clock::now() + options.timeout();
  // Wait for the node itself, then for discovery to settle so its endpoints are complete.
  while (nodes.empty() && std::chrono::steady_clock::now() < deadline && !Interrupted()) {
    if (BusSnapshot::Take(&snapshot))
      nodes = snapshot.FindNodes(name);
    if (nodes.empty())
      SleepUnlessInterrupted(std::chrono::milliseconds(50));
  }
  if (nodes.empty()) {
    PrintError("node '" + name + "' was not seen on the bus (waited " +
               std::to_string(options.timeout_s) + " s)");
    return kExitFailure;
  }
  session.Snapshot(&snapshot, options.timeout());
  nodes = snapshot.FindNodes(name);
  if (options.json) {
    std::string out = "[";
    for (size_t i = 0; i < nodes.size(); ++i) {
      const NodeRef& n = *nodes[i];
      out += (i ? "," : "") + std::string("{\"name\":") + JsonQuote(n.name) + "," +
             ProcessJson(n.process) + ",\"publishers\":" + EndpointsJson(n.publishers, false) +
             ",\"subscribers\":" + EndpointsJson(n.subscribers, false) +
             ",\"services\":" + EndpointsJson(n.services, true) +
             ",\"clients\":" + EndpointsJson(n.clients, true) + "}";
    }
    std::printf("%s]\n", out.c_str());
    return kExitOk;
  }
  for (const NodeRef* n : nodes) {
    std::printf("%s in %s\n", n->name.c_str(), n->process.Describe().c_str());
    PrintEndpoints("publishers", n->publishers, snapshot, false);
    PrintEndpoints("subscribers", n->subscribers, snapshot, false);
    PrintEndpoints("services", n->services, snapshot, true);
    PrintEndpoints("clients", n->clients, snapshot, true);
  }
  return kExitOk;
}

}  // namespace

void AddNodeCommands(CLI::App& app, int* exit_code) {
  CLI::App* node = app.add_subcommand("node", "Nodes on the bus");
  node->require_subcommand(1);

  static CommonOptions list_options;
  CLI::App* list =
      node->add_subcommand("list", "Every node with its application, host and process id");
  AddCommonOptions(list, &list_options);
  list->callback([=] { *exit_code = ListNodes(list_options); });

  static CommonOptions info_options;
  static std::string info_name;
  CLI::App* info = node->add_subcommand(
      "info", "A node's publishers, subscribers, services and clients, with their types");
  info->add_option("NODE", info_name, "The node's name as the bus lists it")->required();
  AddCommonOptions(info, &info_options);
  info->callback([=] { *exit_code = NodeInfo(info_name, info_options); });
}

}  // namespace korvan_cli
