// korvan service list | call
#include <google/protobuf/message.h>

#include <cstdio>

#include "cli.h"
#include "korvan/tools/dynamic_endpoints.h"
#include "korvan/tools/text_codec.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::tools::BusSnapshot;
using tarvik::korvan::tools::DynamicClient;
using tarvik::korvan::tools::DynamicType;
using tarvik::korvan::tools::ServiceRef;

int ListServices(bool with_types, const CommonOptions& options) {
  Session& session = Session::Get();
  BusSnapshot snapshot;
  if (!session.Start() || !session.Snapshot(&snapshot, options.timeout())) {
    PrintError("cannot read discovery");
    return kExitFailure;
  }
  std::string json = "[";
  for (const auto& entry : snapshot.services) {
    const ServiceRef& service = entry.second;
    if (service.servers.empty())
      continue;  // only clients waiting for it
    if (options.json) {
      json += (json.size() > 1 ? "," : "") + std::string("{\"name\":") + JsonQuote(service.name) +
              ",\"request_type\":" + JsonQuote(service.request_type) +
              ",\"response_type\":" + JsonQuote(service.response_type) +
              ",\"servers\":" + std::to_string(service.servers.size()) +
              ",\"clients\":" + std::to_string(service.clients.size()) + "}";
    } else if (with_types) {
      std::printf("%s [%s -> %s]\n", service.name.c_str(), service.request_type.c_str(),
                  service.response_type.c_str());
    } else {
      std::printf("%s\n", service.name.c_str());
    }
  }
  if (options.json)
    std::printf("%s]\n", json.c_str());
  return kExitOk;
}

struct CallOptions {
  CommonOptions common;
  std::string service;
  std::string value;
};

int Call(const CallOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;
  BusSnapshot snapshot;
  const ServiceRef* service = AwaitService(options.service, options.common, &snapshot);
  if (service == nullptr)
    return kExitFailure;
  std::string problem;
  const DynamicType* request = session.catalog().FromBus(
      service->request_type, service->request_type_hash, options.common.timeout(), &problem);
  if (request == nullptr) {
    PrintError("cannot call '" + options.service + "': " + problem);
    return kExitFailure;
  }
  const DynamicType* response = session.catalog().FromBus(
      service->response_type, service->response_type_hash, options.common.timeout(), &problem);
  if (response == nullptr) {
    PrintError("cannot call '" + options.service + "': " + problem);
    return kExitFailure;
  }
  std::shared_ptr<google::protobuf::Message> message = request->operations->New();
  if (!tarvik::korvan::tools::ParseMessageText(options.value, message.get(), &problem)) {
    PrintError("the request is not a " + request->type_name + ": " + problem);
    return kExitUsage;
  }
  if (!message->IsInitialized()) {
    PrintError("the request lacks required fields of " + request->type_name + ": " +
               message->InitializationErrorString());
    return kExitUsage;
  }
  DynamicClient client(session.node(), options.service, *request, *response);
  if (!client.ok() || !client.WaitForService(options.common.timeout())) {
    PrintError("service '" + options.service + "' does not answer (waited " +
               SecondsText(options.common.timeout_s) + " s)");
    return kExitFailure;
  }
  std::shared_ptr<google::protobuf::Message> answer =
      client.Call(*message, options.common.timeout());
  if (!answer) {
    PrintError("no response from '" + options.service + "' within " +
               SecondsText(options.common.timeout_s) + " s");
    return kExitFailure;
  }
  if (options.common.json) {
    std::printf("%s\n", tarvik::korvan::tools::ToJson(*answer).c_str());
  } else {
    const std::string text = tarvik::korvan::tools::ToText(*answer);
    std::printf("%s", text.empty() ? "(empty response)\n" : text.c_str());
  }
  return kExitOk;
}

}  // namespace

void AddServiceCommands(CLI::App& app, int* exit_code) {
  CLI::App* service = app.add_subcommand("service", "Services: list, call");
  service->require_subcommand(1);

  static CommonOptions list_options;
  static bool with_types = false;
  CLI::App* list = service->add_subcommand("list", "Every service that has a server");
  list->add_flag("-t,--types", with_types, "Show each service's request and response types");
  AddCommonOptions(list, &list_options);
  list->callback([=] { *exit_code = ListServices(with_types, list_options); });

  static CallOptions call_options;
  CLI::App* call = service->add_subcommand(
      "call", "Calls a service once and prints the response (text format, or JSON with --json)");
  call->add_option("SERVICE", call_options.service, "Service name")->required();
  call->add_option("VALUE", call_options.value,
                   "The request: text format ('a: 1 b: 2') or JSON ('{\"a\": 1}')")
      ->required();
  AddCommonOptions(call, &call_options.common);
  call->callback([=] { *exit_code = Call(call_options); });
}

}  // namespace korvan_cli
