// korvan param list | get | set: the parameters a node serves (ParameterServer), through the
// library's ParameterClient. A message-typed value carries its description and is decoded
// through the ProtobufFactory.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "cli.h"
#include "korvan/tools/param_codec.h"
#include "tarvikdds/parameter/parameter_client.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::Param;
using tarvik::korvan::Parameter;
using tarvik::korvan::ParameterClient;
using tarvik::korvan::tools::BusSnapshot;

struct ParamOptions {
  CommonOptions common;
  std::string node;
  std::string name;
  std::string value;
};

// The client calls take whole seconds; at least one.
std::chrono::seconds CallTimeout(const CommonOptions& options) {
  return std::chrono::seconds(std::max<long>(1, static_cast<long>(options.timeout_s + 0.999)));
}

// A client of `node`'s parameter server once its services are seen; null after saying why.
std::unique_ptr<ParameterClient> Connect(const ParamOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return nullptr;
  // The server's three services appear together; "list" stands for them.
  const std::string service = options.node + "/list_parameters";
  const auto deadline = std::chrono::steady_clock::now() + options.common.timeout();
  BusSnapshot snapshot;
  for (;;) {
    if (BusSnapshot::Take(&snapshot)) {
      const auto* found = snapshot.FindService(service);
      if (found != nullptr && !found->servers.empty())
        break;
    }
    if (std::chrono::steady_clock::now() >= deadline || Interrupted()) {
      PrintError("node '" + options.node + "' serves no parameters on the bus (waited " +
                 SecondsText(options.common.timeout_s) + " s)");
      return nullptr;
    }
    SleepUnlessInterrupted(std::chrono::milliseconds(50));
  }
  return std::make_unique<ParameterClient>(&session.node(), options.node);
}

std::string ValueOf(const Param& param, bool json) {
  std::string text;
  std::string problem;
  if (!tarvik::korvan::tools::ParamValueText(param, json, &text, &problem))
    PrintError(problem);
  return text;
}

std::string ParamJson(const Param& param) {
  return "{\"name\":" + JsonQuote(param.name()) +
         ",\"type\":" + JsonQuote(tarvik::korvan::tools::ParamTypeText(param)) +
         ",\"value\":" + ValueOf(param, true) + "}";
}

int List(const ParamOptions& options) {
  std::unique_ptr<ParameterClient> client = Connect(options);
  if (!client)
    return kExitFailure;
  std::vector<Parameter> parameters;
  if (!client->ListParameters(&parameters, CallTimeout(options.common))) {
    PrintError("node '" + options.node + "' did not list its parameters");
    return kExitFailure;
  }
  std::vector<Param> params;
  for (const auto& p : parameters)
    params.push_back(p.ToProtoParam());
  std::sort(params.begin(), params.end(),
            [](const Param& a, const Param& b) { return a.name() < b.name(); });
  if (options.common.json) {
    std::string out = "[";
    for (size_t i = 0; i < params.size(); ++i)
      out += (i ? "," : "") + ParamJson(params[i]);
    std::printf("%s]\n", out.c_str());
    return kExitOk;
  }
  if (params.empty()) {
    std::printf("node '%s' has no parameters\n", options.node.c_str());
    return kExitOk;
  }
  size_t name_width = 4;
  size_t type_width = 4;
  for (const auto& p : params) {
    name_width = std::max(name_width, p.name().size());
    type_width = std::max(type_width, tarvik::korvan::tools::ParamTypeText(p).size());
  }
  std::printf("%-*s  %-*s  %s\n", static_cast<int>(name_width), "NAME",
              static_cast<int>(type_width), "TYPE", "VALUE");
  for (const auto& p : params) {
    std::printf("%-*s  %-*s  %s\n", static_cast<int>(name_width), p.name().c_str(),
                static_cast<int>(type_width), tarvik::korvan::tools::ParamTypeText(p).c_str(),
                ValueOf(p, false).c_str());
  }
  return kExitOk;
}

// The parameter's current value on the server; false after saying why.
bool Fetch(ParameterClient& client, const ParamOptions& options, Param* out) {
  Parameter parameter;
  if (!client.GetParameter(options.name, &parameter, CallTimeout(options.common))) {
    PrintError("node '" + options.node + "' has no parameter '" + options.name + "'");
    return false;
  }
  *out = parameter.ToProtoParam();
  return true;
}

int Get(const ParamOptions& options) {
  std::unique_ptr<ParameterClient> client = Connect(options);
  Param param;
  if (!client || !Fetch(*client, options, &param))
    return kExitFailure;
  if (options.common.json) {
    std::printf("%s\n", ParamJson(param).c_str());
  } else {
    std::printf("%s (%s): %s\n", param.name().c_str(),
                tarvik::korvan::tools::ParamTypeText(param).c_str(), ValueOf(param, false).c_str());
  }
  return kExitOk;
}

int Set(const ParamOptions& options) {
  std::unique_ptr<ParameterClient> client = Connect(options);
  Param current;
  if (!client || !Fetch(*client, options, &current))
    return kExitFailure;
  // The value takes the parameter's current type: a value of another type is refused here,
  // before anything is sent.
  Param next;
  std::string problem;
  if (!tarvik::korvan::tools::ParseParamValue(current, options.value, &next, &problem)) {
    PrintError("parameter '" + options.name + "' of node '" + options.node + "' is " +
               tarvik::korvan::tools::ParamTypeText(current) + ": " + problem);
    return kExitUsage;
  }
  Parameter parameter;
  parameter.FromProtoParam(next);
  if (!client->SetParameter(parameter, CallTimeout(options.common))) {
    PrintError("node '" + options.node + "' refused " + options.name + " = " + options.value);
    return kExitFailure;
  }
  std::printf("%s (%s): %s\n", next.name().c_str(),
              tarvik::korvan::tools::ParamTypeText(next).c_str(), ValueOf(next, false).c_str());
  return kExitOk;
}

}  // namespace

void AddParamCommands(CLI::App& app, int* exit_code) {
  CLI::App* param = app.add_subcommand("param", "Parameters a node serves: list, get, set");
  param->require_subcommand(1);

  static ParamOptions list_options;
  CLI::App* list = param->add_subcommand("list", "Every parameter of a node, with type and value");
  list->add_option("NODE", list_options.node, "The node serving the parameters")->required();
  AddCommonOptions(list, &list_options.common);
  list->callback([=] { *exit_code = List(list_options); });

  static ParamOptions get_options;
  CLI::App* get = param->add_subcommand("get", "One parameter's type and value");
  get->add_option("NODE", get_options.node, "The node serving the parameter")->required();
  get->add_option("NAME", get_options.name, "Parameter name")->required();
  AddCommonOptions(get, &get_options.common);
  get->callback([=] { *exit_code = Get(get_options); });

  static ParamOptions set_options;
  CLI::App* set = param->add_subcommand(
      "set",
      "Sets an existing parameter; the value is read as the parameter's current type (bool, "
      "int, double, string, or a message in text format or JSON)");
  set->add_option("NODE", set_options.node, "The node serving the parameter")->required();
  set->add_option("NAME", set_options.name, "Parameter name")->required();
  set->add_option("VALUE", set_options.value, "The new value")->required();
  AddCommonOptions(set, &set_options.common, false);
  set->callback([=] { *exit_code = Set(set_options); });
}

}  // namespace korvan_cli
