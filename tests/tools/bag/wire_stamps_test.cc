// Stamps read from wire bytes agree with what a parse and reflection read, for every integer
// encoding a stamp may have, and malformed bytes are refused where a parser refuses them.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <limits>
#include <memory>

#include <gtest/gtest.h>

#include "korvan/tools/wire_stamps.h"
#include "tarvikdds/bus/stamp_fields.h"
#include "test_proto/test_messages.pb.h"

namespace {

using google::protobuf::FieldDescriptorProto;
using korvan::test::StampedMessage;
using tarvik::korvan::tools::ReadWireStamps;
using tarvik::korvan::tools::StampEncoding;
using tarvik::korvan::tools::StampLayout;
using tarvik::korvan::tools::WireStamps;

WireStamps Walk(const std::string& bytes, const StampLayout& layout) {
  WireStamps stamps;
  EXPECT_TRUE(ReadWireStamps(bytes.data(), bytes.size(), layout, &stamps));
  return stamps;
}

TEST(WireStampsTest, LayoutFollowsTheStampRulesOfTheBus) {
  const StampLayout stamped = StampLayout::Of(StampedMessage::descriptor());
  EXPECT_EQ(stamped.publish_ts, StampEncoding::kVarint);
  EXPECT_EQ(stamped.counter, StampEncoding::kVarint);
  EXPECT_EQ(stamped.publisher_id, StampEncoding::kString);
  const StampLayout counted = StampLayout::Of(korvan::test::CountedMessage::descriptor());
  EXPECT_EQ(counted.publish_ts, StampEncoding::kAbsent);
  EXPECT_EQ(counted.counter, StampEncoding::kVarint);
  // A name without its number, or a number without its name, is no stamp.
  EXPECT_FALSE(StampLayout::Of(korvan::test::MisnamedStamps::descriptor()).any());
  EXPECT_FALSE(StampLayout::Of(korvan::test::PlainMessage::descriptor()).any());
  EXPECT_FALSE(StampLayout::Of(nullptr).any());
}

TEST(WireStampsTest, AgreesWithAParseOnStampedMessages) {
  const StampLayout layout = StampLayout::Of(StampedMessage::descriptor());
  const uint64_t values[] = {
      0, 1, 127, 128, 1700000000123456789ull, std::numeric_limits<uint64_t>::max()};
  for (uint64_t value : values) {
    StampedMessage m;
    m.set_sequence(value / 3);
    m.set_payload(std::string(300, 'x'));  // a length-delimited field to skip
    (*m.mutable_labels())["a"] = 1;
    m.set_publish_ts(value);
    m.set_counter(value ^ 0x5555);
    m.set_publisher_id("0b7e0c1a-1111-4c2d-9e3f-222233334444");
    m.set_crc(77);
    m.set_publish_ptp_ts(value + 1);
    const WireStamps stamps = Walk(m.SerializeAsString(), layout);
    EXPECT_TRUE(stamps.has_publish_ts);
    EXPECT_EQ(stamps.publish_ts, value);
    EXPECT_TRUE(stamps.has_counter);
    EXPECT_EQ(stamps.counter, value ^ 0x5555);
    EXPECT_EQ(stamps.publisher_id, m.publisher_id());
  }
  // Stamps the message does not carry are reported absent, not as 0.
  StampedMessage bare;
  bare.set_sequence(4);
  const WireStamps none = Walk(bare.SerializeAsString(), layout);
  EXPECT_FALSE(none.has_publish_ts || none.has_counter || none.has_publisher_id);
  // A type without stamps yields nothing even when the numbers occur.
  const WireStamps ignored = Walk(bare.SerializeAsString() + "\xf8\xff\xff\xff\x0f\x05",
                                  StampLayout::Of(korvan::test::PlainMessage::descriptor()));
  EXPECT_FALSE(ignored.has_publish_ts);
}

TEST(WireStampsTest, LastOccurrenceWinsAndWrongWireTypesAreNotTaken) {
  const StampLayout layout = StampLayout::Of(StampedMessage::descriptor());
  StampedMessage first;
  first.set_counter(5);
  first.set_publish_ts(10);
  StampedMessage second;
  second.set_counter(6);
  const std::string joined = first.SerializeAsString() + second.SerializeAsString();
  StampedMessage parsed;
  ASSERT_TRUE(parsed.ParseFromString(joined));
  const WireStamps stamps = Walk(joined, layout);
  EXPECT_EQ(stamps.counter, parsed.counter());
  EXPECT_EQ(stamps.publish_ts, parsed.publish_ts());

  // Field 536870910 as length-delimited: an unknown field to a parser, not the counter.
  const std::string wrong = std::string("\xf2\xff\xff\xff\x0f\x02\x01\x02", 8);
  ASSERT_TRUE(parsed.ParseFromString(wrong));
  EXPECT_FALSE(parsed.has_counter());
  EXPECT_FALSE(Walk(wrong, layout).has_counter);
}

TEST(WireStampsTest, EveryPrefixIsJudgedLikeAParserJudgesIt) {
  const StampLayout layout = StampLayout::Of(StampedMessage::descriptor());
  StampedMessage m;
  m.set_sequence(300);
  m.set_text("hello");
  m.set_payload(std::string(200, 'p'));
  m.set_publish_ts(1700000000000000000ull);
  m.set_counter(1234567);
  m.set_publisher_id("id");
  const std::string bytes = m.SerializeAsString();
  for (size_t n = 0; n <= bytes.size(); ++n) {
    StampedMessage parsed;
    const bool parses = parsed.ParseFromArray(bytes.data(), static_cast<int>(n));
    WireStamps stamps;
    const bool walks = ReadWireStamps(bytes.data(), n, layout, &stamps);
    ASSERT_EQ(walks, parses) << "prefix of " << n << " bytes";
    if (!walks) {
      EXPECT_FALSE(stamps.has_counter || stamps.has_publish_ts || stamps.has_publisher_id);
      continue;
    }
    EXPECT_EQ(stamps.has_counter, parsed.has_counter());
    EXPECT_EQ(stamps.counter, parsed.counter());
    EXPECT_EQ(stamps.has_publish_ts, parsed.has_publish_ts());
    EXPECT_EQ(stamps.publish_ts, parsed.publish_ts());
  }
}

TEST(WireStampsTest, GroupsAreSkippedAndStrayEndsRefused) {
  const StampLayout layout = StampLayout::Of(StampedMessage::descriptor());
  // Field 5 as a group holding a varint and a nested group 6, then the counter (7).
  const std::string counter = std::string("\xf0\xff\xff\xff\x0f\x07", 6);
  const std::string group = std::string("\x2b\x08\x01\x33\x10\x02\x34\x2c", 8);
  const WireStamps stamps = Walk(group + counter, layout);
  EXPECT_TRUE(stamps.has_counter);
  EXPECT_EQ(stamps.counter, 7u);
  WireStamps out;
  const std::string stray_end = std::string("\x2c", 1) + counter;
  EXPECT_FALSE(ReadWireStamps(stray_end.data(), stray_end.size(), layout, &out));
  const std::string wrong_end = std::string("\x2b\x08\x01\x34", 4);  // opens 5, closes 6
  EXPECT_FALSE(ReadWireStamps(wrong_end.data(), wrong_end.size(), layout, &out));
  const std::string unclosed = std::string("\x2b\x08\x01", 3);
  EXPECT_FALSE(ReadWireStamps(unclosed.data(), unclosed.size(), layout, &out));
  const std::string field_zero = std::string("\x00\x01", 2);
  EXPECT_FALSE(ReadWireStamps(field_zero.data(), field_zero.size(), layout, &out));
  const std::string overlong = std::string(11, '\xff');
  EXPECT_FALSE(ReadWireStamps(overlong.data(), overlong.size(), layout, &out));
  EXPECT_TRUE(ReadWireStamps(nullptr, 0, layout, &out));
}

// A type declaring publish_ts and counter with the given field types, built at run time.
class EncodedStamps {
 public:
  EncodedStamps(FieldDescriptorProto::Type publish_ts, FieldDescriptorProto::Type counter) {
    google::protobuf::FileDescriptorProto file;
    file.set_name("encoded_stamps.proto");
    file.set_package("bagtest");
    auto* message = file.add_message_type();
    message->set_name("Encoded");
    auto add = [&](const char* name, int number, FieldDescriptorProto::Type type) {
      auto* field = message->add_field();
      field->set_name(name);
      field->set_number(number);
      field->set_type(type);
      field->set_label(FieldDescriptorProto::LABEL_OPTIONAL);
    };
    add("value", 1, FieldDescriptorProto::TYPE_UINT64);
    add("publish_ts", tarvik::korvan::bus::kPublishTsNumber, publish_ts);
    add("counter", tarvik::korvan::bus::kCounterNumber, counter);
    const auto* built = pool_.BuildFile(file);
    descriptor_ = built->message_type(0);
    prototype_ = factory_.GetPrototype(descriptor_);
  }
  const google::protobuf::Descriptor* descriptor() const { return descriptor_; }
  // A message holding `value` in both stamps, serialised, and what reflection reads back.
  std::string Encode(int64_t value, uint64_t* read_back) {
    std::unique_ptr<google::protobuf::Message> m(prototype_->New());
    m->GetReflection()->SetUInt64(m.get(), descriptor_->FindFieldByNumber(1), 9);
    for (const char* name : {"publish_ts", "counter"}) {
      const auto* field = descriptor_->FindFieldByName(name);
      tarvik::korvan::bus::WriteStampInteger(m.get(), field, static_cast<uint64_t>(value));
    }
    *read_back = tarvik::korvan::bus::ReadStampInteger(*m, descriptor_->FindFieldByName("counter"));
    return m->SerializeAsString();
  }

