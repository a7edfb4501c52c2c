// Parameter values as the web view edits them: every type to JSON and back, values refused for
// their type, and message values decoded with the description they carry, not with whatever
// the process happens to know.
#include <google/protobuf/descriptor.pb.h>

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "korvan/tools/param_json.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/parameter/parameter.h"
#include "tarvikdds/proto/proto_desc.pb.h"
#include "test_proto/diamond_top.pb.h"

namespace {

using tarvik::korvan::Param;
using tarvik::korvan::Parameter;
using tarvik::korvan::tools::ParamTypeName;
using tarvik::korvan::tools::ParamValueJson;
using tarvik::korvan::tools::ParamWithJsonValue;
using tarvik::korvan::tools::ProtoDescToDescriptorSet;

std::string Json(const Param& param) {
  std::string json, problem;
  EXPECT_TRUE(ParamValueJson(param, &json, &problem)) << problem;
  return json;
}

// `json` read as `param`'s type, then written back.
std::string RoundTrip(const Param& param, const std::string& json) {
  Param out;
  std::string problem;
  if (!ParamWithJsonValue(param, json, &out, &problem))
    return "refused: " + problem;
  EXPECT_EQ(out.name(), param.name());
  EXPECT_EQ(out.type(), param.type());
  return Json(out);
}

korvan::test::DiamondTop Top() {
  korvan::test::DiamondTop top;
  top.mutable_left()->mutable_base()->set_id(7);
  top.mutable_left()->set_label("west");
  top.mutable_right()->mutable_base()->set_id(9);
  return top;
}

TEST(ParamJsonTest, ScalarsReadAndWriteTheirOwnType) {
  const Param flag = Parameter("flag", true).ToProtoParam();
  EXPECT_EQ(ParamTypeName(flag), "bool");
  EXPECT_EQ(Json(flag), "true");
  EXPECT_EQ(RoundTrip(flag, "false"), "false");
  EXPECT_EQ(RoundTrip(flag, "1"), "refused: not true or false");

  const Param count = Parameter("count", 7L).ToProtoParam();
  EXPECT_EQ(ParamTypeName(count), "int");
  EXPECT_EQ(RoundTrip(count, "-12"), "-12");
  // Integers beyond a double's 53 bits stay exact, as a number or a decimal string.
  EXPECT_EQ(RoundTrip(count, "9007199254740993"), "9007199254740993");
  EXPECT_EQ(RoundTrip(count, "\"-9223372036854775808\""), "-9223372036854775808");
  EXPECT_EQ(RoundTrip(count, "1.5"), "refused: not an integer");
  EXPECT_EQ(RoundTrip(count, "9223372036854775808"), "refused: out of the 64-bit range");
  EXPECT_EQ(RoundTrip(count, "\"9223372036854775808\""), "refused: not an integer");
  EXPECT_EQ(RoundTrip(count, "\"12a\""), "refused: not an integer");

  const Param speed = Parameter("speed", 1.5).ToProtoParam();
  EXPECT_EQ(ParamTypeName(speed), "double");
  EXPECT_EQ(RoundTrip(speed, "3.25"), "3.25");
  EXPECT_EQ(RoundTrip(speed, "2"), "2.0");
  EXPECT_EQ(RoundTrip(speed, "0.1"), "0.1");  // shortest form that reads back the same
  EXPECT_EQ(RoundTrip(speed, "\"Infinity\""), "\"Infinity\"");
  EXPECT_EQ(RoundTrip(speed, "\"NaN\""), "\"NaN\"");
  EXPECT_EQ(RoundTrip(speed, "\"fast\""), "refused: not a number");
  EXPECT_EQ(RoundTrip(speed, "3.25 4"), "refused: not a JSON value");

  const Param label = Parameter("label", "left \"wing\"\n").ToProtoParam();
  EXPECT_EQ(ParamTypeName(label), "string");
  EXPECT_EQ(Json(label), "\"left \\\"wing\\\"\\n\"");
  EXPECT_EQ(RoundTrip(label, "\"r\\u00e9gion\""), "\"r\xc3\xa9gion\"");
  EXPECT_EQ(RoundTrip(label, "5"), "refused: not a string");
  // Bytes that are not UTF-8 would make the browser refuse the whole message.
  Param odd = label;
  odd.set_string_value(
      std::string("a\xff\xfe"
                  "b"));
  EXPECT_EQ(Json(odd), "\"a??b\"");

  EXPECT_EQ(RoundTrip(Param(), "1"), "refused: the parameter has no type to read the value as");
  EXPECT_EQ(Json(Param()), "null");
}

TEST(ParamJsonTest, MessageValueTravelsWithItsDescription) {
  const Param gains = Parameter("shape", Top()).ToProtoParam();
  EXPECT_EQ(ParamTypeName(gains), "korvan.test.DiamondTop");
  EXPECT_EQ(Json(gains), R"({"left":{"base":{"id":7},"label":"west"},"right":{"base":{"id":9}}})");

  Param next;
  std::string problem;
  ASSERT_TRUE(ParamWithJsonValue(gains, R"({"left": {"label": "east"}})", &next, &problem))
      << problem;
  korvan::test::DiamondTop decoded;
  ASSERT_TRUE(decoded.ParseFromString(next.string_value()));
  EXPECT_EQ(decoded.left().label(), "east");
  EXPECT_FALSE(decoded.has_right());
  EXPECT_EQ(next.proto_desc(), gains.proto_desc());

  EXPECT_FALSE(ParamWithJsonValue(gains, R"({"left": {"colour": 1}})", &next, &problem));
  EXPECT_NE(problem.find("colour"), std::string::npos) << problem;
  EXPECT_FALSE(ParamWithJsonValue(gains, "[1]", &next, &problem));
  EXPECT_EQ(problem, "a korvan.test.DiamondTop is given as a JSON object");

  // The description decides, not the name: a carried description whose type has other fields
  // than the compiled one decodes with its own.
  google::protobuf::FileDescriptorProto file;
  file.set_name("other/diamond_top.proto");
  file.set_package("korvan.test");
  auto* type = file.add_message_type();
  type->set_name("DiamondTop");
  auto* field = type->add_field();
  field->set_name("weight");
  field->set_number(1);
  field->set_type(google::protobuf::FieldDescriptorProto::TYPE_DOUBLE);
  field->set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
  tarvik::korvan::message::ProtoDesc desc;
  desc.set_desc(file.SerializeAsString());
  Param foreign = gains;
  foreign.set_proto_desc(desc.SerializeAsString());
  foreign.set_string_value(std::string("\x09\0\0\0\0\0\0\xf8\x3f", 9));  // weight = 1.5
  EXPECT_EQ(Json(foreign), R"({"weight":1.5})");

  // A broken description or value is a reason, not a crash.
  std::string json;
  Param broken = gains;
  broken.set_proto_desc("\x0a\x03zzz");
  EXPECT_FALSE(ParamValueJson(broken, &json, &problem));
  EXPECT_EQ(problem, "the description of korvan.test.DiamondTop does not parse");
  broken = gains;
  broken.set_type_name("korvan.test.Missing");
  EXPECT_FALSE(ParamValueJson(broken, &json, &problem));
  EXPECT_EQ(problem, "the description carried does not declare korvan.test.Missing");
  broken = gains;
  broken.set_string_value("\xff\xff");
  EXPECT_FALSE(ParamValueJson(broken, &json, &problem));
}

TEST(ParamJsonTest, DescriptionTreeFlattensOnceInImportOrder) {
  tarvik::korvan::message::ProtoDesc desc;
  ASSERT_TRUE(tarvik::korvan::message::ProtobufFactory::GetProtoDesc(
      korvan::test::DiamondTop::descriptor()->file(), &desc));
  std::string bytes;
  ASSERT_TRUE(ProtoDescToDescriptorSet(desc.SerializeAsString(), &bytes));
  google::protobuf::FileDescriptorSet set;
  ASSERT_TRUE(set.ParseFromString(bytes));
  std::vector<std::string> names;
  for (const auto& file : set.file())
    names.push_back(file.name());
  // The base is reached through both sides of the diamond and listed once, before them.
  ASSERT_EQ(names.size(), 4u);
  EXPECT_EQ(names.front(), "diamond_base.proto");
  EXPECT_EQ(names.back(), "diamond_top.proto");

  // One name with two contents is ambiguous.
  tarvik::korvan::message::ProtoDesc twice = desc;
  google::protobuf::FileDescriptorProto changed;
  ASSERT_TRUE(changed.ParseFromString(twice.dependencies(0).dependencies(0).desc()));
  changed.add_message_type()->set_name("Extra");
  twice.mutable_dependencies(0)->mutable_dependencies(0)->set_desc(changed.SerializeAsString());
  EXPECT_FALSE(ProtoDescToDescriptorSet(twice.SerializeAsString(), &bytes));
  EXPECT_FALSE(ProtoDescToDescriptorSet("\xff", &bytes));
}

}  // namespace
