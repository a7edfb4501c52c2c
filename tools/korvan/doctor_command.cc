// korvan doctor: checks what decides whether this process finds the others — the
// configuration file, the interface, multicast or peers, the ports, the domain — then joins
// the bus and reports what it sees, with what to fix for every problem.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <glog/logging.h>
#include <google/protobuf/util/json_util.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include "cli.h"
#include "korvan/bus/korvan_bus_config.pb.h"

namespace korvan_cli {
namespace {

using tarvik::korvan::bus::KorvanBusConfig;
using tarvik::korvan::bus::LumisConfig;
using tarvik::korvan::tools::BusSnapshot;

// The bus's defaults and limits (see the README's Environment and configuration sections).
constexpr int kDefaultPortBase = 7400;
constexpr unsigned kMaxDomainId = 232;
constexpr unsigned kDefaultMaxProcesses = 100;
constexpr int kDomainGain = 250;        // ports per domain
constexpr int kHighestPortOffset = 11;  // the highest of the ports of participant index 0

enum class Level { kOk, kNote, kWarning, kError };

struct Finding {
  Level level;
  std::string check;
  std::string text;
  std::string fix;
};

const char* LevelName(Level level) {
  switch (level) {
    case Level::kOk:
      return "ok";
    case Level::kNote:
      return "note";
    case Level::kWarning:
      return "warning";
    case Level::kError:
      return "error";
  }
  return "?";
}

// Error lines the bus logs while starting, to report them as the reason.
class ErrorLines : public google::LogSink {
 public:
  ErrorLines() { google::AddLogSink(this); }
  ~ErrorLines() override { google::RemoveLogSink(this); }
  void send(google::LogSeverity severity, const char*, const char*, int, const std::tm*,
            const char* message, size_t length) override {
    if (severity < google::GLOG_ERROR)
      return;
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.emplace_back(message, length);
  }
  std::string First() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_.empty() ? std::string() : lines_.front();
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

class Doctor {
 public:
  explicit Doctor(const CommonOptions& options) : options_(options) {}
  int Run();

 private:
  void Add(Level level, const std::string& check, const std::string& text,
           const std::string& fix = std::string()) {
    findings_.push_back({level, check, text, fix});
  }
  bool ReadConfiguration();
  void ReadEnvironment();
  void CheckInterface();
  void CheckDiscovery();
  void CheckPorts();
  void CheckDomain();
  bool JoinBus();
  void LookAround();
  int Print() const;

