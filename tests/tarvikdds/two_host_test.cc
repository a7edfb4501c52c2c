// Two hosts on one machine: two network namespaces joined by a veth pair, each running one
// process of this binary that finds the other through LUMIS_IP and LUMIS_LOCATOR_IP, as two
// real hosts would. Creating namespaces needs root and `ip` (Debian's iproute2); without them
// the test is skipped with a note. The namespaces are removed when the test ends, also when
// it fails, and ones left by a test process that was killed are removed by the next run.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/test_environment.h"
#include "tarvikdds/messaging/dds_client.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_service.h"
#include "tarvikdds/parameter/parameter_client.h"
#include "tarvikdds/parameter/parameter_server.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan::test::PlainMessage;
using korvan_test::ChildProcess;
using korvan_test::WaitFor;
using tarvik::korvan::Parameter;
using tarvik::korvan::ParameterClient;
using tarvik::korvan::ParameterServer;
using tarvik::quessa::Client;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;
using tarvik::quessa::Service;
using namespace std::chrono_literals;

constexpr uint64_t kMessages = 10000;
constexpr char kPrefix[] = "kvt";
constexpr char kAddressA[] = "10.231.0.1";
constexpr char kAddressB[] = "10.231.0.2";

QoS ReliableKeepAll() {
  QoS qos;
  qos.history_type = 1;
  return qos;
}

std::string IpProgram() {
  for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(path, X_OK) == 0)
      return path;
  }
  return "";
}

// Runs `ip` with `args`; true when it succeeded. Its output goes into `log`.
bool Ip(const std::vector<std::string>& args, std::string* log) {
  ChildProcess ip(ChildProcess::Program{IpProgram()}, args);
  const bool done = ip.Wait(30s);
  std::ostringstream line;
  line << "ip";
  for (const auto& a : args)
    line << ' ' << a;
  *log += line.str() + (done && ip.exit_code() == 0 ? "\n" : " FAILED\n") + ip.output();
  return done && ip.exit_code() == 0;
}

// Two namespaces "kvt<pid>a" and "kvt<pid>b", linked by a veth pair whose ends carry
// kAddressA and kAddressB. Deleting a namespace deletes its end of the pair.
class NamespacePair {
 public:
  NamespacePair()
      : a_(kPrefix + std::to_string(::getpid()) + "a"),
        b_(kPrefix + std::to_string(::getpid()) + "b") {}
  ~NamespacePair() {
    std::string ignored;
    if (created_a_)
      Ip({"netns", "delete", a_}, &ignored);
    if (created_b_)
      Ip({"netns", "delete", b_}, &ignored);
  }

  // Removes pairs of test processes that no longer run (killed before they cleaned up).
  static void RemoveStale() {
    std::string log;
    ChildProcess list(ChildProcess::Program{IpProgram()}, {"netns", "list"});
    if (!list.Wait(30s))
      return;
    std::istringstream lines(list.output());
    std::string name;
    while (lines >> name) {
      if (name.rfind(kPrefix, 0) != 0 || name.size() < 5)
        continue;
      const std::string digits = name.substr(3, name.size() - 4);
      if (digits.find_first_not_of("0123456789") != std::string::npos)
        continue;
      const pid_t owner = static_cast<pid_t>(std::stol(digits));
      if (::kill(owner, 0) != 0 && errno == ESRCH)
        Ip({"netns", "delete", name}, &log);
    }
  }

  bool Create(std::string* log) {
    created_a_ = Ip({"netns", "add", a_}, log);
    created_b_ = created_a_ && Ip({"netns", "add", b_}, log);
    if (!created_b_)
      return false;
    const std::string link_a = a_;  // interface names: at most 15 characters
    const std::string link_b = b_;
    return Ip({"link", "add", link_a, "type", "veth", "peer", "name", link_b}, log) &&
           Ip({"link", "set", link_a, "netns", a_}, log) &&
           Ip({"link", "set", link_b, "netns", b_}, log) && Up(a_, link_a, kAddressA, log) &&
           Up(b_, link_b, kAddressB, log);
  }

  const std::string& a() const { return a_; }
  const std::string& b() const { return b_; }

 private:
  static bool Up(const std::string& ns, const std::string& link, const std::string& address,
                 std::string* log) {
    return Ip({"-n", ns, "link", "set", "lo", "up"}, log) &&
           Ip({"-n", ns, "addr", "add", address + "/24", "dev", link}, log) &&
           Ip({"-n", ns, "link", "set", link, "up"}, log) &&
           // Discovery also multicasts on a real interface: give it a route.
           Ip({"-n", ns, "route", "add", "224.0.0.0/4", "dev", link}, log);
  }

  std::string a_;
  std::string b_;
  bool created_a_ = false;
  bool created_b_ = false;
};

// A child of this binary inside namespace `ns`.
std::unique_ptr<ChildProcess> StartIn(const std::string& ns, const std::string& role,
                                      const std::vector<std::string>& args,
                                      const std::vector<std::string>& env) {
  std::vector<std::string> argv = {"netns", "exec", ns, korvan_test::SelfExecutable(),
                                   "--korvan-child=" + role};
  argv.insert(argv.end(), args.begin(), args.end());
  return std::make_unique<ChildProcess>(ChildProcess::Program{IpProgram()}, argv, env);
}

