// Benchmarks of the korvan tool and of discovery, printed as a table (and written to
// --out as Markdown):
//   - `korvan topic list` on a bus of 30 processes, once discovery has settled: wall time of
//     the whole command (start, join, list, exit), median and worst of 10 runs;
//   - `korvan topic echo` against a publisher of 10,000 messages/s with a 64-byte payload:
//     messages lost (counters missing from the output), text and JSON output;
//   - `korvan topic hz` against publishers paced at 10, 100 and 1000 Hz: the reported rate
//     against the publisher's own, over about 10 s;
//   - discovery bytes of one process with 100 endpoints over 10 types: every UDP byte the
//     process sends until another process has seen all its endpoints and descriptions, split
//     into Cyclone's own discovery (SPDP/SEDP) and the bus's discovery topics, and the same
//     process with 100 endpoints of 100 distinct types, which is what discovery would carry
//     if every endpoint record brought its own description.
//
// The program runs its own peers: `korvan_tool_bench role <name> ...` (see RunRole).
// Usage: korvan_tool_bench [--korvan PATH] [--domain N] [--quick] [--out FILE]
#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_proto/bench_messages.pb.h"
#include "korvan/bus/lumis_component.h"
#include "korvan/bus/type_description.h"
#include "tarvikdds/message/dynamic_message_operations.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"

namespace {

using Clock = std::chrono::steady_clock;
using korvan::bench::StampedPayload;

// ---------------------------------------------------------------------------------------
// UDP bytes this process sends, by kind of destination port. Counting is off until a role
// turns it on; the bus's threads send, so the counters are atomic.

std::atomic<bool> g_counting{false};
int g_port_base = 7400;
int g_domain = 0;
std::atomic<uint64_t> g_spdp_bytes{0};  // participant discovery ports (Cyclone's SPDP, SEDP)
std::atomic<uint64_t> g_user_bytes{0};  // data ports: the bus's discovery topics, their acks
std::atomic<uint64_t> g_other_bytes{0};
std::atomic<uint64_t> g_datagrams{0};

void Count(const void* address, ssize_t bytes) {
  if (!g_counting.load(std::memory_order_relaxed) || bytes <= 0)
    return;
  g_datagrams.fetch_add(1, std::memory_order_relaxed);
  int port = -1;
  if (address != nullptr) {
    const auto* generic = static_cast<const sockaddr*>(address);
    if (generic->sa_family == AF_INET)
      port = ntohs(static_cast<const sockaddr_in*>(address)->sin_port);
    else if (generic->sa_family == AF_INET6)
      port = ntohs(static_cast<const sockaddr_in6*>(address)->sin6_port);
  }
  // Per domain: base + 250 d + {0, 1} multicast, + 10 + 2 i discovery and + 11 + 2 i data of
  // participant index i.
  const int offset = port - g_port_base - 250 * g_domain;
  if (port < 0 || offset < 0 || offset >= 250) {
    g_other_bytes.fetch_add(static_cast<uint64_t>(bytes), std::memory_order_relaxed);
  } else if (offset == 0 || (offset >= 10 && offset % 2 == 0)) {
    g_spdp_bytes.fetch_add(static_cast<uint64_t>(bytes), std::memory_order_relaxed);
  } else {
    g_user_bytes.fetch_add(static_cast<uint64_t>(bytes), std::memory_order_relaxed);
  }
}

template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// This executable exports these (ENABLE_EXPORTS), so the DDS library's calls land here first.
extern "C" ssize_t sendmsg(int fd, const struct msghdr* message, int flags) {
  static const auto real = Real<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
  const ssize_t sent = real(fd, message, flags);
  Count(message->msg_name, sent);
  return sent;
}

extern "C" ssize_t sendto(int fd, const void* buffer, size_t length, int flags,
                          const struct sockaddr* to, socklen_t to_length) {
  static const auto real =
      Real<ssize_t (*)(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
  const ssize_t sent = real(fd, buffer, length, flags, to, to_length);
  Count(to, sent);
  return sent;
}

extern "C" int sendmmsg(int fd, struct mmsghdr* messages, unsigned int count, int flags) {
  static const auto real = Real<int (*)(int, mmsghdr*, unsigned int, int)>("sendmmsg");
  const int sent = real(fd, messages, count, flags);
  for (int i = 0; i < sent; ++i)
    Count(messages[i].msg_hdr.msg_name, messages[i].msg_len);
  return sent;
}

namespace {

// ---------------------------------------------------------------------------------------
// Processes.

std::string g_self;  // this program

std::string Scratch() {
  static const std::string dir = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::string d = std::string(tmp && *tmp ? tmp : "/tmp") + "/korvan-tool-bench-" +
                    std::to_string(::getpid());
    ::mkdir(d.c_str(), 0777);
    return d;
  }();
  return dir;
}

// A child that dies with this process; its output goes to `output`.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& output) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
      ::_exit(127);
    const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    std::vector<char*> raw;
    for (const auto& a : argv)
      raw.push_back(const_cast<char*>(a.c_str()));
    raw.push_back(nullptr);
    ::execv(raw[0], raw.data());
    ::_exit(127);
  }
  return pid;
}

