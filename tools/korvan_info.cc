// Starts the runtime and prints its state and the bus configuration it loaded, as JSON.
// The environment decides the configuration (KORVAN_BUS_CONFIG_PATH, LUMIS_IP, ...).
#include <cstdio>
#include <string>

#include <google/protobuf/util/json_util.h>

#include "korvan/bus/korvan_bus_manager.h"
#include "korvan/bus/singleton.h"
#include "tarvikdds/application/init.h"

int main(int argc, char** argv) {
  namespace tarvikdds = tarvik::quessa::tarvikdds;
  using tarvik::korvan::bus::KorvanBusManager;
  const std::string name = argc > 1 ? argv[1] : "korvan_info";
  const bool up = tarvikdds::Init(name);
  std::printf("runtime: %s (Ok=%d, IsShutdown=%d)\n", up ? "running" : "failed to start",
              tarvikdds::Ok(), tarvikdds::IsShutdown());
  auto config = tarvik::korvan::utils::Singleton<KorvanBusManager>::Instance()->config();
  std::string json;
  google::protobuf::util::JsonPrintOptions options;
  options.add_whitespace = true;
  options.preserve_proto_field_names = true;
  google::protobuf::util::MessageToJsonString(config, &json, options);
  std::printf("bus configuration: %s", json.c_str());
  tarvikdds::Shutdown();
  return up ? 0 : 1;
}
