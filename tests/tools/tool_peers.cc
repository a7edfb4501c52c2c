// The real processes the tool is tested against, started as children of the test binary: a
// publisher, a subscriber, a service, a parameter server, an application, and a publisher of
// another description of a type name. Their types (tool_test_messages.proto) are compiled in
// here and not into the tool. Each prints READY once its endpoints exist and then runs until
// it is killed (children die with the test).
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "support/child_process.h"
#include "tarvikdds/application/application.h"
#include "tarvikdds/message/dynamic_message_operations.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/messaging/dds_publisher_impl.h"
#include "tarvikdds/messaging/dds_service.h"
#include "tarvikdds/parameter/parameter_server.h"
#include "tool_proto/tool_test_messages.pb.h"

namespace {

using korvan::tooltest::Gains;
using korvan::tooltest::Note;
using korvan::tooltest::Reading;
using korvan::tooltest::SumRequest;
using korvan::tooltest::SumResponse;
using tarvik::quessa::Node;
using tarvik::quessa::QoS;

void Ready() {
  std::printf("READY\n");
  std::fflush(stdout);
}

[[noreturn]] void RunUntilKilled() {
  for (;;)
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

// Calls `publish(n)` at `rate_hz`, paced on absolute times so the long-run rate is exact.
template <typename Publish>
[[noreturn]] void PublishAt(double rate_hz, Publish publish) {
  const auto period = std::chrono::nanoseconds(static_cast<long>(1e9 / rate_hz));
  auto next = std::chrono::steady_clock::now();
  for (uint64_t n = 1;; ++n) {
    publish(n);
    next += period;
    std::this_thread::sleep_until(next);
  }
}

}  // namespace

// args: topic, rate in Hz, [type: reading (default) or note]. Node "reading_source".
KORVAN_CHILD_ROLE(publisher) {
  auto node = Node::CreateNode("reading_source", "");
  const double rate = std::stod(args.at(1));
  if (args.size() > 2 && args[2] == "note") {
    auto pub = node->CreatePublisher<Note>(args.at(0), QoS());
    Ready();
    PublishAt(rate, [&](uint64_t n) {
      auto note = std::make_shared<Note>();
      note->set_text("note " + std::to_string(n));
      pub->Publish(note);
    });
  }
  auto pub = node->CreatePublisher<Reading>(args.at(0), QoS());
  Ready();
  PublishAt(rate, [&](uint64_t n) {
    auto reading = std::make_shared<Reading>();
    reading->set_value(static_cast<double>(n));
    reading->set_label("front");
    reading->mutable_position()->set_x(1.5);
    reading->mutable_position()->set_y(-2);
    reading->add_samples(0.25);
    reading->add_samples(0.75);
    reading->set_mode(Reading::TRACKING);
    pub->Publish(reading);
  });
}

// args: topic. Node "reading_sink"; prints "GOT <message>" for each message.
KORVAN_CHILD_ROLE(subscriber) {
  auto node = Node::CreateNode("reading_sink", "");
  auto sub = node->CreateSubscriber<Reading>(
      args.at(0), QoS(), [](const std::shared_ptr<Reading>& reading) {
        Reading content = *reading;
        content.clear_publish_ts();
        content.clear_counter();
        content.clear_publisher_id();
        content.clear_crc();
        content.clear_publish_ptp_ts();
        std::printf("GOT %s\n", content.ShortDebugString().c_str());
        std::fflush(stdout);
      });
  Ready();
  RunUntilKilled();
}

// args: service. Node "adder": answers a SumRequest with a + b.
KORVAN_CHILD_ROLE(adder) {
  auto node = Node::CreateNode("adder", "");
  tarvik::quessa::Service<SumRequest, SumResponse> service(
      args.at(0),
      [](const std::shared_ptr<SumRequest>& request) {
        auto response = std::make_shared<SumResponse>();
        response->set_sum(request->a() + request->b());
        return response;
      },
      "adder", "");
  Ready();
  RunUntilKilled();
}

// args: node name. Serves one parameter of every value type and prints every change.
KORVAN_CHILD_ROLE(parameters) {
  using tarvik::korvan::Parameter;
  auto node = Node::CreateNode(args.at(0), "");
  tarvik::korvan::ParameterServer server(
      node.get(), [](const std::string& name, const Parameter& parameter) {
        std::printf("CHANGED %s %s\n", name.c_str(), parameter.DebugString().c_str());
        std::fflush(stdout);
      });
  server.SetParameter(Parameter("enabled", true));
  server.SetParameter(Parameter("retries", 3L));
  server.SetParameter(Parameter("speed", 1.5));
  server.SetParameter(Parameter("label", std::string("front")));
  Gains gains;
  gains.set_kp(1);
  gains.set_ki(0.5);
  server.SetParameter(Parameter("gains", gains));
  Ready();
  RunUntilKilled();
}

namespace {

// Every fourth step fails, so that watchers see failed_proc among the signals.
class StepperApp : public tarvik::quessa::Application {
 public:
  explicit StepperApp(const std::string& name) : Application(name) {}
  std::string Init() override { return ""; }
  std::string Proc(uint64_t, uint64_t) override {
    return ++steps_ % 4 == 0 ? "step " + std::to_string(steps_) + " refused" : "";
  }
  std::string Finalize() override { return ""; }

 private:
  int steps_ = 0;
};

}  // namespace

// args: application name. Runs it every 50 ms.
KORVAN_CHILD_ROLE(application) {
  auto app = std::make_shared<StepperApp>(args.at(0));
  tarvik::quessa::Application::Register(args.at(0), app);
  app->Start(50);
  Ready();
  RunUntilKilled();
}

// args: topic, rate in Hz. Publishes korvan.tooltest.Reading from a description of its own
// (fields "note" and "level"), made at run time: the same type name as the publisher role's,
// another type.
KORVAN_CHILD_ROLE(rival) {
  using google::protobuf::FieldDescriptorProto;
  google::protobuf::FileDescriptorProto file;
  file.set_name("rival_reading.proto");
  file.set_package("korvan.tooltest");
  file.set_syntax("proto2");
  auto* message = file.add_message_type();
  message->set_name("Reading");
  auto* note = message->add_field();
  note->set_name("note");
  note->set_number(1);
  note->set_type(FieldDescriptorProto::TYPE_STRING);
  note->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  auto* level = message->add_field();
  level->set_name("level");
  level->set_number(2);
  level->set_type(FieldDescriptorProto::TYPE_INT32);
  level->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  google::protobuf::DescriptorPool pool;
  const auto* descriptor = pool.BuildFile(file)->FindMessageTypeByName("Reading");
  google::protobuf::DynamicMessageFactory factory;
  auto operations = std::make_shared<tarvik::korvan::message::DynamicMessageOperations>(
      descriptor, factory.GetPrototype(descriptor));
  auto node = Node::CreateNode("rival_source", "");
  auto publisher = std::make_shared<tarvik::quessa::PublisherImpl>(
      args.at(0), QoS(), descriptor, operations, 0, node->name(), node->domain());
  Ready();
  PublishAt(std::stod(args.at(1)), [&](uint64_t n) {
    std::shared_ptr<google::protobuf::Message> sample = operations->New();
    const auto* reflection = sample->GetReflection();
    reflection->SetString(sample.get(), descriptor->FindFieldByName("note"), "rival");
    reflection->SetInt32(sample.get(), descriptor->FindFieldByName("level"),
                         static_cast<int32_t>(n));
    publisher->Publish(sample);
  });
}
