#include "tarvikdds/message/protobuf_factory.h"

#include <memory>
#include <string>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "support/test_environment.h"
#include "tarvikdds/proto/proto_desc.pb.h"
#include "test_proto/diamond_top.pb.h"
#include "test_proto/test_messages.pb.h"

namespace {

namespace pb = google::protobuf;
using korvan_test::LogCapture;
using tarvik::korvan::message::ProtobufFactory;
using tarvik::korvan::message::ProtoDesc;

pb::FileDescriptorProto FileFromText(const std::string& text) {
  pb::FileDescriptorProto file;
  EXPECT_TRUE(pb::TextFormat::ParseFromString(text, &file)) << text;
  return file;
}

std::string FileName(const ProtoDesc& desc) {
  pb::FileDescriptorProto file;
  EXPECT_TRUE(file.ParseFromString(desc.desc()));
  return file.name();
}

TEST(ProtobufFactoryTest, OneFactoryWhateverTheFlag) {
  ProtobufFactory* factory = ProtobufFactory::Instance();
  ASSERT_NE(factory, nullptr);
  EXPECT_EQ(ProtobufFactory::Instance(false), factory);
  EXPECT_EQ(ProtobufFactory::Instance(true), factory);
}

TEST(ProtobufFactoryTest, DiamondImportIsDescribedTwiceAndRegisters) {
  ProtoDesc desc;
  ASSERT_TRUE(ProtobufFactory::GetProtoDesc(korvan::test::DiamondTop::descriptor()->file(), &desc));
  EXPECT_EQ(FileName(desc), "diamond_top.proto");
  ASSERT_EQ(desc.dependencies_size(), 2);
  EXPECT_EQ(FileName(desc.dependencies(0)), "diamond_left.proto");
  EXPECT_EQ(FileName(desc.dependencies(1)), "diamond_right.proto");
  for (const ProtoDesc& side : desc.dependencies()) {
    ASSERT_EQ(side.dependencies_size(), 1);
    EXPECT_EQ(FileName(side.dependencies(0)), "diamond_base.proto");
  }

  auto* factory = ProtobufFactory::Instance();
  EXPECT_EQ(factory->FindMessageTypeByName("korvan.test.DiamondTop"), nullptr);
  std::string text;
  ProtobufFactory::GetDescriptorString(korvan::test::DiamondTop::descriptor(), &text);
  EXPECT_EQ(text, desc.SerializeAsString());
  ASSERT_TRUE(factory->RegisterMessage(text));
  EXPECT_TRUE(factory->RegisterMessage(text)) << "an identical file registers again";

  const pb::Descriptor* registered = factory->FindMessageTypeByName("korvan.test.DiamondTop");
  ASSERT_NE(registered, nullptr);
  EXPECT_NE(registered, korvan::test::DiamondTop::descriptor());
  EXPECT_NE(factory->FindMessageTypeByName("korvan.test.DiamondBase"), nullptr);
  EXPECT_NE(factory->FindServiceByName("korvan.test.DiamondService"), nullptr);

  // Registered or not, the compiled-in type is the one created.
  std::unique_ptr<pb::Message> created(factory->GenerateMessageByType("korvan.test.DiamondTop"));
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->GetDescriptor(), korvan::test::DiamondTop::descriptor());
  EXPECT_NE(dynamic_cast<korvan::test::DiamondTop*>(created.get()), nullptr);
}

TEST(ProtobufFactoryTest, CompiledInTypesAreInvisibleUntilRegistered) {
  auto* factory = ProtobufFactory::Instance();
  const std::string name = "korvan.test.PlainMessage";
  std::string out = "untouched";
  EXPECT_EQ(factory->FindMessageTypeByName(name), nullptr);
  factory->GetPythonDesc(name, &out);
  EXPECT_EQ(out, "untouched");
  std::unique_ptr<pb::Message> generated(factory->GetMessageByGeneratedType(name));
  ASSERT_NE(generated, nullptr);

  ASSERT_TRUE(factory->RegisterMessage(korvan::test::PlainMessage()));
  ASSERT_NE(factory->FindMessageTypeByName(name), nullptr);
  factory->GetPythonDesc(name, &out);
  pb::DescriptorProto type;
  ASSERT_TRUE(type.ParseFromString(out));
  EXPECT_EQ(type.name(), "PlainMessage");  // the type alone, not its file
  EXPECT_EQ(type.field_size(), 3);
}