pid_t SpawnRole(const std::vector<std::string>& args, const std::string& output) {
  std::vector<std::string> argv = {g_self, "role"};
  argv.insert(argv.end(), args.begin(), args.end());
  return Spawn(argv, output);
}

// The exit status, or -1 after killing the process at `timeout`.
int Reap(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream content;
  content << file.rdbuf();
  return content.str();
}

bool WaitForText(const std::string& path, const std::string& text,
                 std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (ReadFile(path).find(text) == std::string::npos) {
    if (Clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream stream(text);
  std::string line;
  while (std::getline(stream, line))
    lines.push_back(line);
  return lines;
}

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

// ---------------------------------------------------------------------------------------
// Roles.

[[noreturn]] void SleepForever() {
  for (;;)
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

void Ready() {
  std::printf("READY\n");
  std::fflush(stdout);
}

// crowd <i>: one node with a publisher and a subscriber.
int Crowd(const std::vector<std::string>& args) {
  const std::string i = args.at(0);
  auto node = tarvik::quessa::Node::CreateNode("crowd_" + i, "");
  auto pub =
      node->CreatePublisher<StampedPayload>("bench/crowd/" + i + "/state", tarvik::quessa::QoS());
  auto sub =
      node->CreateSubscriber<StampedPayload>("bench/crowd/" + i + "/command", tarvik::quessa::QoS(),
                                             [](const std::shared_ptr<StampedPayload>&) {});
  Ready();
  SleepForever();
}

// Publishes at `rate` on absolute times, so that the long-run rate is exact; `count` 0: on
// until killed. Prints the rate it achieved.
void Paced(tarvik::quessa::Publisher<StampedPayload>& pub, double rate, uint64_t count,
           size_t payload) {
  const auto period = std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate));
  auto message = std::make_shared<StampedPayload>();
  message->set_payload(std::string(payload, 'x'));
  const auto start = Clock::now();
  auto next = start;
  for (uint64_t n = 0; count == 0 || n < count; ++n) {
    pub.Publish(std::make_shared<StampedPayload>(*message));
    next += period;
    std::this_thread::sleep_until(next);
  }
  std::printf("SENT %llu in %.6f s\n", static_cast<unsigned long long>(count),
              Seconds(Clock::now() - start));
  std::fflush(stdout);
}

// source <topic> <rate> <count> <payload bytes>: waits for a subscriber, then publishes.
int Source(const std::vector<std::string>& args) {
  auto node = tarvik::quessa::Node::CreateNode("source", "");
  auto pub = node->CreatePublisher<StampedPayload>(args.at(0), tarvik::quessa::QoS());
  Ready();
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (pub->MatchedSubscribers() < 1 && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  // The subscriber's description lookups and first take settle before the clock starts.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  Paced(*pub, std::stod(args.at(1)), std::stoull(args.at(2)), std::stoul(args.at(3)));
  // Reliable delivery of the last messages before the writer goes.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  return 0;
}

// paced <topic> <rate> <count> <log>: publishes `count` messages and writes the real time of
// each publish to <log>, one per line. A deep history, so that a publisher that was held up
// and catches up loses nothing.
int PacedRole(const std::vector<std::string>& args) {
  auto node = tarvik::quessa::Node::CreateNode("paced", "");
  tarvik::quessa::QoS qos;
  qos.history_depth = 1000;
  auto pub = node->CreatePublisher<StampedPayload>(args.at(0), qos);
  Ready();
  const double rate = std::stod(args.at(1));
  const uint64_t count = std::stoull(args.at(2));
  const auto period = std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate));
  auto message = std::make_shared<StampedPayload>();
  message->set_payload(std::string(64, 'x'));
  std::vector<int64_t> times;
  times.reserve(count);
  auto next = Clock::now();
  for (uint64_t n = 0; n < count; ++n) {
    times.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::system_clock::now().time_since_epoch())
                        .count());
    pub->Publish(std::make_shared<StampedPayload>(*message));
    next += period;
    std::this_thread::sleep_until(next);
  }
  std::ofstream log(args.at(3));
  for (int64_t t : times)
    log << t << "\n";
  return 0;
}