  const CommonOptions& options_;
  std::vector<Finding> findings_;
  LumisConfig lumis_;
  bool from_file_ = false;
  bool startable_ = true;  // false once a problem would make the bus refuse to start
  std::string address_ = "127.0.0.1";
  bool loopback_ = true;
  bool interface_found_ = false;
  bool interface_multicast_ = false;
  unsigned domain_ = 0;
};

bool IsAddress(const std::string& text) {
  in6_addr buffer{};
  return inet_pton(AF_INET, text.c_str(), &buffer) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &buffer) == 1;
}

bool IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1";
}

std::string Count(size_t n, const std::string& what) {
  return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

bool Configured(const char* name) {
  return std::getenv(name) != nullptr;
}

bool Doctor::ReadConfiguration() {
  const char* path = std::getenv("KORVAN_BUS_CONFIG_PATH");
  if (path == nullptr) {
    Add(Level::kOk, "configuration",
        "no file (KORVAN_BUS_CONFIG_PATH unset): LUMIS_IP, LUMIS_LOCATOR_IP and LUMIS_PORT decide");
    return false;
  }
  from_file_ = true;
  const std::string file = path;
  const std::string fix =
      "point KORVAN_BUS_CONFIG_PATH at a readable bus configuration (JSON), "
      "or unset it to configure through LUMIS_IP, LUMIS_LOCATOR_IP, LUMIS_PORT";
  struct stat info {};
  if (file.empty()) {
    Add(Level::kError, "configuration", "KORVAN_BUS_CONFIG_PATH is set but empty", fix);
    startable_ = false;
    return true;
  }
  if (::stat(file.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
    Add(Level::kError, "configuration",
        file + ": " + (S_ISDIR(info.st_mode) ? "is a directory" : std::strerror(errno)), fix);
    startable_ = false;
    return true;
  }
  std::ifstream in(file);
  std::stringstream content;
  content << in.rdbuf();
  if (!in) {
    Add(Level::kError, "configuration", file + ": cannot read it", fix);
    startable_ = false;
    return true;
  }
  KorvanBusConfig config;
  google::protobuf::util::JsonParseOptions parse;
  const auto status = google::protobuf::util::JsonStringToMessage(content.str(), &config, parse);
  if (!status.ok()) {
    std::string reason(status.message());
    for (char& c : reason)
      c = c == '\n' ? ' ' : c;
    Add(Level::kError, "configuration", file + ": not a bus configuration: " + reason,
        "fix the file: the README's \"Bus configuration file\" section shows the keys");
    startable_ = false;
    return true;
  }
  lumis_ = config.lumis_config();
  Add(Level::kOk, "configuration",
      file + ": " + std::to_string(config.topics_size()) + " topic entr" +
          (config.topics_size() == 1 ? "y" : "ies"));
  for (const char* name : {"LUMIS_IP", "LUMIS_LOCATOR_IP", "LUMIS_PORT"}) {
    if (Configured(name)) {
      Add(Level::kWarning, "configuration",
          std::string(name) + " is set but not read: the configuration file decides",
          "set the value in the file's lumis_config instead, or unset " + std::string(name));
    }
  }
  return true;
}

void Doctor::ReadEnvironment() {
  if (const char* ip = std::getenv("LUMIS_IP"))
    lumis_.set_discovery_ip(ip);
  if (const char* locator = std::getenv("LUMIS_LOCATOR_IP"))
    lumis_.set_locator_ip(locator);
  if (const char* port = std::getenv("LUMIS_PORT")) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(port, &end, 10);
    if (*port == '\0' || *end != '\0' || errno == ERANGE) {
      Add(Level::kError, "ports", std::string("LUMIS_PORT '") + port + "' is not a number",
          "set LUMIS_PORT to the discovery port base, e.g. 7400, or unset it");
      startable_ = false;
    } else {
      lumis_.set_port(static_cast<int32_t>(value));
    }
  }
}

void Doctor::CheckInterface() {
  if (lumis_.has_discovery_ip())
    address_ = lumis_.discovery_ip();
  const std::string source = from_file_ ? "lumis_config.discovery_ip" : "LUMIS_IP";
  if (!IsAddress(address_)) {
    Add(Level::kError, "interface", source + " '" + address_ + "' is not an IP address",
        "set " + source + " to the address of the interface the bus should use");
    startable_ = false;
    return;
  }
  loopback_ = IsLoopback(address_);
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    Add(Level::kWarning, "interface",
        "cannot list the interfaces: " + std::string(std::strerror(errno)));
    return;
  }
  std::string name;
  unsigned flags = 0;
  std::vector<std::string> candidates;
  for (ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr)
      continue;
    char text[INET6_ADDRSTRLEN] = {0};
    const int family = entry->ifa_addr->sa_family;
    if (family == AF_INET) {
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(entry->ifa_addr)->sin_addr, text,
                sizeof(text));
    } else if (family == AF_INET6) {
      inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(entry->ifa_addr)->sin6_addr, text,
                sizeof(text));
    } else {
      continue;
    }
    if (family == AF_INET)
      candidates.push_back(std::string(text) + " (" + entry->ifa_name + ")");
    if (address_ == text) {
      name = entry->ifa_name;
      flags = entry->ifa_flags;
    }
  }
  ::freeifaddrs(list);
  if (name.empty()) {
    std::string known;
    for (const auto& c : candidates)
      known += (known.empty() ? "" : ", ") + c;
    Add(Level::kError, "interface", "no interface of this host has the address " + address_,
        "set " + source + " to one of: " + known);
    startable_ = false;
    return;
  }
  if ((flags & IFF_UP) == 0) {
    Add(Level::kError, "interface", address_ + " (" + name + ") is down",
        "bring the interface up (ip link set " + name + " up)");
    startable_ = false;
    return;
  }
  interface_found_ = true;
  interface_multicast_ = (flags & IFF_MULTICAST) != 0;
  Add(Level::kOk, "interface",
      address_ + " (" + name + ")" +
          (loopback_ ? ": loopback, only processes of this host are seen" : ""));
}

