// korvan info: starts the runtime and prints its state and the bus configuration it loaded
// (the environment decides it: KORVAN_BUS_CONFIG_PATH, LUMIS_IP, ...).
#include <google/protobuf/util/json_util.h>

#include <cstdio>

#include "cli.h"
#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/application/init.h"

namespace korvan_cli {
namespace {

struct InfoOptions {
  bool json = false;
  std::string name = "korvan";
};

int Info(const InfoOptions& options) {
  namespace tarvikdds = tarvik::quessa::tarvikdds;
  using tarvik::korvan::bus::KorvanBusManager;
  const bool up = Session::Get().Start(false, options.name);
  const auto config = tarvik::korvan::utils::Singleton<KorvanBusManager>::Instance()->config();
  std::string json;
  google::protobuf::util::JsonPrintOptions print;
  print.add_whitespace = !options.json;
  print.preserve_proto_field_names = true;
  print.always_print_primitive_fields = false;
  google::protobuf::util::MessageToJsonString(config, &json, print);
  if (options.json) {
    std::printf("{\"runtime\":%s,\"ok\":%s,\"shutdown\":%s,\"bus_configuration\":%s}\n",
                up ? "\"running\"" : "\"failed to start\"", tarvikdds::Ok() ? "true" : "false",
                tarvikdds::IsShutdown() ? "true" : "false", json.c_str());
  } else {
    std::printf("runtime: %s (Ok=%d, IsShutdown=%d)\n", up ? "running" : "failed to start",
                tarvikdds::Ok(), tarvikdds::IsShutdown());
    std::printf("bus configuration: %s", json.c_str());
  }
  return up ? kExitOk : kExitFailure;
}

}  // namespace

void AddInfoCommand(CLI::App& app, int* exit_code) {
  static InfoOptions options;
  CLI::App* info = app.add_subcommand(
      "info", "Starts the runtime and prints its state and the bus configuration it loaded");
  info->add_option("NAME", options.name, "Application name to start the runtime under")
      ->capture_default_str();
  info->add_flag("--json", options.json, "Machine-readable output (JSON)");
  info->callback([=] { *exit_code = Info(options); });
}

}  // namespace korvan_cli