// The message types of the discovery measurement: "bench.discovery.Type<k>", each a dozen
// fields and a header from a shared file, as a robot's types look. Built at run time.
struct GeneratedTypes {
  google::protobuf::DescriptorPool pool;
  google::protobuf::DynamicMessageFactory factory;
  std::vector<const google::protobuf::Descriptor*> types;

  explicit GeneratedTypes(int count) {
    using google::protobuf::FieldDescriptorProto;
    google::protobuf::FileDescriptorProto header;
    header.set_name("bench_discovery/header.proto");
    header.set_package("bench.discovery");
    auto* h = header.add_message_type();
    h->set_name("Header");
    const char* header_fields[] = {"stamp_ns", "sequence", "frame_id"};
    for (int f = 0; f < 3; ++f) {
      auto* field = h->add_field();
      field->set_name(header_fields[f]);
      field->set_number(f + 1);
      field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
      field->set_type(f == 2 ? FieldDescriptorProto::TYPE_STRING
                             : FieldDescriptorProto::TYPE_UINT64);
    }
    pool.BuildFile(header);
    const char* names[] = {"x",     "y",     "z",     "roll",    "pitch",      "yaw",
                           "speed", "label", "score", "quality", "covariance", "mode"};
    for (int k = 0; k < count; ++k) {
      google::protobuf::FileDescriptorProto file;
      file.set_name("bench_discovery/type" + std::to_string(k) + ".proto");
      file.set_package("bench.discovery");
      file.add_dependency("bench_discovery/header.proto");
      auto* message = file.add_message_type();
      message->set_name("Type" + std::to_string(k));
      auto* head = message->add_field();
      head->set_name("header");
      head->set_number(1);
      head->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
      head->set_type(FieldDescriptorProto::TYPE_MESSAGE);
      head->set_type_name(".bench.discovery.Header");
      for (int f = 0; f < 12; ++f) {
        auto* field = message->add_field();
        field->set_name(names[f]);
        field->set_number(f + 2);
        field->set_label(f == 10 ? FieldDescriptorProto::LABEL_REPEATED
                                 : FieldDescriptorProto::LABEL_OPTIONAL);
        field->set_type(f == 7 ? FieldDescriptorProto::TYPE_STRING
                               : FieldDescriptorProto::TYPE_DOUBLE);
      }
      types.push_back(pool.BuildFile(file)->FindMessageTypeByName("Type" + std::to_string(k)));
    }
  }
};

