#include "tarvikdds/parameter/parameter.h"

#include <memory>
#include <string>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "support/test_environment.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/proto/proto_desc.pb.h"
#include "test_proto/test_messages.pb.h"

namespace {

namespace pb = google::protobuf;
using korvan_test::LogCapture;
using tarvik::korvan::Param;
using tarvik::korvan::Parameter;
using tarvik::korvan::message::ProtobufFactory;

TEST(ParameterTest, ScalarConstructorsFillTheWireForm) {
  Param b = Parameter("b", true).ToProtoParam();
  EXPECT_EQ(b.name(), "b");
  EXPECT_EQ(b.type(), tarvik::korvan::BOOL);
  EXPECT_EQ(b.type_name(), "BOOL");
  EXPECT_EQ(b.oneof_value_case(), Param::kBoolValue);

  Param i = Parameter("i", -7).ToProtoParam();
  EXPECT_EQ(i.type_name(), "INT");
  EXPECT_EQ(i.int_value(), -7);
  EXPECT_EQ(Parameter("l", 1L << 40).ToProtoParam().int_value(), 1L << 40);

  Param f = Parameter("f", 3.5f).ToProtoParam();
  EXPECT_EQ(f.type_name(), "DOUBLE");
  EXPECT_EQ(f.oneof_value_case(), Param::kDoubleValue);

  EXPECT_EQ(Parameter("s", "text").ToProtoParam().type_name(), "STRING");
  EXPECT_EQ(Parameter("s", std::string("a\0b", 3)).ToProtoParam().string_value().size(), 3u);

  Param unset = Parameter("n").ToProtoParam();
  EXPECT_EQ(unset.type(), tarvik::korvan::NOT_SET);
  EXPECT_EQ(unset.type_name(), "");
  EXPECT_EQ(unset.oneof_value_case(), Param::ONEOF_VALUE_NOT_SET);
}

TEST(ParameterTest, MismatchLogsAndYieldsTheMemberActuallySet) {
  LogCapture log(2);
  Parameter f("f", 3.5f);
  EXPECT_EQ(f.value<double>(), 3.5);
  EXPECT_EQ(f.value<float>(), 3.5f);
  EXPECT_TRUE(log.Lines().empty());
  EXPECT_EQ(f.value<long>(), 0);
  EXPECT_EQ(log.Count("The type of parameter \"f\" is DOUBLE, not INT"), 1u);
  EXPECT_EQ(log.SeverityOf(", not INT"), google::GLOG_ERROR);

  EXPECT_FALSE(Parameter("i", 1).value<bool>());
  EXPECT_TRUE(log.Contains("The type of parameter \"i\" is INT, not BOOL"));
  EXPECT_EQ(Parameter("b", true).value<std::string>(), "");
  EXPECT_TRUE(log.Contains("The type of parameter \"b\" is BOOL, not STRING"));
  EXPECT_EQ(Parameter("s", "x").value<double>(), 0.0);
  EXPECT_TRUE(log.Contains("The type of parameter \"s\" is STRING, not DOUBLE"));

  // The declared type only decides the log line; the value comes from the oneof.
  Param odd;
  odd.set_name("odd");
  odd.set_type(tarvik::korvan::INT);
  odd.set_type_name("INT");
  odd.set_bool_value(true);
  Parameter p;
  p.FromProtoParam(odd);
  log.Clear();
  EXPECT_TRUE(p.value<bool>());
  EXPECT_TRUE(log.Contains("is INT, not BOOL"));
  log.Clear();
  EXPECT_EQ(p.value<int>(), 0);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(ParameterTest, DebugStringOfEveryScalarType) {
  EXPECT_EQ(Parameter("b", false).DebugString(), "{name: \"b\", type: \"BOOL\", value: false}");
  EXPECT_EQ(Parameter("b", true).DebugString(), "{name: \"b\", type: \"BOOL\", value: true}");
  EXPECT_EQ(Parameter("i", -42L).DebugString(), "{name: \"i\", type: \"INT\", value: -42}");
  EXPECT_EQ(Parameter("d", 2.0 / 3).DebugString(),
            "{name: \"d\", type: \"DOUBLE\", value: 0.666667}");
  EXPECT_EQ(Parameter("s", "hi").DebugString(), "{name: \"s\", type: \"STRING\", value: \"hi\"}");
  EXPECT_EQ(Parameter("n").DebugString(), "{name: \"n\", type: \"\", value: not set}");
  // No truncation and no exponent: 301 integer digits, the point and six decimals.
  std::string big = Parameter("big", 1e300).DebugString();
  EXPECT_EQ(big.size() - big.find("value: ") - std::string("value: }").size(), 308u);
  EXPECT_EQ(big.substr(big.size() - 8), ".000000}");
}

TEST(ParameterTest, MessageValueCarriesItsTypeAndPrints) {
  korvan::test::PlainMessage message;
  message.set_sequence(7);
  message.set_text("x");
  LogCapture log(3);
  Parameter p("m", message);
  Param wire = p.ToProtoParam();
  EXPECT_EQ(wire.type(), tarvik::korvan::PROTOBUF);
  EXPECT_EQ(wire.type_name(), "korvan.test.PlainMessage");
  EXPECT_EQ(p.value<std::string>(), message.SerializeAsString());
  tarvik::korvan::message::ProtoDesc desc;
  ASSERT_TRUE(desc.ParseFromString(wire.proto_desc()));
  EXPECT_EQ(desc.dependencies_size(), 0);

  EXPECT_EQ(
      p.DebugString(),
      "{name: \"m\", type: \"korvan.test.PlainMessage\", value: \"sequence: 7 text: \"x\"\"}");
  EXPECT_NE(ProtobufFactory::Instance()->FindMessageTypeByName("korvan.test.PlainMessage"),
            nullptr);
  EXPECT_TRUE(log.Lines().empty()) << log.Lines().front();
}

// A process without the type compiled in decodes it from the descriptor string it carries.
TEST(ParameterTest, MessageOfATypeThisProcessDoesNotHave) {
  pb::FileDescriptorProto file;
  ASSERT_TRUE(pb::TextFormat::ParseFromString(R"(
      name: "remote.proto" package: "korvan.remote"
      message_type { name: "Pose"
        field { name: "x" number: 1 label: LABEL_OPTIONAL type: TYPE_DOUBLE }
        field { name: "frame" number: 2 label: LABEL_OPTIONAL type: TYPE_STRING } })",
                                              &file));
  pb::DescriptorPool pool;
  const pb::FileDescriptor* built = pool.BuildFile(file);
  ASSERT_NE(built, nullptr);
  pb::DynamicMessageFactory messages(&pool);
  std::unique_ptr<pb::Message> pose(messages.GetPrototype(built->message_type(0))->New());
  ASSERT_TRUE(pb::TextFormat::ParseFromString("x: 1.5 frame: \"map\"", pose.get()));
  std::string desc;
  ProtobufFactory::GetDescriptorString(*pose, &desc);

  Parameter p("pose", "korvan.remote.Pose", pose->SerializeAsString(), desc);
  EXPECT_EQ(p.ToProtoParam().type_name(), "korvan.remote.Pose");
  EXPECT_EQ(p.ToProtoParam().proto_desc(), desc);
  EXPECT_EQ(Parameter(p).DebugString(),
            "{name: \"pose\", type: \"korvan.remote.Pose\", value: \"x: 1.5 frame: \"map\"\"}");
}

}  // namespace