void Doctor::CheckDiscovery() {
  const bool multicast = lumis_.has_multicast() ? lumis_.multicast() : !loopback_;
  std::vector<std::string> peers;
  if (lumis_.has_locator_ip())
    peers.push_back(lumis_.locator_ip());
  for (const auto& peer : lumis_.peers())
    peers.push_back(peer);
  const std::string locator_source = from_file_ ? "lumis_config.locator_ip" : "LUMIS_LOCATOR_IP";
  for (const auto& peer : peers) {
    if (!IsAddress(peer)) {
      Add(Level::kError, "discovery", "peer '" + peer + "' is not an IP address",
          "fix " + locator_source + (from_file_ ? " or lumis_config.peers" : ""));
      startable_ = false;
      continue;
    }
    // A route to the peer: connecting a datagram socket sends nothing.
    const bool v6 = peer.find(':') != std::string::npos;
    const int fd = ::socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
    int result = -1;
    if (v6) {
      sockaddr_in6 to{};
      to.sin6_family = AF_INET6;
      to.sin6_port = htons(7400);
      inet_pton(AF_INET6, peer.c_str(), &to.sin6_addr);
      result = ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    } else {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(7400);
      inet_pton(AF_INET, peer.c_str(), &to.sin_addr);
      result = ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    }
    const int error = errno;
    ::close(fd);
    if (result != 0) {
      Add(Level::kError, "discovery",
          "no route to peer " + peer + ": " + std::string(std::strerror(error)),
          "check the peer's address and this host's routes (ip route get " + peer + ")");
    } else {
      Add(Level::kOk, "discovery", "unicast peer " + peer + " is reachable by route");
    }
  }
  if (multicast && !interface_found_) {
    // Nothing to say about multicast on an interface that is not there.
  } else if (multicast) {
    if (!interface_multicast_ && !loopback_) {
      Add(Level::kError, "discovery", "multicast discovery on an interface without multicast",
          "set lumis_config.multicast to false and name the other hosts as peers "
          "(LUMIS_LOCATOR_IP or lumis_config.peers)");
    } else {
      Add(Level::kOk, "discovery", "multicast on " + address_);
    }
  } else if (loopback_) {
    Add(Level::kOk, "discovery", "unicast on this host (loopback); multicast off");
  } else if (peers.empty()) {
    Add(Level::kWarning, "discovery", "multicast off and no peers: no other host is looked for",
        "name the other hosts in LUMIS_LOCATOR_IP or lumis_config.peers, or allow multicast");
  }
}

