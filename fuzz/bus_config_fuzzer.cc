// Arbitrary bytes as the content of a bus configuration file: parsing must answer with a
// status, never crash or hang, and a configuration that passes the checks must turn into
// endpoint settings and a Cyclone DDS configuration.
#include <cstddef>
#include <cstdint>
#include <string>

#include "config/bus_config.h"
#include "core/qos_rules.h"
#include "dds/cyclone_config.h"
#include "korvan/bus/bus_status.h"
#include "quiet_logs.h"

namespace bus = tarvik::korvan::bus;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bus::KorvanBusConfig config;
  std::string problem;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const int status = bus::ParseBusConfig(text, &config, &problem);
  bus::BusStatusText(status);
  if (status != bus::kBusOk)
    return 0;
  if (!bus::ValidateBusConfig(config).empty())
    return 0;
  for (const auto& topic : config.topics()) {
    bus::Qos qos = bus::CompleteQos(topic.qos());
    bus::ReaderSampleLimit(qos);
    bus::DurableHistoryDepth(qos);
    bus::QosCompatible(qos, qos);
  }
  bus::MakeCycloneSettings(config.lumis_config());
  return 0;
}
