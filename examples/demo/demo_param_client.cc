// Sets the planner's parameters from another process and reads them back, then prints the
// topology snapshot of the bus.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include "demo_proto/demo_messages.pb.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_parameter_client.h"

int main() {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  using tarvik::korvan::Parameter;
  using namespace std::chrono_literals;
  auto node = tarvik::quessa::Node::CreateNode("operator", "");
  tarvik::quessa::ParamClient client(node.get(), "planner");

  // The library's set handler checks the size of every value it is sent as if it were a
  // string, and logs that a non-string one is not: the set still succeeds.
  std::printf(
      "operator | the planner's ERROR line below is expected: its set handler size-checks "
      "every value as a string\n");
  const bool set = client.client()->SetParameter(Parameter("speed", 2.5), 5s);
  std::printf("operator | set speed = 2.5 on planner: %s\n", set ? "accepted" : "FAILED");
  Parameter speed;
  if (client.client()->GetParameter("speed", &speed, 5s)) {
    std::printf("operator | read back: %s\n", speed.DebugString().c_str());
  }
  auto gains = std::make_shared<korvan::demo::Gains>();
  gains->set_kp(0.8);
  gains->set_kd(0.05);
  client.SetParameter("gains", gains, 5s);
  auto fetched = std::make_shared<korvan::demo::Gains>();
  if (client.GetParameter("gains", fetched, 5s)) {
    std::printf("operator | gains round trip: %s\n", fetched->ShortDebugString().c_str());
  }
  std::vector<Parameter> all;
  client.ListParameters(all, 5s);
  std::printf("operator | planner holds %zu parameters\n", all.size());

  // Discovery settles within moments of a process starting: wait until the four processes of
  // the demo are listed (or a few seconds went by).
  std::string topology;
  rapidjson::Document document;
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (node->GetTopo(topology)) {
    document.Parse(topology.c_str());
    if ((document.IsArray() && document.Size() >= 4) ||
        std::chrono::steady_clock::now() > deadline) {
      break;
    }
    std::this_thread::sleep_for(100ms);
  }
  if (document.IsArray()) {
    rapidjson::StringBuffer pretty;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(pretty);
    writer.SetIndent(' ', 2);
    document.Accept(writer);
    std::printf("operator | topology (GetTopo):\n%s\n", pretty.GetString());
  }
  return set ? 0 : 1;
}