// endpoints <types> <endpoints> <stop file>: `endpoints` publishers over `types` types,
// counting the UDP bytes the process sends from before the bus starts until the stop file
// appears; then prints them.
int Endpoints(const std::vector<std::string>& args) {
  const int type_count = std::stoi(args.at(0));
  const int endpoint_count = std::stoi(args.at(1));
  g_counting = true;
  GeneratedTypes generated(type_count);
  auto node = tarvik::quessa::Node::CreateNode("endpoints", "");
  std::vector<std::shared_ptr<tarvik::korvan::message::DynamicMessageOperations>> operations;
  for (const auto* type : generated.types) {
    operations.push_back(std::make_shared<tarvik::korvan::message::DynamicMessageOperations>(
        type, generated.factory.GetPrototype(type)));
  }
  size_t description_bytes = 0;
  for (const auto* type : generated.types)
    description_bytes += tarvik::korvan::bus::DescribeType(type).descriptor_set.size();
  std::vector<std::shared_ptr<tarvik::quessa::PublisherImpl>> publishers;
  for (int e = 0; e < endpoint_count; ++e) {
    const int k = e % type_count;
    publishers.push_back(std::make_shared<tarvik::quessa::PublisherImpl>(
        "bench/discovery/topic" + std::to_string(e), tarvik::quessa::QoS(), generated.types[k],
        operations[k], 0, node->name(), node->domain()));
  }
  Ready();
  const std::string stop = args.at(2);
  while (::access(stop.c_str(), F_OK) != 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  g_counting = false;
  std::printf("BYTES spdp %llu user %llu other %llu datagrams %llu descriptions %zu %zu\n",
              static_cast<unsigned long long>(g_spdp_bytes.load()),
              static_cast<unsigned long long>(g_user_bytes.load()),
              static_cast<unsigned long long>(g_other_bytes.load()),
              static_cast<unsigned long long>(g_datagrams.load()), generated.types.size(),
              description_bytes);
  std::fflush(stdout);
  return 0;
}

// listener <endpoints> <types>: joins and waits until it sees that many publishers of
// bench/discovery topics from another process and that many bench.discovery descriptions.
int Listener(const std::vector<std::string>& args) {
  const size_t endpoint_count = std::stoul(args.at(0));
  const size_t type_count = std::stoul(args.at(1));
  auto node = tarvik::quessa::Node::CreateNode("listener", "");
  tarvik::korvan::bus::LumisComponent discovery;
  Ready();
  const auto start = Clock::now();
  while (Clock::now() - start < std::chrono::seconds(120)) {
    std::vector<tarvik::korvan::bus::EntityRecord> entities;
    std::vector<tarvik::korvan::bus::TypeDescription> types;
    size_t endpoints = 0;
    std::set<uint64_t> descriptions;
    if (discovery.listAllEntities(&entities) && discovery.listTypeDescriptions(&types)) {
      for (const auto& e : entities) {
        endpoints += e.process_id != ::getpid() && e.role_type == 1 &&
                             e.topic_name.rfind("bench/discovery/", 0) == 0
                         ? 1
                         : 0;
      }
      for (const auto& t : types) {
        if (t.type_name.rfind("bench.discovery.", 0) == 0)
          descriptions.insert(t.type_hash);
      }
    }
    if (endpoints >= endpoint_count && descriptions.size() >= type_count) {
      std::printf("SEEN %.3f s\n", Seconds(Clock::now() - start));
      std::fflush(stdout);
      SleepForever();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::printf("NOT SEEN\n");
  return 1;
}

int RunRole(const std::string& role, const std::vector<std::string>& args) {
  if (const char* base = std::getenv("LUMIS_PORT"))
    g_port_base = std::atoi(base);
  if (const char* domain = std::getenv("KORVAN_DOMAIN_ID"))
    g_domain = std::atoi(domain);
  if (role == "crowd")
    return Crowd(args);
  if (role == "source")
    return Source(args);
  if (role == "paced")
    return PacedRole(args);
  if (role == "endpoints")
    return Endpoints(args);
  if (role == "listener")
    return Listener(args);
  std::fprintf(stderr, "unknown role %s\n", role.c_str());
  return 2;
}

// ---------------------------------------------------------------------------------------
// Measurements.

struct Settings {
  std::string korvan = KORVAN_TOOL_PATH;
  bool quick = false;
};

struct ToolRun {
  int exit_code = -1;
  double seconds = 0;
  std::string out;
};

ToolRun RunTool(const Settings& settings, const std::vector<std::string>& args,
                std::chrono::milliseconds timeout = std::chrono::seconds(120)) {
  static int counter = 0;
  const std::string output = Scratch() + "/tool-" + std::to_string(++counter) + ".out";
  std::vector<std::string> argv = {settings.korvan};
  argv.insert(argv.end(), args.begin(), args.end());
  const auto start = Clock::now();
  const pid_t pid = Spawn(argv, output);
  ToolRun run;
  run.exit_code = Reap(pid, timeout);
  run.seconds = Seconds(Clock::now() - start);
  run.out = ReadFile(output);
  ::unlink(output.c_str());
  return run;
}

struct Row {
  std::string what;
  std::string result;
  std::string goal;
};

void KillAll(std::vector<pid_t>& pids) {
  for (pid_t pid : pids)
    ::kill(pid, SIGKILL);
  for (pid_t pid : pids)
    Reap(pid, std::chrono::seconds(10));
  pids.clear();
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  return text;
}

// `korvan topic list` on 30 processes, after discovery settled.
Row TopicListOnACrowd(const Settings& settings) {
  const int processes = 30;
  std::vector<pid_t> pids;
  for (int i = 0; i < processes; ++i) {
    pids.push_back(SpawnRole({"crowd", std::to_string(i)},
                             Scratch() + "/crowd-" + std::to_string(i) + ".log"));
  }
  std::set<std::string> expected;
  for (int i = 0; i < processes; ++i) {
    expected.insert("bench/crowd/" + std::to_string(i) + "/state");
    expected.insert("bench/crowd/" + std::to_string(i) + "/command");
  }
  auto complete = [&](const std::string& out) {
    const auto lines = Lines(out);
    const std::set<std::string> seen(lines.begin(), lines.end());
    return std::includes(seen.begin(), seen.end(), expected.begin(), expected.end());
  };
  // Settled: one full listing.
  const auto start = Clock::now();
  bool settled = false;
  while (!settled && Clock::now() - start < std::chrono::seconds(180))
    settled = complete(RunTool(settings, {"topic", "list"}).out);
  const double settle_s = Seconds(Clock::now() - start);
  std::vector<double> times;
  int complete_runs = 0;
  const int runs = settings.quick ? 3 : 10;
  for (int r = 0; r < runs && settled; ++r) {
    const ToolRun run = RunTool(settings, {"topic", "list"});
    times.push_back(run.seconds);
    complete_runs += run.exit_code == 0 && complete(run.out) ? 1 : 0;
  }
  KillAll(pids);
  if (!settled)
    return {"topic list, 30 processes", "discovery did not settle within 180 s", "<= 1 s"};
  std::sort(times.begin(), times.end());
  return {"topic list, 30 processes (60 topics)",
          Format("median %.3f s, max %.3f s over %d runs; %d of %d complete (first full list "
                 "after %.1f s)",
                 times[times.size() / 2], times.back(), runs, complete_runs, runs, settle_s),
          "<= 1 s"};
}

// `korvan topic echo` at 10,000 messages/s of 64 B.
Row EchoAtTenThousand(const Settings& settings, bool json) {
  const std::string topic = "bench/echo/" + std::string(json ? "json" : "text");
  const uint64_t count = settings.quick ? 20000 : 50000;
  const std::string source_log = Scratch() + "/source-" + (json ? "json" : "text") + ".log";
  std::vector<pid_t> pids = {
      SpawnRole({"source", topic, "10000", std::to_string(count), "64"}, source_log)};
  WaitForText(source_log, "READY", std::chrono::seconds(60));
  std::vector<std::string> args = {"topic",     "echo", topic, "-n", std::to_string(count),
                                   "--timeout", "60"};
  if (json)
    args.push_back("--json");
  // The echo ends by itself after `count` messages; a loss leaves it waiting until the
  // publisher has long finished.
  const ToolRun run =
      RunTool(settings, args, std::chrono::seconds(static_cast<int>(count / 10000) + 60));
  const std::string sent = ReadFile(source_log);
  KillAll(pids);
  std::set<uint64_t> counters;
  size_t messages = 0;
  for (const auto& line : Lines(run.out)) {
    const size_t at = line.find(json ? "\"counter\":" : "# counter ");
    if (at == std::string::npos)
      continue;
    ++messages;
    counters.insert(std::strtoull(line.c_str() + at + (json ? 10 : 10), nullptr, 10));
  }
  const size_t at = sent.find("SENT ");
  double seconds = 0;
  if (at != std::string::npos)
    std::sscanf(sent.c_str() + at, "SENT %*u in %lf s", &seconds);
  const uint64_t lost = count > counters.size() ? count - counters.size() : 0;
  return {std::string("echo") + (json ? " --json" : "") + ", 10,000 msg/s of 64 B",
          Format("%llu sent at %.0f msg/s, %zu printed, %llu lost (%.3f %%)%s",
                 static_cast<unsigned long long>(count), seconds > 0 ? count / seconds : 0.0,
                 messages, static_cast<unsigned long long>(lost), 100.0 * lost / count,
                 run.exit_code == 0 ? "" : Format(", exit %d", run.exit_code).c_str()),
          "0 lost"};
}

// `korvan topic hz` against a publisher paced at `rate`. The reference is what the publisher
// really did over the messages of the tool's window (from its own log of publish times): a
// publisher held up by a busy machine and catching up is not at its nominal rate then.
Row HzAccuracy(const Settings& settings, double rate) {
  const std::string topic = "bench/hz/" + std::to_string(static_cast<int>(rate));
  const std::string output = Scratch() + "/paced.out";
  const std::string log = Scratch() + "/paced.times";
  const int duration = settings.quick ? 5 : 11;
  const uint64_t count = static_cast<uint64_t>(rate * (duration + 5));
  const pid_t publisher =
      SpawnRole({"paced", topic, Format("%g", rate), std::to_string(count), log}, output);
  WaitForText(output, "READY", std::chrono::seconds(60));
  const ToolRun run =
      RunTool(settings, {"topic", "hz", topic, "--json", "--window", "1000000", "--duration",
                         std::to_string(duration), "--timeout", "60"});
  Reap(publisher, std::chrono::seconds(duration + 60));
  double measured = 0;
  uint64_t first = 0;
  uint64_t last = 0;
  for (const auto& line : Lines(run.out)) {  // the last report
    const size_t at = line.find("\"rate_hz\":");
    if (at == std::string::npos)
      continue;
    measured = std::strtod(line.c_str() + at + 10, nullptr);
    std::sscanf(line.c_str() + line.find("\"first_ns\":"), "\"first_ns\":%" SCNu64, &first);
    std::sscanf(line.c_str() + line.find("\"last_ns\":"), "\"last_ns\":%" SCNu64, &last);
  }
  std::vector<uint64_t> times;
  for (const auto& line : Lines(ReadFile(log)))
    times.push_back(std::strtoull(line.c_str(), nullptr, 10));
  // The messages of the window: the last publish before the first arrival to the last publish
  // before the last arrival.
  auto before = [&](uint64_t t) {
    return std::upper_bound(times.begin(), times.end(), t) - times.begin() - 1;
  };
  const auto i = before(first);
  const auto j = before(last);
  if (measured <= 0 || i < 0 || j <= i)
    return {Format("hz, publisher at %g Hz", rate), "measurement failed", "within 1 %"};
  const double reference =
      static_cast<double>(j - i) / (static_cast<double>(times[j] - times[i]) / 1e9);
  const double error = 100.0 * std::fabs(measured - reference) / reference;
  return {Format("hz, publisher at %g Hz", rate),
          Format("%.3f Hz reported over %.1f s, publisher's own %.3f Hz: %.3f %% off", measured,
                 static_cast<double>(last - first) / 1e9, reference, error),
          "within 1 %"};
}

struct DiscoveryBytes {
  uint64_t spdp = 0;
  uint64_t user = 0;
  uint64_t other = 0;
  uint64_t datagrams = 0;
  size_t descriptions = 0;
  size_t description_bytes = 0;
  double seen_s = 0;
  bool ok = false;
};

DiscoveryBytes MeasureDiscovery(int types, int endpoints) {
  DiscoveryBytes result;
  const std::string listener_log = Scratch() + "/listener.log";
  const std::string endpoints_log = Scratch() + "/endpoints.log";
  const std::string stop = Scratch() + "/stop-" + std::to_string(types);
  std::vector<pid_t> pids = {
      SpawnRole({"listener", std::to_string(endpoints), std::to_string(types)}, listener_log)};
  WaitForText(listener_log, "READY", std::chrono::seconds(60));
  const pid_t counted = SpawnRole(
      {"endpoints", std::to_string(types), std::to_string(endpoints), stop}, endpoints_log);
  if (WaitForText(listener_log, "SEEN", std::chrono::seconds(120))) {
    // Acknowledgements and the last heartbeats of the exchange.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::ofstream(stop) << "1";
    Reap(counted, std::chrono::seconds(30));
    const std::string text = ReadFile(endpoints_log);
    const size_t at = text.find("BYTES ");
    unsigned long long spdp = 0, user = 0, other = 0, datagrams = 0;
    size_t descriptions = 0, description_bytes = 0;
    if (at != std::string::npos &&
        std::sscanf(text.c_str() + at,
                    "BYTES spdp %llu user %llu other %llu datagrams %llu descriptions %zu %zu",
                    &spdp, &user, &other, &datagrams, &descriptions, &description_bytes) == 6) {
      result = {spdp, user, other, datagrams, descriptions, description_bytes, 0, true};
      const std::string seen = ReadFile(listener_log);
      std::sscanf(seen.c_str() + seen.find("SEEN "), "SEEN %lf", &result.seen_s);
    }
  } else {
    ::kill(counted, SIGKILL);
    Reap(counted, std::chrono::seconds(10));
  }
  ::unlink(stop.c_str());
  KillAll(pids);
  return result;
}

std::vector<Row> Discovery() {
  std::vector<Row> rows;
  const DiscoveryBytes ten = MeasureDiscovery(10, 100);
  const DiscoveryBytes hundred = MeasureDiscovery(100, 100);
  if (!ten.ok || !hundred.ok)
    return {{"discovery bytes", "measurement failed", ""}};
  auto describe = [](const DiscoveryBytes& d) {
    return Format(
        "%llu B sent in %llu datagrams (SPDP/SEDP %llu B, bus discovery topics %llu "
        "B); %zu descriptions of %zu B in all; seen by the other process after "
        "%.2f s",
        static_cast<unsigned long long>(d.spdp + d.user + d.other),
        static_cast<unsigned long long>(d.datagrams), static_cast<unsigned long long>(d.spdp),
        static_cast<unsigned long long>(d.user), d.descriptions, d.description_bytes, d.seen_s);
  };
  rows.push_back({"discovery, 100 endpoints over 10 types (one description per type)",
                  describe(ten), "one description per type"});
  rows.push_back({"discovery, 100 endpoints of 100 types (a description per endpoint)",
                  describe(hundred), "for comparison"});
  // Each endpoint record carrying its type's description: the 10 descriptions go, each of the
  // 100 records gains one. Cyclone's own discovery is the same either way.
  const double per_type = static_cast<double>(ten.description_bytes) / ten.descriptions;
  const double added = 100 * per_type - static_cast<double>(ten.description_bytes);
  rows.push_back(
      {"discovery, descriptions in every endpoint record (computed)",
       Format("%.0f B, of which bus discovery topics %.0f B: the measured 10-type figures with "
              "100 x %.0f B of descriptions instead of %zu B",
              static_cast<double>(ten.spdp + ten.user + ten.other) + added,
              static_cast<double>(ten.user) + added, per_type, ten.description_bytes),
       "before"});
  return rows;
}

}  // namespace

int main(int argc, char** argv) {
  char path[PATH_MAX] = {0};
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  g_self.assign(path, n > 0 ? static_cast<size_t>(n) : 0);
  if (argc > 2 && std::string(argv[1]) == "role")
    return RunRole(argv[2], std::vector<std::string>(argv + 3, argv + argc));

  Settings settings;
  std::string out;
  std::string domain = "202";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--korvan" && i + 1 < argc) {
      settings.korvan = argv[++i];
    } else if (arg == "--domain" && i + 1 < argc) {
      domain = argv[++i];
    } else if (arg == "--out" && i + 1 < argc) {
      out = argv[++i];
    } else if (arg == "--quick") {
      settings.quick = true;
    } else {
      std::fprintf(stderr,
                   "usage: korvan_tool_bench [--korvan PATH] [--domain N] [--quick] [--out "
                   "FILE]\n");
      return 2;
    }
  }
  ::setenv("KORVAN_DOMAIN_ID", domain.c_str(), 1);
  ::setenv("TREVAM_LOG_LEVEL", "2", 0);

  std::vector<Row> rows;
  auto add = [&](const Row& row) {
    std::printf("%-68s %s\n", row.what.c_str(), row.result.c_str());
    std::fflush(stdout);
    rows.push_back(row);
  };
  for (const Row& row : Discovery())
    add(row);
  add(TopicListOnACrowd(settings));
  add(EchoAtTenThousand(settings, false));
  add(EchoAtTenThousand(settings, true));
  for (double rate : {10.0, 100.0, 1000.0})
    add(HzAccuracy(settings, rate));

  if (!out.empty()) {
    std::ofstream file(out);
    file << "# korvan tool and discovery benchmarks\n\n"
         << "Written by korvan_tool_bench" << (settings.quick ? " --quick" : "")
         << " (bench/run-tools).\n\n| figure | result | goal |\n|---|---|---|\n";
    for (const Row& row : rows)
      file << "| " << row.what << " | " << row.result << " | " << row.goal << " |\n";
  }
  std::error_code ignored;
  std::filesystem::remove_all(Scratch(), ignored);
  return 0;
}
