// The tooling library's parsing and bookkeeping, without a bus: message text both ways and
// field paths, parameter values both ways, the publish time read from wire bytes, rate
// statistics, types built from descriptions, and description conflicts on a topic.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "korvan/bus/type_description.h"
#include "korvan/tools/bus_snapshot.h"
#include "korvan/tools/param_codec.h"
#include "korvan/tools/rate_window.h"
#include "korvan/tools/text_codec.h"
#include "korvan/tools/type_catalog.h"
#include "korvan/tools/wire_scan.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/parameter/parameter.h"
#include "tool_proto/tool_test_messages.pb.h"

namespace {

using korvan::tooltest::Gains;
using korvan::tooltest::Reading;
using tarvik::korvan::Param;
using tarvik::korvan::Parameter;
namespace tools = tarvik::korvan::tools;

Reading Sample() {
  Reading reading;
  reading.set_value(2.5);
  reading.set_label("front \"left\"");
  reading.mutable_position()->set_x(1);
  reading.add_samples(0.5);
  reading.add_samples(1.5);
  reading.set_mode(Reading::TRACKING);
  return reading;
}

TEST(TextCodec, ParsesTextFormatAndJsonAndNamesWhereTextIsWrong) {
  Reading reading;
  std::string problem;
  ASSERT_TRUE(
      tools::ParseMessageText("value: 1.5 position { y: 2 } samples: [1, 2]", &reading, &problem))
      << problem;
  EXPECT_EQ(reading.position().y(), 2);
  EXPECT_EQ(reading.samples_size(), 2);

  Reading from_json;
  ASSERT_TRUE(tools::ParseMessageText(R"( {"value": 3, "mode": "TRACKING"})", &from_json, &problem))
      << problem;
  EXPECT_EQ(from_json.mode(), Reading::TRACKING);

  Reading bad;
  EXPECT_FALSE(tools::ParseMessageText("value: 1\nlabel: \"x\" nosuch: 3", &bad, &problem));
  EXPECT_EQ(problem.find("line 2, column 18: "), 0u) << problem;
  EXPECT_NE(problem.find("nosuch"), std::string::npos) << problem;
  EXPECT_FALSE(tools::ParseMessageText("{\n  \"value\": }", &bad, &problem));
  EXPECT_EQ(problem.find("line 2, column 12: "), 0u) << problem;
  EXPECT_EQ(problem.find('\n'), std::string::npos) << "one line: " << problem;
  EXPECT_FALSE(tools::ParseMessageText(R"({"value": "high"})", &bad, &problem));
  EXPECT_NE(problem.find("value"), std::string::npos) << problem;
  EXPECT_EQ(problem.find('\n'), std::string::npos) << "one line: " << problem;
}

TEST(TextCodec, PrintsTextAndJsonThatParseBack) {
  const Reading reading = Sample();
  Reading again;
  std::string problem;
  ASSERT_TRUE(tools::ParseMessageText(tools::ToText(reading), &again, &problem)) << problem;
  EXPECT_EQ(again.SerializeAsString(), reading.SerializeAsString());
  ASSERT_TRUE(tools::ParseMessageText(tools::ToJson(reading), &again, &problem)) << problem;
  EXPECT_EQ(again.SerializeAsString(), reading.SerializeAsString());
  EXPECT_EQ(tools::ToText(reading, true).find('\n'), std::string::npos);
  EXPECT_EQ(tools::JsonQuote("a\"b\\c\n\x01"), "\"a\\\"b\\\\c\\n\\u0001\"");

  // A message that lacks a required field still prints (the JSON printer alone refuses).
  korvan::tooltest::SumRequest partial;
  partial.set_b(4);
  ASSERT_FALSE(partial.IsInitialized());
  EXPECT_EQ(tools::ToJson(partial), "{\"b\":\"4\"}");
  EXPECT_EQ(tools::ToText(partial, true), "b: 4");
}

TEST(TextCodec, FieldPathsPickFieldsAndSayWhyNot) {
  const Reading reading = Sample();
  std::string out;
  std::string problem;
  ASSERT_TRUE(tools::FieldText(reading, "position.x", false, &out, &problem)) << problem;
  EXPECT_EQ(out, "1");
  ASSERT_TRUE(tools::FieldText(reading, "samples.1", false, &out, &problem)) << problem;
  EXPECT_EQ(out, "1.5");
  ASSERT_TRUE(tools::FieldText(reading, "samples", true, &out, &problem)) << problem;
  EXPECT_EQ(out, "[0.5, 1.5]");
  ASSERT_TRUE(tools::FieldText(reading, "label", true, &out, &problem)) << problem;
  EXPECT_EQ(out, "\"front \\\"left\\\"\"");
  ASSERT_TRUE(tools::FieldText(reading, "mode", false, &out, &problem)) << problem;
  EXPECT_EQ(out, "TRACKING");

  EXPECT_FALSE(tools::FieldText(reading, "samples.2", false, &out, &problem));
  EXPECT_NE(problem.find("2 elements"), std::string::npos) << problem;
  EXPECT_FALSE(tools::FieldText(reading, "samples.99999999999999999999", false, &out, &problem));
  EXPECT_FALSE(tools::FieldText(reading, "value.x", false, &out, &problem));
  EXPECT_NE(problem.find("not a message"), std::string::npos) << problem;
  EXPECT_FALSE(tools::FieldText(reading, "nosuch", false, &out, &problem));
  EXPECT_FALSE(tools::FieldText(reading, "", false, &out, &problem));
}

TEST(TextCodec, FieldPathsAreCheckedAgainstTheType) {
  const auto* type = Reading::descriptor();
  std::string problem;
  EXPECT_TRUE(tools::CheckFieldPath(type, "position.x", &problem)) << problem;
  EXPECT_TRUE(tools::CheckFieldPath(type, "samples", &problem)) << problem;
  EXPECT_TRUE(tools::CheckFieldPath(type, "samples.3", &problem)) << problem;
  EXPECT_FALSE(tools::CheckFieldPath(type, "position.w", &problem));
  EXPECT_NE(problem.find("korvan.tooltest.Vector3 has no field 'w'"), std::string::npos) << problem;
  EXPECT_FALSE(tools::CheckFieldPath(type, "label.x", &problem));
  EXPECT_FALSE(tools::CheckFieldPath(type, "position.", &problem));
  EXPECT_FALSE(tools::CheckFieldPath(type, "", &problem));
  EXPECT_FALSE(tools::CheckFieldPath(type, "a..b", &problem));
}

Param ParamOf(const Parameter& parameter) {
  return parameter.ToProtoParam();
}

TEST(ParamCodec, PrintsEveryValueType) {
  std::string out;
  std::string problem;
  ASSERT_TRUE(tools::ParamValueText(ParamOf(Parameter("b", true)), false, &out, &problem));
  EXPECT_EQ(out, "true");
  ASSERT_TRUE(tools::ParamValueText(ParamOf(Parameter("i", -42L)), true, &out, &problem));
  EXPECT_EQ(out, "-42");
  ASSERT_TRUE(tools::ParamValueText(ParamOf(Parameter("d", 0.1)), false, &out, &problem));
  EXPECT_EQ(out, "0.1");
  ASSERT_TRUE(tools::ParamValueText(ParamOf(Parameter("d", 1.0 / 3)), false, &out, &problem));
  EXPECT_EQ(std::stod(out), 1.0 / 3);
  ASSERT_TRUE(tools::ParamValueText(
      ParamOf(Parameter("d", std::numeric_limits<double>::quiet_NaN())), true, &out, &problem));
  EXPECT_EQ(out, "\"NaN\"");
  ASSERT_TRUE(
      tools::ParamValueText(ParamOf(Parameter("s", std::string("a\"b"))), true, &out, &problem));
  EXPECT_EQ(out, "\"a\\\"b\"");
  ASSERT_TRUE(
      tools::ParamValueText(ParamOf(Parameter("s", std::string("a\"b"))), false, &out, &problem));
  EXPECT_EQ(out, "a\"b");
  Gains gains;
  gains.set_kp(2);
  ASSERT_TRUE(tools::ParamValueText(ParamOf(Parameter("g", gains)), false, &out, &problem));
  EXPECT_EQ(out, "kp: 2");
  ASSERT_TRUE(tools::ParamValueText(ParamOf(Parameter("g", gains)), true, &out, &problem));
  EXPECT_EQ(out, "{\"kp\":2}");
  EXPECT_EQ(tools::ParamTypeText(ParamOf(Parameter("g", gains))), "korvan.tooltest.Gains");
}

// A message type this process was not compiled with, described as parameters carry it.
Param UncompiledMessageParam(const std::string& name) {
  using google::protobuf::FieldDescriptorProto;
  google::protobuf::FileDescriptorProto file;
  file.set_name("tooling_test_limits.proto");
  file.set_package("korvan.toolingtest");
  auto* message = file.add_message_type();
  message->set_name("Limits");
  auto* top = message->add_field();
  top->set_name("top");
  top->set_number(1);
  top->set_type(FieldDescriptorProto::TYPE_INT32);
  top->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
  static google::protobuf::DescriptorPool pool;
  static const auto* descriptor = pool.BuildFile(file)->FindMessageTypeByName("Limits");
  static google::protobuf::DynamicMessageFactory factory;
  std::unique_ptr<google::protobuf::Message> value(factory.GetPrototype(descriptor)->New());
  value->GetReflection()->SetInt32(value.get(), descriptor->FindFieldByName("top"), 9);
  std::string desc;
  tarvik::korvan::message::ProtobufFactory::GetDescriptorString(descriptor, &desc);
  return ParamOf(Parameter(name, "korvan.toolingtest.Limits", value->SerializeAsString(), desc));
}

TEST(ParamCodec, DecodesMessageValuesFromTheDescriptionTheyCarry) {
  const Param param = UncompiledMessageParam("limits");
  std::string out;
  std::string problem;
  ASSERT_TRUE(tools::ParamValueText(param, false, &out, &problem)) << problem;
  EXPECT_EQ(out, "top: 9");

  Param next;
  ASSERT_TRUE(tools::ParseParamValue(param, "top: 12", &next, &problem)) << problem;
  EXPECT_EQ(next.type_name(), "korvan.toolingtest.Limits");
  EXPECT_EQ(next.proto_desc(), param.proto_desc());
  ASSERT_TRUE(tools::ParamValueText(next, true, &out, &problem)) << problem;
  EXPECT_EQ(out, "{\"top\":12}");
  EXPECT_FALSE(tools::ParseParamValue(param, "top: \"x\"", &next, &problem));
  EXPECT_NE(problem.find("line 1, column"), std::string::npos) << problem;

  Param broken = param;
  broken.set_type_name("korvan.toolingtest.Missing");
  EXPECT_FALSE(tools::ParamValueText(broken, false, &out, &problem));
  EXPECT_NE(problem.find("korvan.toolingtest.Missing"), std::string::npos) << problem;
}

TEST(ParamCodec, ReadsValuesAsTheCurrentTypeAndRefusesOthers) {
  Param out;
  std::string problem;
  const Param flag = ParamOf(Parameter("flag", false));
  ASSERT_TRUE(tools::ParseParamValue(flag, "TRUE", &out, &problem));
  EXPECT_TRUE(out.bool_value());
  ASSERT_TRUE(tools::ParseParamValue(flag, "0", &out, &problem));
  EXPECT_FALSE(out.bool_value());
  EXPECT_FALSE(tools::ParseParamValue(flag, "maybe", &out, &problem));

  const Param count = ParamOf(Parameter("count", 1L));
  ASSERT_TRUE(tools::ParseParamValue(count, "-9223372036854775808", &out, &problem));
  EXPECT_EQ(out.int_value(), std::numeric_limits<int64_t>::min());
  for (const char* bad : {"1.5", "", " 3", "3 ", "9223372036854775808", "0x10", "abc"})
    EXPECT_FALSE(tools::ParseParamValue(count, bad, &out, &problem)) << bad;

  const Param speed = ParamOf(Parameter("speed", 1.0));
  ASSERT_TRUE(tools::ParseParamValue(speed, "-2.5e3", &out, &problem));
  EXPECT_EQ(out.double_value(), -2500);
  ASSERT_TRUE(tools::ParseParamValue(speed, "inf", &out, &problem));
  EXPECT_TRUE(std::isinf(out.double_value()));
  for (const char* bad : {"fast", "", "1.5x", " 1"})
    EXPECT_FALSE(tools::ParseParamValue(speed, bad, &out, &problem)) << bad;
  EXPECT_NE(problem.find("not a double"), std::string::npos) << problem;

  const Param text = ParamOf(Parameter("name", std::string("a")));
  ASSERT_TRUE(tools::ParseParamValue(text, "", &out, &problem));
  EXPECT_EQ(out.type(), tarvik::korvan::STRING);

  EXPECT_FALSE(tools::ParseParamValue(ParamOf(Parameter("unset")), "1", &out, &problem));
}

TEST(WireScan, ReadsThePublishTimeWithoutDecoding) {
  Reading reading = Sample();
  reading.set_publish_ts(1234567890123ULL);
  reading.set_counter(7);
  const std::string bytes = reading.SerializeAsString();
  uint64_t publish = 0;
  ASSERT_TRUE(tools::ReadPublishTime(bytes.data(), bytes.size(), &publish));
  EXPECT_EQ(publish, 1234567890123ULL);

  const std::string unstamped = Sample().SerializeAsString();
  EXPECT_FALSE(tools::ReadPublishTime(unstamped.data(), unstamped.size(), &publish));
  EXPECT_FALSE(tools::ReadPublishTime(bytes.data(), bytes.size() - 1, &publish));
  EXPECT_FALSE(tools::ReadPublishTime(nullptr, 0, &publish));
  // The stamp as a fixed64 (a type may declare it so): tag 536870911 << 3 | 1.
  std::string fixed = "\xf9\xff\xff\xff\x0f";
  for (int i = 0; i < 8; ++i)
    fixed += static_cast<char>(i == 0 ? 42 : 0);
  ASSERT_TRUE(tools::ReadPublishTime(fixed.data(), fixed.size(), &publish));
  EXPECT_EQ(publish, 42u);
  // The stamp's number with a string: not a stamp.
  const std::string text = std::string("\xfa\xff\xff\xff\x0f\x01", 6) + "x";
  EXPECT_FALSE(tools::ReadPublishTime(text.data(), text.size(), &publish));
}

TEST(RateWindow, SummarisesPeriodsBytesAndDelays) {
  tools::RateWindow window(4);
  EXPECT_EQ(window.Summary().samples, 0u);
  // Periods 10, 20, 30 ms after the oldest arrival has left the window of four.
  const uint64_t ms = 1000000;
  window.Add(0, 999, -1);
  window.Add(100 * ms, 100, 1 * ms);
  window.Add(110 * ms, 200, 3 * ms);
  window.Add(130 * ms, 100, -1);
  window.Add(160 * ms, 200, 2 * ms);
  const tools::RateSummary s = window.Summary();
  EXPECT_EQ(s.samples, 4u);
  EXPECT_EQ(window.total(), 5u);
  EXPECT_EQ(s.first_ns, 100 * ms);
  EXPECT_EQ(s.last_ns, 160 * ms);
  EXPECT_NEAR(s.mean_period_s, 0.020, 1e-12);
  EXPECT_NEAR(s.rate_hz, 50, 1e-9);
  EXPECT_NEAR(s.min_period_s, 0.010, 1e-12);
  EXPECT_NEAR(s.max_period_s, 0.030, 1e-12);
  EXPECT_NEAR(s.stddev_period_s, std::sqrt(2.0 / 3.0) * 0.010, 1e-9);
  EXPECT_EQ(s.min_bytes, 100u);
  EXPECT_EQ(s.max_bytes, 200u);
  EXPECT_NEAR(s.bytes_per_s, 500 / 0.060, 1e-6);  // bytes after the first, over 60 ms
  EXPECT_EQ(s.delays, 3u);
  EXPECT_NEAR(s.mean_delay_s, 0.002, 1e-12);
  EXPECT_NEAR(s.min_delay_s, 0.001, 1e-12);
  EXPECT_NEAR(s.max_delay_s, 0.003, 1e-12);
}

std::string DescriptorSetOf(const google::protobuf::Descriptor* descriptor) {
  return tarvik::korvan::bus::DescribeType(descriptor).descriptor_set;
}

TEST(TypeCatalog, BuildsTypesAndNamesTheTypeWhenADescriptionDoesNotBuild) {
  tools::TypeCatalog catalog;
  std::string problem;
  const tools::DynamicType* reading =
      catalog.Load("korvan.tooltest.Reading", DescriptorSetOf(Reading::descriptor()), 0, &problem);
  ASSERT_NE(reading, nullptr) << problem;
  EXPECT_NE(reading->type_hash, 0u);
  EXPECT_NE(reading->descriptor->FindFieldByName("position"), nullptr);
  EXPECT_EQ(
      catalog.Load("korvan.tooltest.Reading", DescriptorSetOf(Reading::descriptor()), 0, &problem),
      reading);

  EXPECT_EQ(catalog.Load("korvan.tooltest.Broken", "not a descriptor set", 0, &problem), nullptr);
  EXPECT_NE(problem.find("korvan.tooltest.Broken"), std::string::npos) << problem;

  // A file that imports a file the set lacks.
  google::protobuf::FileDescriptorSet set;
  auto* file = set.add_file();
  file->set_name("orphan.proto");
  file->set_package("korvan.toolingtest");
  file->add_dependency("missing.proto");
  file->add_message_type()->set_name("Orphan");
  EXPECT_EQ(catalog.Load("korvan.toolingtest.Orphan", set.SerializeAsString(), 0, &problem),
            nullptr);
  EXPECT_NE(problem.find("the description of korvan.toolingtest.Orphan does not build"),
            std::string::npos)
      << problem;

  EXPECT_EQ(
      catalog.Load("korvan.tooltest.Nothing", DescriptorSetOf(Reading::descriptor()), 0, &problem),
      nullptr);
  EXPECT_NE(problem.find("does not declare"), std::string::npos) << problem;
}

TEST(TypeCatalog, KeepsTwoDescriptionsOfOneNameApart) {
  google::protobuf::FileDescriptorSet set;
  auto* file = set.add_file();
  file->set_name("other_reading.proto");
  file->set_package("korvan.tooltest");
  auto* message = file->add_message_type();
  message->set_name("Reading");
  auto* note = message->add_field();
  note->set_name("note");
  note->set_number(1);
  note->set_type(google::protobuf::FieldDescriptorProto::TYPE_STRING);
  note->set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);