 private:
  google::protobuf::DescriptorPool pool_;
  google::protobuf::DynamicMessageFactory factory_;
  const google::protobuf::Descriptor* descriptor_ = nullptr;
  const google::protobuf::Message* prototype_ = nullptr;
};

TEST(WireStampsTest, EveryIntegerEncodingReadsAsReflectionReadsIt) {
  const FieldDescriptorProto::Type types[] = {
      FieldDescriptorProto::TYPE_UINT64,  FieldDescriptorProto::TYPE_INT64,
      FieldDescriptorProto::TYPE_UINT32,  FieldDescriptorProto::TYPE_INT32,
      FieldDescriptorProto::TYPE_SINT32,  FieldDescriptorProto::TYPE_SINT64,
      FieldDescriptorProto::TYPE_FIXED32, FieldDescriptorProto::TYPE_SFIXED32,
      FieldDescriptorProto::TYPE_FIXED64, FieldDescriptorProto::TYPE_SFIXED64};
  const int64_t values[] = {
      0, 1, -1, 63, -64, 1 << 20, -(1 << 20), 2147483647, -2147483647 - 1, 1700000000000000000ll};
  for (const auto type : types) {
    EncodedStamps encoded(type, type);
    const StampLayout layout = StampLayout::Of(encoded.descriptor());
    ASSERT_NE(layout.counter, StampEncoding::kAbsent) << type;
    for (int64_t value : values) {
      uint64_t expected = 0;
      const std::string bytes = encoded.Encode(value, &expected);
      const WireStamps stamps = Walk(bytes, layout);
      EXPECT_TRUE(stamps.has_counter);
      EXPECT_EQ(stamps.counter, expected) << "type " << type << ", value " << value;
      EXPECT_EQ(stamps.publish_ts, expected) << "type " << type << ", value " << value;
    }
  }
}

}  // namespace