TEST(ProtobufFactoryTest, CreatesRegisteredTypesThatAreNotCompiledIn) {
  auto* factory = ProtobufFactory::Instance();
  const std::string name = "korvan.test.RuntimeOnly";
  EXPECT_EQ(factory->GetMessageByGeneratedType(name), nullptr);
  ASSERT_TRUE(factory->RegisterMessage(FileFromText(R"(
      name: "runtime_only.proto" package: "korvan.test"
      message_type { name: "RuntimeOnly"
        field { name: "text" number: 1 label: LABEL_OPTIONAL type: TYPE_STRING } })")));

  std::unique_ptr<pb::Message> message(factory->GenerateMessageByType(name));
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(message->GetDescriptor(), factory->FindMessageTypeByName(name));
  ASSERT_TRUE(message->ParseFromString(std::string("\x0a\x02hi", 4)));
  EXPECT_EQ(message->ShortDebugString(), "text: \"hi\"");
}

TEST(ProtobufFactoryTest, BadInputGivesFalseAndALogLine) {
  auto* factory = ProtobufFactory::Instance();
  LogCapture log(3);

  EXPECT_FALSE(factory->RegisterMessage(std::string("not a descriptor at all")));
  EXPECT_EQ(log.SeverityOf("[korvan_internal][] "), google::GLOG_WARNING);

  EXPECT_FALSE(factory->RegisterMessage(FileFromText(R"(
      name: "orphan.proto" dependency: "never_registered.proto")")));
  EXPECT_TRUE(log.Contains("[korvan_internal][orphan.proto] "));

  ASSERT_TRUE(factory->RegisterMessage(FileFromText(R"(
      name: "clash_a.proto" package: "korvan.test" message_type { name: "Clash" })")));
  EXPECT_FALSE(factory->RegisterMessage(FileFromText(R"(
      name: "clash_b.proto" package: "korvan.test" message_type { name: "Clash" })")));
  EXPECT_EQ(log.SeverityOf("[korvan_internal][clash_b.proto] "), google::GLOG_WARNING);
  EXPECT_EQ(factory->FindMessageTypeByName("korvan.test.Clash")->file()->name(), "clash_a.proto");

  EXPECT_EQ(factory->GenerateMessageByType("korvan.test.Nowhere"), nullptr);
  EXPECT_EQ(log.SeverityOf("cannot find [korvan.test.Nowhere] descriptor"), google::GLOG_ERROR);

  std::string out = "kept";
  ProtobufFactory::GetDescriptorString(nullptr, &out);
  EXPECT_EQ(log.SeverityOf("Failed to get descriptor from message"), google::GLOG_ERROR);
  EXPECT_EQ(out, "kept");
}

TEST(ProtobufFactoryTest, TreeRegistrationStopsAtTheFirstFailure) {
  auto* factory = ProtobufFactory::Instance();
  ProtoDesc tree;
  FileFromText(R"(name: "stop_top.proto" package: "korvan.test" dependency: "stop_ok.proto"
                  dependency: "stop_bad.proto" message_type { name: "StopTop" })")
      .SerializeToString(tree.mutable_desc());
  FileFromText(R"(name: "stop_ok.proto" package: "korvan.test" message_type { name: "StopOk" })")
      .SerializeToString(tree.add_dependencies()->mutable_desc());
  FileFromText(R"(name: "stop_bad.proto" dependency: "absent.proto")")
      .SerializeToString(tree.add_dependencies()->mutable_desc());

  EXPECT_FALSE(factory->RegisterMessage(tree));
  EXPECT_NE(factory->FindMessageTypeByName("korvan.test.StopOk"), nullptr);
  EXPECT_EQ(factory->FindMessageTypeByName("korvan.test.StopTop"), nullptr);
}

}  // namespace