// args: topic, service, stop file. Host B: a subscriber that checks every message arrives
// once and in order, a parameter server and an echo service.
KORVAN_CHILD_ROLE(host_b) {
  auto node = Node::CreateNode("host_b", "");
  ParameterServer params(node.get(), [](const std::string& name, const Parameter& p) {
    printf("CHANGED %s %s\n", name.c_str(), p.DebugString().c_str());
    fflush(stdout);
  });
  params.SetParameter(Parameter("speed", 1.0));
  Service<PlainMessage, PlainMessage> echo(
      args.at(1), [](const std::shared_ptr<PlainMessage>& m) { return m; }, "host_b", "");
  std::atomic<uint64_t> next{0};
  std::atomic<uint64_t> wrong{0};
  auto sub = node->CreateSubscriber<PlainMessage>(args.at(0), ReliableKeepAll(),
                                                  [&](const std::shared_ptr<PlainMessage>& msg) {
                                                    if (msg->sequence() != next.load())
                                                      ++wrong;
                                                    next = msg->sequence() + 1;
                                                  });
  printf("READY\n");
  fflush(stdout);
  // Samples written before this end matched the publisher are not owed to it.
  CHILD_CHECK(WaitFor([&] { return sub->MatchedPublishers() >= 1; }, 120s));
  printf("MATCHED\n");
  fflush(stdout);
  CHILD_CHECK(WaitFor([&] { return next.load() >= kMessages; }, 180s));
  // Anything after the last message would be a duplicate.
  std::this_thread::sleep_for(200ms);
  printf("RECEIVED %llu OUT_OF_ORDER %llu DROPPED %llu\n",
         static_cast<unsigned long long>(next.load()),
         static_cast<unsigned long long>(wrong.load()),
         static_cast<unsigned long long>(sub->DroppedSamples()));
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), 180000));
  return CHILD_RESULT();
}

// args: topic, service, go file. Host A: publishes once the go file exists, then sets and
// reads a parameter of host B and calls its service.
KORVAN_CHILD_ROLE(host_a) {
  auto node = Node::CreateNode("host_a", "");
  auto pub = node->CreatePublisher<PlainMessage>(args.at(0), ReliableKeepAll());
  CHILD_CHECK(WaitFor([&] { return pub->MatchedSubscribers() >= 1; }, 120s));
  printf("READY\n");
  fflush(stdout);
  CHILD_CHECK(korvan_test::WaitForFile(args.at(2), 120000));
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < kMessages; ++i) {
    auto msg = std::make_shared<PlainMessage>();
    msg->set_sequence(i);
    msg->set_text("across");
    CHILD_CHECK(pub->Publish(msg));
  }
  printf("SENT %llu in %.3f s\n", static_cast<unsigned long long>(kMessages),
         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());

  ParameterClient params(node.get(), "host_b");
  CHILD_CHECK(params.SetParameter(Parameter("speed", 2.5), 60s));
  Parameter speed;
  CHILD_CHECK(params.GetParameter("speed", &speed, 30s));
  printf("SPEED %.2f\n", speed.value<double>());

  Client<PlainMessage, PlainMessage> client(args.at(1), "host_a", "");
  CHILD_CHECK(client.WaitForService(60000));
  auto request = std::make_shared<PlainMessage>();
  request->set_text("ping from a");
  auto response = client.Call(request, 30);
  printf("ECHO %s\n", response ? response->text().c_str() : "<none>");
  fflush(stdout);
  return CHILD_RESULT();
}

TEST(TwoHostTest, ReliableStreamParametersAndServicesAcrossTwoHosts) {
  if (::geteuid() != 0 || IpProgram().empty()) {
    GTEST_SKIP() << "two-host test skipped: it creates network namespaces, which needs root "
                    "and `ip` (iproute2); CI runs it as root";
  }
  NamespacePair::RemoveStale();
  NamespacePair hosts;
  std::string log;
  ASSERT_TRUE(hosts.Create(&log)) << log;

  const std::string topic = korvan_test::UniqueName("across/stream");
  const std::string service = korvan_test::UniqueName("across_echo");
  const std::string go = korvan_test::ScratchPath("go");
  const std::string stop = korvan_test::ScratchPath("stop");
  auto b =
      StartIn(hosts.b(), "host_b", {topic, service, stop},
              {std::string("LUMIS_IP=") + kAddressB, std::string("LUMIS_LOCATOR_IP=") + kAddressA});
  ASSERT_TRUE(b->WaitForOutput("READY", 60s)) << b->output();
  const auto start = std::chrono::steady_clock::now();
  auto a =
      StartIn(hosts.a(), "host_a", {topic, service, go},
              {std::string("LUMIS_IP=") + kAddressA, std::string("LUMIS_LOCATOR_IP=") + kAddressB});
  ASSERT_TRUE(a->WaitForOutput("READY", 120s)) << a->output() << b->output();
  ASSERT_TRUE(b->WaitForOutput("MATCHED", 120s)) << a->output() << b->output();
  std::printf("[ measured ] the hosts found each other in %.2f s\n",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  korvan_test::TouchFile(go);
  ASSERT_TRUE(a->Wait(240s)) << a->output();
  EXPECT_EQ(a->exit_code(), 0) << a->output();
  ASSERT_TRUE(b->WaitForOutput("RECEIVED", 60s)) << b->output();
  std::printf("[ measured ] host A ran %.2f s: %s",
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(),
              a->output().substr(a->output().find("SENT")).c_str());

  const std::string from_a = a->output();
  const std::string from_b = b->output();
  EXPECT_NE(from_b.find("RECEIVED 10000 OUT_OF_ORDER 0 DROPPED 0"), std::string::npos) << from_b;
  EXPECT_NE(from_a.find("SPEED 2.50"), std::string::npos) << from_a;
  EXPECT_NE(from_b.find("CHANGED speed"), std::string::npos) << from_b;
  EXPECT_NE(from_a.find("ECHO ping from a"), std::string::npos) << from_a;
  korvan_test::TouchFile(stop);
  ASSERT_TRUE(b->Wait(60s));
  EXPECT_EQ(b->exit_code(), 0) << from_b;
}

}  // namespace