  tools::TypeCatalog catalog;
  std::string problem;
  const tools::DynamicType* ours =
      catalog.Load("korvan.tooltest.Reading", DescriptorSetOf(Reading::descriptor()), 0, &problem);
  const tools::DynamicType* theirs =
      catalog.Load("korvan.tooltest.Reading", set.SerializeAsString(), 0, &problem);
  ASSERT_NE(ours, nullptr);
  ASSERT_NE(theirs, nullptr) << problem;
  EXPECT_NE(ours->type_hash, theirs->type_hash);
  EXPECT_NE(ours->descriptor->FindFieldByName("value"), nullptr);
  EXPECT_NE(theirs->descriptor->FindFieldByName("note"), nullptr);
  EXPECT_EQ(theirs->descriptor->FindFieldByName("value"), nullptr);
  EXPECT_EQ(catalog.Loaded("korvan.tooltest.Reading").size(), 2u);
}

TEST(BusSnapshot, ConflictsAreSameNameDifferentDescription) {
  auto endpoint = [](const std::string& type, uint64_t hash, int pid) {
    tools::EndpointRef e;
    e.type_name = type;
    e.type_hash = hash;
    e.process.process_id = pid;
    return e;
  };
  tools::TopicRef topic;
  topic.publishers = {endpoint("a.T", 1, 10), endpoint("a.T", 1, 11), endpoint("a.T", 2, 12),
                      endpoint("a.T", 0, 13), endpoint("b.U", 3, 14)};
  const auto conflicts = topic.Conflicts();
  ASSERT_EQ(conflicts.size(), 2u);
  EXPECT_EQ(conflicts[0].first.process.process_id, 10);
  EXPECT_EQ(conflicts[0].second.process.process_id, 12);
  EXPECT_EQ(conflicts[1].first.process.process_id, 11);
  EXPECT_EQ(topic.TypeNames(), (std::vector<std::string>{"a.T", "b.U"}));
}

}  // namespace
