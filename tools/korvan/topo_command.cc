// korvan topo: the topology of the bus, as a tree per process (default), as the library's
// snapshot JSON (Node::GetTopo, --json) or as a Graphviz graph of nodes and topics (--dot).
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdio>
#include <map>
#include <set>

#include "cli.h"
#include "tarvikdds/messaging/dds_node.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::EndpointRef;
using tarvik::korvan::tools::NodeRef;

struct TopoOptions {
  CommonOptions common;
  bool dot = false;
};

// The library's snapshot without this tool's own node.
int PrintJson(Session& session) {
  std::string text;
  if (!session.node().GetTopo(text)) {
    PrintError("cannot read discovery");
    return kExitFailure;
  }
  rapidjson::Document tree;
  if (tree.Parse(text.c_str()).HasParseError() || !tree.IsArray()) {
    std::printf("%s\n", text.c_str());
    return kExitOk;
  }
  const std::string own = session.node().node_name();
  for (auto app = tree.Begin(); app != tree.End();) {
    if (app->IsObject() && app->HasMember("nodes") && (*app)["nodes"].IsArray()) {
      auto& nodes = (*app)["nodes"];
      for (auto node = nodes.Begin(); node != nodes.End();) {
        const bool mine = node->IsObject() && node->HasMember("node_name") &&
                          (*node)["node_name"].IsString() &&
                          own == (*node)["node_name"].GetString();
        node = mine ? nodes.Erase(node) : node + 1;
      }
      if (nodes.Empty()) {
        app = tree.Erase(app);
        continue;
      }
    }
    ++app;
  }
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  tree.Accept(writer);
  std::printf("%s\n", buffer.GetString());
  return kExitOk;
}

std::string ServiceTypes(const BusSnapshot& snapshot, const std::string& name) {
  const auto* service = snapshot.FindService(name);
  return service ? service->request_type + " -> " + service->response_type : "?";
}

void PrintTree(const BusSnapshot& snapshot) {
  if (snapshot.nodes.empty()) {
    std::printf("no nodes on the bus\n");
    return;
  }
  std::map<tarvik::korvan::tools::ProcessRef, std::vector<const NodeRef*>> processes;
  for (const NodeRef& node : snapshot.nodes)
    processes[node.process].push_back(&node);
  for (const auto& entry : processes) {
    std::printf("%s\n", entry.first.Describe().c_str());
    for (const NodeRef* node : entry.second) {
      std::printf("  node %s\n", node->name.c_str());
      for (const auto& e : node->publishers)
        std::printf("    publishes   %s [%s]\n", e.topic.c_str(), e.type_name.c_str());
      for (const auto& e : node->subscribers)
        std::printf("    subscribes  %s [%s]\n", e.topic.c_str(), e.type_name.c_str());
      for (const auto& e : node->services)
        std::printf("    serves      %s [%s]\n", e.topic.c_str(),
                    ServiceTypes(snapshot, e.topic).c_str());
      for (const auto& e : node->clients)
        std::printf("    calls       %s [%s]\n", e.topic.c_str(),
                    ServiceTypes(snapshot, e.topic).c_str());
    }
  }
}

// A DOT string; a line break in `text` becomes a line break of the label.
std::string DotQuote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    if (c == '"' || c == '\\')
      out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string NodeId(const NodeRef& node) {
  return DotQuote("node:" + node.name + "@" + node.process.host_name + ":" +
                  std::to_string(node.process.process_id));
}

void PrintDot(const BusSnapshot& snapshot) {
  std::printf("digraph bus {\n  rankdir=LR;\n  node [fontname=\"Helvetica\", fontsize=10];\n");
  for (const NodeRef& node : snapshot.nodes) {
    std::printf("  %s [shape=box, label=%s];\n", NodeId(node).c_str(),
                DotQuote(node.name + "\n" + node.process.app_name + ", pid " +
                         std::to_string(node.process.process_id))
                    .c_str());
  }
  for (const auto& entry : snapshot.topics) {
    std::string types;
    for (const auto& t : entry.second.TypeNames())
      types += (types.empty() ? "" : ", ") + t;
    std::printf("  %s [shape=ellipse, label=%s];\n", DotQuote("topic:" + entry.first).c_str(),
                DotQuote(entry.first + "\n" + types).c_str());
  }
  std::set<std::string> services;
  for (const NodeRef& node : snapshot.nodes) {
    for (const auto* list : {&node.services, &node.clients}) {
      for (const auto& e : *list) {
        if (services.insert(e.topic).second) {
          std::printf("  %s [shape=hexagon, label=%s];\n", DotQuote("service:" + e.topic).c_str(),
                      DotQuote(e.topic + "\n" + ServiceTypes(snapshot, e.topic)).c_str());
        }
      }
    }
  }
  for (const NodeRef& node : snapshot.nodes) {
    const std::string id = NodeId(node);
    for (const auto& e : node.publishers)
      std::printf("  %s -> %s;\n", id.c_str(), DotQuote("topic:" + e.topic).c_str());
    for (const auto& e : node.subscribers)
      std::printf("  %s -> %s;\n", DotQuote("topic:" + e.topic).c_str(), id.c_str());
    for (const auto& e : node.services) {
      std::printf("  %s -> %s [style=dashed];\n", DotQuote("service:" + e.topic).c_str(),
                  id.c_str());
    }
    for (const auto& e : node.clients) {
      std::printf("  %s -> %s [style=dashed];\n", id.c_str(),
                  DotQuote("service:" + e.topic).c_str());
    }
  }
  std::printf("}\n");
}

int Topo(const TopoOptions& options) {
  Session& session = Session::Get();
  BusSnapshot snapshot;
  if (!session.Start() || !session.Snapshot(&snapshot, options.common.timeout())) {
    PrintError("cannot read discovery");
    return kExitFailure;
  }
  if (options.common.json)
    return PrintJson(session);
  if (options.dot) {
    PrintDot(snapshot);
  } else {
    PrintTree(snapshot);
  }
  return kExitOk;
}

}  // namespace

void AddTopoCommand(CLI::App& app, int* exit_code) {
  static TopoOptions options;
  CLI::App* topo = app.add_subcommand(
      "topo",
      "The topology: every process with its nodes and their endpoints; --json gives the "
      "library's snapshot (Node::GetTopo), --dot a Graphviz graph of nodes and topics");
  auto* dot = topo->add_flag("--dot", options.dot, "Graphviz output (dot -Tsvg)");
  AddCommonOptions(topo, &options.common);
  dot->excludes(topo->get_option("--json"));
  topo->callback([=] { *exit_code = Topo(options); });
}

}  // namespace korvan_cli
