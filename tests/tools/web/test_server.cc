// korvan_web_test_server: the web server over the fake source with a small, lively demo bus,
// for the outside clients' tests (node, the browser). Prints "listening on port N" once ready
// and "param <node>/<name>=<value>" for every parameter the page sets; ends when its standard
// input closes (the test that started it is gone) or on SIGINT/SIGTERM.
//   korvan_web_test_server [--port N] [--static DIR]   (default: the page FindPageDir finds)
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include <google/protobuf/timestamp.pb.h>

#include "fake_bus_source.h"
#include "korvan/web/server.h"
#include "korvan/web/static_files.h"
#include "web_test_proto/web_test.pb.h"

using namespace korvan_web_test;

namespace {

std::atomic<bool> g_stop{false};

void OnSignal(int) {
  g_stop = true;
}

void BuildDemo(FakeBusSource& source) {
  using korvan::webtest::Pose;
  using korvan::webtest::SetSpeedRequest;
  using korvan::webtest::SetSpeedResponse;
  source.AddNode("planner", "planner");
  source.AddNode("tracker", "tracker");
  source.AddNode("operator", "operator");
  source.AddTopic("/demo/pose", Pose::descriptor(), {"planner"}, {"tracker", "operator"});
  source.AddTopic("/demo/clock", google::protobuf::Timestamp::descriptor(), {"tracker"},
                  {"operator"});
  source.SetParameters("planner", {{"speed", "double", "1.5"},
                                   {"enabled", "bool", "true"},
                                   {"label", "string", "\"alpha\""},
                                   {"max_count", "int", "10"}});
  source.AddService(
      "/planner/set_speed", SetSpeedRequest::descriptor(), SetSpeedResponse::descriptor(),
      {"planner"}, [&source](Encoding encoding, std::string_view bytes) {
        if (encoding != Encoding::kProtobuf)
          return Result<std::string>::Fail("protobuf only");
        SetSpeedRequest request;
        if (!request.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
          return Result<std::string>::Fail("malformed request");
        auto old = source.GetParameter("planner", "speed");
        auto set = source.SetParameter("planner", "speed", std::to_string(request.speed()));
        if (!set.ok())
          return Result<std::string>::Fail(set.error);
        SetSpeedResponse response;
        response.set_accepted(true);
        response.set_previous(old.ok() ? std::stod(old.value->value_json) : 0);
        return Result<std::string>::Ok(response.SerializeAsString());
      });
}

}  // namespace

int main(int argc, char** argv) {
  ServerOptions options;
  options.port = 0;
  options.name = "korvan test server";
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--port") == 0)
      options.port = static_cast<uint16_t>(std::atoi(argv[i + 1]));
    else if (std::strcmp(argv[i], "--static") == 0)
      options.static_dir = argv[i + 1];
  }
  if (options.static_dir.empty())
    options.static_dir = FindPageDir();
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  signal(SIGPIPE, SIG_IGN);

  FakeBusSource source;
  BuildDemo(source);
  options.log = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
  Server server(source, options);
  std::string error;
  if (!server.Start(&error)) {
    std::fprintf(stderr, "korvan_web_test_server: %s\n", error.c_str());
    return 1;
  }
  std::printf("listening on port %u\n", server.port());
  std::fflush(stdout);

  // The demo bus: a pose at 20 Hz with a 2 ms transit, a clock at 5 Hz, applications that
  // count frames, the tracker failing now and then.
  std::thread bus([&] {
    uint64_t seq = 0;
    size_t writes_seen = 0;
    while (!g_stop) {
      const int64_t now = WallNs();
      korvan::webtest::Pose pose;
      pose.set_seq(++seq);
      pose.set_x(std::cos(static_cast<double>(seq) / 20.0));
      pose.set_y(std::sin(static_cast<double>(seq) / 20.0));
      pose.set_theta(static_cast<double>(seq % 628) / 100.0);
      pose.set_frame_id("map");
      pose.mutable_stamp()->set_seconds(now / 1000000000);
      pose.mutable_stamp()->set_nanos(static_cast<int32_t>(now % 1000000000));
      source.Publish("/demo/pose", pose.SerializeAsString(), now - 2'000'000);
      if (seq % 4 == 0) {
        google::protobuf::Timestamp clock;
        clock.set_seconds(now / 1000000000);
        source.Publish("/demo/clock", clock.SerializeAsString());
      }
      const bool failing = (seq / 100) % 2 == 1;
      source.SetApplications({{"planner", "running", seq, false, ""},
                              {"tracker", failing ? "error" : "running", seq / 2, failing,
                               failing ? "lost the pose" : ""}});
      auto writes = source.ParameterWrites();
      for (; writes_seen < writes.size(); ++writes_seen)
        std::printf("param %s\n", writes[writes_seen].c_str());
      std::fflush(stdout);
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });

  while (!g_stop) {
    pollfd in{STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&in, 1, 200);
    if (ready > 0) {
      char buffer[256];
      if (read(STDIN_FILENO, buffer, sizeof(buffer)) <= 0)
        break;
    }
  }
  g_stop = true;
  bus.join();
  server.Stop();
  return 0;
}