void Doctor::CheckDomain() {
  if (lumis_.has_domain_id()) {
    domain_ = lumis_.domain_id();
    if (domain_ > kMaxDomainId) {
      Add(Level::kError, "domain",
          "lumis_config.domain_id " + std::to_string(domain_) + " is above " +
              std::to_string(kMaxDomainId),
          "use a domain of 0.." + std::to_string(kMaxDomainId));
      startable_ = false;
      return;
    }
    Add(Level::kOk, "domain", std::to_string(domain_) + " (configuration file)");
    if (Configured("KORVAN_DOMAIN_ID")) {
      Add(Level::kWarning, "domain", "KORVAN_DOMAIN_ID is set but not read: the file decides",
          "unset KORVAN_DOMAIN_ID or remove domain_id from the file");
    }
    return;
  }
  const char* text = std::getenv("KORVAN_DOMAIN_ID");
  if (text == nullptr || *text == '\0') {
    Add(Level::kOk, "domain", "0 (default; KORVAN_DOMAIN_ID unset)");
    return;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long value = std::strtoul(text, &end, 10);
  if (*end != '\0' || errno == ERANGE || value > kMaxDomainId || text[0] == '-') {
    Add(Level::kError, "domain",
        std::string("KORVAN_DOMAIN_ID '") + text + "' is not a domain of 0.." +
            std::to_string(kMaxDomainId) + "; the bus falls back to domain 0",
        "set KORVAN_DOMAIN_ID to the domain of the processes you want to reach");
    domain_ = 0;
    return;
  }
  domain_ = static_cast<unsigned>(value);
  Add(Level::kOk, "domain", std::to_string(domain_) + " (KORVAN_DOMAIN_ID)");
}

void Doctor::CheckPorts() {
  const int base = lumis_.has_port() ? lumis_.port() : kDefaultPortBase;
  const unsigned processes =
      lumis_.has_max_processes_per_host() && lumis_.max_processes_per_host() > 0
          ? lumis_.max_processes_per_host()
          : kDefaultMaxProcesses;
  const long first = static_cast<long>(base) + kDomainGain * static_cast<long>(domain_);
  const long last = first + kHighestPortOffset + 2L * (processes - 1);
  const std::string source = from_file_ ? "lumis_config.port" : "LUMIS_PORT";
  if (base < 1 || base > 65000) {
    Add(Level::kError, "ports", source + " " + std::to_string(base) + " is outside 1..65000",
        "use the default 7400 unless every process agrees on another base");
    startable_ = false;
    return;
  }
  if (last > 65535) {
    Add(Level::kError, "ports",
        "base " + std::to_string(base) + " and domain " + std::to_string(domain_) +
            " need ports up to " + std::to_string(last) + ", beyond 65535",
        "lower " + source + " or the domain");
    return;
  }
  Add(Level::kOk, "ports",
      "base " + std::to_string(base) + ": domain " + std::to_string(domain_) + " uses UDP " +
          std::to_string(first) + ".." + std::to_string(last));
}

bool Doctor::JoinBus() {
  if (!startable_) {
    Add(Level::kError, "bus", "not started: the errors above would stop it", "correct those first");
    return false;
  }
  ErrorLines errors;
  if (!Session::Get().Start(false)) {
    std::string reason = errors.First();
    Add(Level::kError, "bus", "did not start" + (reason.empty() ? "" : ": " + reason),
        "fix the problem named; `korvan info` shows the configuration the bus loaded");
    return false;
  }
  Add(Level::kOk, "bus", "joined domain " + std::to_string(domain_));
  return true;
}

void Doctor::LookAround() {
  BusSnapshot snapshot;
  if (!Session::Get().Snapshot(&snapshot, options_.timeout())) {
    Add(Level::kError, "visible", "cannot read discovery");
    return;
  }
  std::set<tarvik::korvan::tools::ProcessRef> processes;
  std::set<std::string> hosts;
  for (const auto& node : snapshot.nodes) {
    processes.insert(node.process);
    hosts.insert(node.process.host_name);
  }
  if (processes.empty()) {
    Add(Level::kWarning, "visible",
        "no other process on domain " + std::to_string(domain_) + " (waited " +
            SecondsText(options_.timeout_s) + " s)",
        "start a program, or make sure it uses the same KORVAN_DOMAIN_ID and LUMIS_PORT and an "
        "interface this host reaches (run `korvan doctor` there too)");
    return;
  }
  std::string host_list;
  for (const auto& h : hosts)
    host_list += (host_list.empty() ? "" : ", ") + h;
  Add(Level::kOk, "visible",
      std::to_string(processes.size()) + " process" + (processes.size() == 1 ? "" : "es") + " on " +
          std::to_string(hosts.size()) + " host" + (hosts.size() == 1 ? "" : "s") + " (" +
          host_list + "), " + Count(snapshot.nodes.size(), "node") + ", " +
          Count(snapshot.topics.size(), "topic") + ", " +
          Count(snapshot.services.size(), "service") + ", " +
          Count(snapshot.types.size(), "type description"));
  for (const auto& entry : snapshot.topics) {
    for (const auto& pair : entry.second.Conflicts()) {
      Add(Level::kWarning, "types",
          "topic '" + entry.first + "': " + pair.first.process.Describe() + " and " +
              pair.second.process.Describe() + " publish different descriptions of " +
              pair.first.type_name,
          "rebuild both programs from one schema");
    }
    for (const auto& p : entry.second.publishers) {
      if (p.type_hash != 0 && snapshot.FindType(p.type_name, p.type_hash) == nullptr) {
        Add(Level::kWarning, "types",
            "no description of " + p.type_name + " (topic '" + entry.first + "', " +
                p.process.Describe() + ") reached this process",
            "tools cannot decode that topic; check that the publisher's library is current");
      }
    }
  }
}

int Doctor::Print() const {
  bool failed = false;
  if (options_.json) {
    std::string out = "{\"checks\":[";
    for (size_t i = 0; i < findings_.size(); ++i) {
      const Finding& f = findings_[i];
      out += (i ? "," : "") + std::string("{\"check\":") + JsonQuote(f.check) +
             ",\"level\":" + JsonQuote(LevelName(f.level)) + ",\"text\":" + JsonQuote(f.text);
      if (!f.fix.empty())
        out += ",\"fix\":" + JsonQuote(f.fix);
      out += "}";
      failed = failed || f.level == Level::kError;
    }
    std::printf("%s],\"ok\":%s}\n", out.c_str(), failed ? "false" : "true");
    return failed ? kExitFailure : kExitOk;
  }
  const bool colour = StdoutIsTerminal();
  for (const Finding& f : findings_) {
    failed = failed || f.level == Level::kError;
    const char* start = "";
    if (colour) {
      start = f.level == Level::kError     ? "\033[1;31m"
              : f.level == Level::kWarning ? "\033[33m"
                                           : "";
    }
    std::printf("%s%-8s %-14s %s%s\n", start, LevelName(f.level), f.check.c_str(), f.text.c_str(),
                *start ? "\033[0m" : "");
    if (!f.fix.empty())
      std::printf("%-8s %-14s fix: %s\n", "", "", f.fix.c_str());
  }
  size_t warnings = 0;
  for (const Finding& f : findings_)
    warnings += f.level == Level::kWarning ? 1 : 0;
  if (failed) {
    std::printf("problems found: fix the errors above\n");
  } else if (warnings > 0) {
    std::printf("no errors; %zu warning%s above\n", warnings, warnings == 1 ? "" : "s");
  } else {
    std::printf("no problems found\n");
  }
  return failed ? kExitFailure : kExitOk;
}

int Doctor::Run() {
  if (!ReadConfiguration())
    ReadEnvironment();
  if (startable_) {
    CheckInterface();
    CheckDiscovery();
    CheckDomain();
    CheckPorts();
  }
  if (JoinBus())
    LookAround();
  return Print();
}

}  // namespace

void AddDoctorCommand(CLI::App& app, int* exit_code) {
  static CommonOptions options;
  CLI::App* doctor = app.add_subcommand(
      "doctor",
      "Checks the configuration file, interface, multicast or peers, ports and domain, joins "
      "the bus and reports what it sees; says what to fix");
  AddCommonOptions(doctor, &options);
  doctor->callback([=] { *exit_code = Doctor(options).Run(); });
}

}  // namespace korvan_cli
