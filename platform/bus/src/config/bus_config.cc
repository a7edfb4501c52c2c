#include "config/bus_config.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <cstring>
#include <set>
#include <sstream>

#include <google/protobuf/util/json_util.h>

#include "infra/env.h"
#include "korvan/bus/bus_status.h"

namespace tarvik {
namespace korvan {
namespace bus {
namespace {

// Far above any real configuration; stops a wrong path (a device, a huge log) from being
// read whole.

bool IsIpAddress(const std::string& text) {
  unsigned char buffer[sizeof(in6_addr)];
  return inet_pton(AF_INET, text.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

std::string CheckQos(const Qos& qos) {
  std::ostringstream problem;
  if (qos.has_history() && qos.history() != 1 && qos.history() != 2) {
    problem << "qos.history " << qos.history() << " is neither 1 (keep-last) nor 2 (keep-all)";
  } else if (qos.has_durability() && qos.durability() != 1 && qos.durability() != 2) {
    problem << "qos.durability " << qos.durability()
            << " is neither 1 (volatile) nor 2 (transient-local)";
  } else if (qos.has_reliability() && qos.reliability() != 1 && qos.reliability() != 2) {
    problem << "qos.reliability " << qos.reliability()
            << " is neither 1 (reliable) nor 2 (best-effort)";
  } else if (qos.has_depth() && qos.depth() == 0 && qos.history() != 2) {
    problem << "qos.depth 0 is not a keep-last depth (use at least 1)";
  } else if (qos.depth() > 1000000) {
    problem << "qos.depth " << qos.depth() << " is above 1000000";
  } else if (qos.has_max_samples() && (qos.max_samples() < 1 || qos.max_samples() > 1000000)) {
    problem << "qos.max_samples " << qos.max_samples() << " is outside 1..1000000";
  }
  return problem.str();
}

}  // namespace

const char* BusStatusText(int status) {
  switch (status) {
    case kBusOk:
      return "ok";
    case kBusConfigUnreadable:
      return "configuration unreadable";
    case kBusConfigMalformed:
      return "configuration malformed";
    case kBusConfigInvalid:
      return "configuration invalid";
    case kBusTransportUnavailable:
      return "transport unavailable";
    case kBusConfigTooLarge:
      return "configuration too large";
    default:
      return "unknown status";
  }
}

bool IsKnownTransport(const std::string& transport) {
  return transport.empty() || transport == kTransportLumis || transport == kTransportLocal;
}

bool DomainFromEnvironment(uint32_t* domain, std::string* problem) {
  *domain = 0;
  const char* text = inf::Env::Current()->GetVariable("KORVAN_DOMAIN_ID");
  if (text == nullptr || *text == '\0')
    return true;
  // Digits only: strtoul would take " 5", "-1" (as a huge number) or "5x" too.
  uint32_t value = 0;
  bool valid = std::strlen(text) <= 3;
  for (const char* c = text; valid && *c != '\0'; ++c) {
    valid = *c >= '0' && *c <= '9';
    value = value * 10 + static_cast<uint32_t>(*c - '0');
  }
  if (!valid || value > kMaxDomainId) {
    *problem = std::string("KORVAN_DOMAIN_ID '") + text + "' is not a DDS domain id (0.." +
               std::to_string(kMaxDomainId) + ")";
    return false;
  }
  *domain = value;
  return true;
}

int LoadBusConfigFile(const std::string& path, KorvanBusConfig* config, std::string* problem) {
  if (path.empty()) {
    *problem = "no file name given";
    return kBusConfigUnreadable;
  }
  std::string text;
  inf::FileError error;
  if (!inf::Env::Current()->ReadFile(path, kMaxBusConfigFileBytes, &text, &error)) {
    switch (error.step) {
      case inf::FileError::kIsDirectory:
        *problem = "is a directory, not a file";
        return kBusConfigUnreadable;
      case inf::FileError::kOpen:
        *problem = std::string("cannot open: ") + strerror(error.error_number);
        return kBusConfigUnreadable;
      case inf::FileError::kTooLarge:
        // A regular file is refused by its size; a device or a growing file once read past it.
        *problem =
            error.file_size > 0
                ? std::to_string(error.file_size) + " bytes, above the limit of " +
                      std::to_string(kMaxBusConfigFileBytes) + " bytes"
                : "more than " + std::to_string(kMaxBusConfigFileBytes) + " bytes, above the limit";
        return kBusConfigTooLarge;
      default:
        *problem = std::string("cannot read: ") + strerror(error.error_number);
        return kBusConfigUnreadable;
    }
  }
  return ParseBusConfig(text, config, problem);
}

int ParseBusConfig(const std::string& text, KorvanBusConfig* config, std::string* problem) {
  if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
    *problem = "file is empty";
    return kBusConfigMalformed;
  }
  config->Clear();
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = false;  // a misspelt key must not be silently ignored
  auto status = google::protobuf::util::JsonStringToMessage(text, config, options);
  if (!status.ok()) {
    *problem = "not a bus configuration: " + std::string(status.message());
    return kBusConfigMalformed;
  }
  return kBusOk;
}

std::string ValidateTopicConfig(const TopicConfig& topic) {
  std::ostringstream problem;
  if (!IsKnownTransport(topic.transport())) {
    problem << "topic '" << topic.name() << "': unknown transport '" << topic.transport()
            << "' (known: lumis, local)";
    return problem.str();
  }
  std::string qos_problem = CheckQos(topic.qos());
  if (!qos_problem.empty())
    return "topic '" + topic.name() + "': " + qos_problem;
  if (topic.has_delivery_threads() &&
      (topic.delivery_threads() < 1 || topic.delivery_threads() > kMaxDeliveryThreads)) {
    problem << "topic '" << topic.name() << "': delivery_threads " << topic.delivery_threads()
            << " is outside 1.." << kMaxDeliveryThreads;
  }
  return problem.str();
}

std::string ValidateBusConfig(const KorvanBusConfig& config) {
  std::ostringstream problem;
  if (config.has_lumis_config()) {
    const LumisConfig& lumis = config.lumis_config();
    if (lumis.has_discovery_ip() && !IsIpAddress(lumis.discovery_ip())) {
      problem << "discovery address '" << lumis.discovery_ip() << "' is not an IP address";
    } else if (lumis.has_locator_ip() && !IsIpAddress(lumis.locator_ip())) {
      problem << "locator address '" << lumis.locator_ip() << "' is not an IP address";
    } else if (lumis.has_port() && (lumis.port() < 1 || lumis.port() > 65000)) {
      problem << "port base " << lumis.port() << " is outside 1..65000";
    } else if (lumis.has_domain_id() && lumis.domain_id() > kMaxDomainId) {
      problem << "domain id " << lumis.domain_id() << " is above " << kMaxDomainId;
    } else if (lumis.has_lease_ms() && (lumis.lease_ms() < 200 || lumis.lease_ms() > 3600000)) {
      problem << "lease " << lumis.lease_ms() << " ms is outside 200..3600000";
    } else if (lumis.has_max_processes_per_host() &&
               (lumis.max_processes_per_host() < 1 || lumis.max_processes_per_host() > 119)) {
      problem << "max_processes_per_host " << lumis.max_processes_per_host()
              << " is outside 1..119";
    }
    for (const auto& peer : lumis.peers()) {
      if (!problem.str().empty())
        break;
      if (!IsIpAddress(peer))
        problem << "peer '" << peer << "' is not an IP address";
    }
    if (!problem.str().empty())
      return problem.str();
  }
  if (config.has_default_transport() &&
      (config.default_transport().empty() || !IsKnownTransport(config.default_transport()))) {
    return "unknown default transport '" + config.default_transport() + "' (known: lumis, local)";
  }
  std::set<std::string> names;
  for (const auto& topic : config.topics()) {
    if (topic.name().empty())
      return "a topic entry has no name";
    if (!names.insert(topic.name() + '\0' + topic.partition()).second) {
      return "topic '" + topic.name() + "' is configured twice";
    }
    std::string topic_problem = ValidateTopicConfig(topic);
    if (!topic_problem.empty())
      return topic_problem;
  }
  return "";
}

}  // namespace bus
}  // namespace korvan
}  // namespace tarvik
