#include "tarvikdds/bus/korvan_message_traits.h"

#include <gtest/gtest.h>

#include "support/test_environment.h"
#include "tarvikdds/proto/perf_monitor.pb.h"
#include "tarvikdds/proto/raw_message.pb.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan_test::LogCapture;
using tarvik::korvan::bus::korvan_message_operations;
using tarvik::quessa::messages::internal::RawMessage;
using tarvik::quessa::messages::internal::SampleBatch;
namespace bus = tarvik::korvan::bus;

TEST(MessageOperationsTest, DescribesTheTypeItIsFor) {
  korvan_message_operations<RawMessage> ops;
  EXPECT_EQ(ops.MessageType(), "tarvik.quessa.messages.internal.RawMessage");
  EXPECT_EQ(ops.MessageType(std::make_shared<RawMessage>()), ops.MessageType());
  EXPECT_EQ(ops.GetDescriptor(), RawMessage::descriptor());
  EXPECT_EQ(ops.GetDescriptor(std::shared_ptr<void>()), RawMessage::descriptor());
  EXPECT_EQ(ops.GetDescriptor(std::string("tarvik.quessa.messages.internal.RawMessage")), nullptr);
  EXPECT_EQ(ops.GetTypeName(), typeid(RawMessage).name());
  EXPECT_FALSE(ops.IsPB());
  EXPECT_EQ(ops.NaiveSize(), sizeof(RawMessage));
}

TEST(MessageOperationsTest, RawEnvelopeWireFormat) {
  korvan_message_operations<RawMessage> ops;
  auto msg = std::make_shared<RawMessage>();
  msg->add_message("a");
  msg->add_message("b");
  auto out = std::make_shared<std::string>();
  ASSERT_TRUE(ops.SerializeToString(msg, out));
  EXPECT_EQ(*out, std::string("\x0A\x01\x61\x0A\x01\x62", 6));
  std::shared_ptr<void> parsed = std::make_shared<RawMessage>();
  ASSERT_TRUE(ops.ParseFromString(out, parsed));
  EXPECT_EQ(std::static_pointer_cast<RawMessage>(parsed)->message_size(), 2);
  EXPECT_EQ(ops.ByteSizeLong(msg), 6u);
}

TEST(MessageOperationsTest, NullPointersGiveFalseNotCrashes) {
  korvan_message_operations<RawMessage> ops;
  auto msg = std::make_shared<RawMessage>();
  std::shared_ptr<std::string> no_string;
  std::shared_ptr<void> no_msg;
  EXPECT_FALSE(ops.SerializeToString(msg, no_string));
  EXPECT_FALSE(ops.SerializeToString(no_msg, no_string));
  EXPECT_FALSE(ops.ParseFromString(std::make_shared<std::string>(), no_msg));
  EXPECT_FALSE(ops.SerializeToArray(no_msg, nullptr, 0));
  EXPECT_FALSE(ops.ParseFromArray(nullptr, 0, msg));
  EXPECT_FALSE(ops.ParseFromArray("x", 1, no_msg));
}

TEST(MessageOperationsTest, DefaultStampSettersAndReadersDoNothing) {
  korvan_message_operations<korvan::test::StampedMessage> ops;
  auto msg = std::make_shared<korvan::test::StampedMessage>();
  ops.SetCounterVal(msg, 7);
  ops.SetCRCVal(msg, 9);
  ops.SetPublisherIdStr(msg, "id");
  ops.SetPublisherTsVal(msg, 1);
  ops.SetPublishPtpTs(msg, 2);
  EXPECT_EQ(ops.GetCounterVal(msg), 0u);
  EXPECT_EQ(ops.GetCRCVal(msg), 0u);
  EXPECT_EQ(ops.GetPublisherId(msg), "");
  EXPECT_EQ(ops.GetPublishPtpTs(msg), 0u);
  EXPECT_EQ(msg->ByteSizeLong(), 0u);
}

TEST(MessageOperationsTest, ReplacedCounterSetterIsCalledOnceAndPreviousReturned) {
  korvan_message_operations<RawMessage> ops;
  int calls = 0;
  uint64_t seen = 0;
  std::shared_ptr<void> seen_msg;
  auto previous = ops.SetCounterValCallback([&](const std::shared_ptr<void>& m, uint64_t v) {
    ++calls;
    seen = v;
    seen_msg = m;
  });
  EXPECT_TRUE(static_cast<bool>(previous));  // the default no-op
  std::shared_ptr<void> msg = std::make_shared<RawMessage>();
  ops.SetCounterVal(msg, 7);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen, 7u);
  EXPECT_EQ(seen_msg, msg);
  EXPECT_EQ(ops.GetCounterVal(msg), 0u);  // RawMessage has no counter to read
}

TEST(MessageOperationsTest, AllocatorAndDeallocatorAreEmptyUntilSet) {
  korvan_message_operations<RawMessage> ops;
  EXPECT_FALSE(ops.HasAllocator());
  EXPECT_EQ(ops.Allocate(), nullptr);
  EXPECT_FALSE(ops.HasDeallocator());
  std::shared_ptr<void> msg = std::make_shared<RawMessage>();
  ops.Deallocate(msg);  // no effect
  auto fresh = std::make_shared<RawMessage>();
  EXPECT_FALSE(ops.SetAllocator([fresh] { return fresh; }));
  EXPECT_TRUE(ops.HasAllocator());
  EXPECT_EQ(ops.Allocate(), fresh);
  std::shared_ptr<void> created;
  EXPECT_EQ(ops.NewMessage(created, "ignored"), 0);
  ASSERT_NE(created, nullptr);
  EXPECT_NE(created, fresh);
}

TEST(MessageOperationsTest, ParseMessageFromBytes) {
  korvan_message_operations<korvan::test::PlainMessage> ops;
  korvan::test::PlainMessage source;
  source.set_sequence(42);
  std::string bytes = source.SerializeAsString();
  std::shared_ptr<void> dst = std::make_shared<korvan::test::PlainMessage>();
  ASSERT_TRUE(ops.parseMessage(dst, bytes.data(), static_cast<int>(bytes.size()), false, false));
  EXPECT_EQ(std::static_pointer_cast<korvan::test::PlainMessage>(dst)->sequence(), 42u);

  LogCapture log(5);
  EXPECT_FALSE(ops.parseMessage(dst, "\xff\xff\xff", 3, false, false));
  EXPECT_EQ(log.Count("[korvan_internal][parseMessage] ParseFromArray failed."), 1u);
  std::shared_ptr<void> null_dst;
  EXPECT_FALSE(ops.parseMessage(null_dst, bytes.data(), 1, false, false));
  EXPECT_EQ(log.Count("[parseMessage] input ptr is null"), 1u);
}

TEST(MessageOperationsTest, ParseMessageFromObjectOfTheSameType) {
  korvan_message_operations<korvan::test::PlainMessage> ops;
  korvan::test::PlainMessage source;
  source.set_text("hello");
  LogCapture log(5);
  std::shared_ptr<void> dst = std::make_shared<korvan::test::PlainMessage>();
  ASSERT_TRUE(ops.parseMessage(dst, &source, 0, true, false));
  EXPECT_EQ(std::static_pointer_cast<korvan::test::PlainMessage>(dst)->text(), "hello");
  EXPECT_FALSE(log.Contains("not the same"));
}

TEST(MessageOperationsTest, ParseMessageFromObjectOfAnotherTypeConvertsAndWarns) {
  korvan_message_operations<korvan::test::PlainMessage> ops;
  korvan::test::PlainMessageTwin source;
  source.set_sequence(5);
  source.set_text("twin");
  LogCapture log(3);
  std::shared_ptr<void> dst = std::make_shared<korvan::test::PlainMessage>();
  ASSERT_TRUE(ops.parseMessage(dst, &source, 0, true, false));
  auto typed = std::static_pointer_cast<korvan::test::PlainMessage>(dst);
  EXPECT_EQ(typed->sequence(), 5u);
  EXPECT_EQ(typed->text(), "twin");
  EXPECT_EQ(log.Count("Pub/Sub msg types not the same: korvan.test.PlainMessageTwin : "
                      "korvan.test.PlainMessage"),
            1u);
  EXPECT_EQ(log.SeverityOf("Pub/Sub msg types"), google::GLOG_WARNING);
}

TEST(MessageOperationsTest, CopyFromOnlyLogs) {
  korvan_message_operations<RawMessage> ops;
  auto dst = std::make_shared<RawMessage>();
  RawMessage src;
  src.add_message("x");
  LogCapture log(5);
  ops.CopyFrom(dst, &src);
  EXPECT_EQ(dst->message_size(), 0);
  EXPECT_EQ(log.Count("[CopyFrom] : " + ops.GetTypeName() + " dones not support CopyFrom"), 1u);
}

TEST(StampFieldsTest, EnabledSettersWriteWhatTheReadersRead) {
  auto ops = bus::MakeStampingOperations<korvan::test::StampedMessage>();
  auto msg = std::make_shared<korvan::test::StampedMessage>();
  ops->SetCounterVal(msg, 7);
  ops->SetCRCVal(msg, 0xDEADBEEF);
  ops->SetPublisherIdStr(msg, "pub-1");
  ops->SetPublisherTsVal(msg, 11);
  ops->SetPublishPtpTs(msg, 12);
  EXPECT_EQ(msg->counter(), 7u);
  EXPECT_EQ(ops->GetCounterVal(msg), 7u);
  EXPECT_EQ(ops->GetCRCVal(msg), 0xDEADBEEFu);
  EXPECT_EQ(ops->GetPublisherId(msg), "pub-1");
  EXPECT_EQ(msg->publish_ts(), 11u);
  EXPECT_EQ(ops->GetPublishPtpTs(msg), 12u);
}

TEST(StampFieldsTest, NameAndNumberMustBothMatch) {
  bus::StampFieldSet fields(korvan::test::MisnamedStamps::descriptor());
  EXPECT_FALSE(fields.any());
  auto ops = bus::MakeStampingOperations<korvan::test::MisnamedStamps>();
  auto msg = std::make_shared<korvan::test::MisnamedStamps>();
  ops->SetCounterVal(msg, 3);
  EXPECT_FALSE(msg->has_counter());
  EXPECT_FALSE(msg->has_sequence_no());
}

TEST(StampFieldsTest, LibraryTypesKeepTheirNoOpSetters) {
  korvan_message_operations<SampleBatch> ops;
  auto batch = std::make_shared<SampleBatch>();
  ops.SetPublisherTsVal(batch, 99);
  EXPECT_FALSE(batch->has_publish_ts());
}

TEST(StampFieldsTest, PatchedCrcEqualsAFreshSerialisation) {
  korvan::test::StampedMessage message;
  message.set_sequence(3);
  message.set_payload(std::string(300, 'p'));
  for (int i = 0; i < 20; ++i)
    (*message.mutable_labels())["k" + std::to_string(i)] = i;
  message.set_publish_ts(1234567890123ULL);
  message.set_counter(42);
  message.set_publisher_id("9f1c0b2e-3d4a-4c5b-8e6f-7a8b9c0d1e2f");
  message.set_publish_ptp_ts(987654321ULL);
  message.mutable_unknown_fields()->AddVarint(1000, 7);  // travels after the stamps
  const bus::CrcLayout patcher(korvan::test::StampedMessage::descriptor());
  for (uint32_t crc : {0u, 1u, 127u, 128u, 16384u, 0xCBF43926u, 0xFFFFFFFFu}) {
    message.set_crc(0);
    std::string bytes;
    ASSERT_TRUE(bus::SerializeDeterministic(message, &bytes));
    ASSERT_TRUE(patcher.Patch(message, crc, &bytes)) << crc;
    message.set_crc(crc);
    std::string fresh;
    ASSERT_TRUE(bus::SerializeDeterministic(message, &fresh));
    EXPECT_EQ(bytes, fresh) << crc;
  }
}

TEST(StampFieldsTest, UnexpectedLayoutsAreLeftAlone) {
  korvan::test::FixedCrcMessage fixed;
  fixed.set_crc(0);
  std::string bytes;
  ASSERT_TRUE(bus::SerializeDeterministic(fixed, &bytes));
  const std::string before = bytes;
  EXPECT_FALSE(bus::CrcLayout(korvan::test::FixedCrcMessage::descriptor()).Patch(fixed, 5, &bytes));
  EXPECT_EQ(bytes, before);

  korvan::test::CrcMessage not_zeroed;
  not_zeroed.set_crc(9);  // the crc field must hold 0 when the bytes are made
  ASSERT_TRUE(bus::SerializeDeterministic(not_zeroed, &bytes));
  EXPECT_FALSE(bus::CrcLayout(korvan::test::CrcMessage::descriptor()).Patch(not_zeroed, 5, &bytes));
}

// What a receiver computes from the wire bytes must be exactly the CRC the sender stamped, for
// every crc value length and with fields travelling after the crc.
TEST(StampFieldsTest, ReceiverCrcOverWireBytesEqualsTheSendersCrc) {
  auto ops = bus::MakeStampingOperations<korvan::test::StampedMessage>();
  const auto* hooks = dynamic_cast<const bus::ReceiveHooks*>(ops.get());
  ASSERT_NE(hooks, nullptr);
  const bus::CrcLayout layout(korvan::test::StampedMessage::descriptor());
  for (int size : {0, 1, 100, 5000}) {
    auto sent = std::make_shared<korvan::test::StampedMessage>();
    sent->set_payload(std::string(size, 'x'));
    (*sent->mutable_labels())["a"] = size;
    sent->set_publish_ts(1);
    sent->set_counter(static_cast<uint64_t>(size));
    sent->set_publisher_id("9f1c0b2e-3d4a-4c5b-8e6f-7a8b9c0d1e2f");
    sent->set_crc(0);
    auto bytes = std::make_shared<std::string>();
    ASSERT_TRUE(ops->SerializeToString(sent, bytes));
    const uint32_t crc = bus::Crc32(bytes->data(), bytes->size());
    ASSERT_TRUE(layout.Patch(*sent, crc, bytes.get()));

    std::shared_ptr<void> received;
    ops->NewMessage(received, "");
    ASSERT_TRUE(
        ops->parseMessage(received, bytes->data(), static_cast<int>(bytes->size()), false, false));
    uint64_t check = 0;
    ASSERT_TRUE(hooks->InspectWire(received, bytes->data(), bytes->size(), &check)) << size;
    EXPECT_EQ(check, crc) << size;

    // A flipped payload byte gives another CRC over the received bytes.
    std::string flipped = *bytes;
    flipped[3] ^= 0x01;
    std::shared_ptr<void> damaged;
    ops->NewMessage(damaged, "");
    if (ops->parseMessage(damaged, flipped.data(), static_cast<int>(flipped.size()), false,
                          false) &&
        hooks->InspectWire(damaged, flipped.data(), flipped.size(), &check)) {
      EXPECT_NE(check, crc) << size;
    }
  }
}

TEST(StampFieldsTest, ReceiverCrcRefusesBytesWhoseLayoutItCannotVouchFor) {
  const bus::CrcLayout layout(korvan::test::StampedMessage::descriptor());
  korvan::test::StampedMessage message;
  message.set_text("t");
  message.set_crc(77);
  std::string bytes;
  ASSERT_TRUE(bus::SerializeDeterministic(message, &bytes));
  uint32_t crc = 0;
  EXPECT_TRUE(layout.ZeroedCrc(message, bytes.data(), bytes.size(), &crc));
  // A message that claims another crc than its bytes hold, or bytes with something after the
  // fields the parsed message knows of, are left to the slow check.
  korvan::test::StampedMessage other = message;
  other.set_crc(78);
  EXPECT_FALSE(layout.ZeroedCrc(other, bytes.data(), bytes.size(), &crc));
  std::string longer = bytes + std::string("\x08\x01", 2);
  EXPECT_FALSE(layout.ZeroedCrc(message, longer.data(), longer.size(), &crc));
  EXPECT_FALSE(layout.ZeroedCrc(message, bytes.data(), 3, &crc));
  EXPECT_FALSE(bus::CrcLayout(korvan::test::FixedCrcMessage::descriptor())
                   .ZeroedCrc(korvan::test::FixedCrcMessage(), "", 0, &crc));
}

TEST(StampFieldsTest, CrcContinuesAcrossPieces) {
  const std::string text = "123456789";
  EXPECT_EQ(bus::Crc32(text.data(), text.size()), 0xCBF43926u);
  EXPECT_EQ(bus::Crc32(text.data() + 4, 5, bus::Crc32(text.data(), 4)), 0xCBF43926u);
}

TEST(StampFieldsTest, StampingSerialisationIsDeterministicForMaps) {
  auto ops = bus::MakeStampingOperations<korvan::test::StampedMessage>();
  auto a = std::make_shared<korvan::test::StampedMessage>();
  auto b = std::make_shared<korvan::test::StampedMessage>();
  for (int i = 0; i < 50; ++i)
    (*a->mutable_labels())["k" + std::to_string(i)] = i;
  for (int i = 49; i >= 0; --i)
    (*b->mutable_labels())["k" + std::to_string(i)] = i;
  auto bytes_a = std::make_shared<std::string>();
  auto bytes_b = std::make_shared<std::string>();
  ASSERT_TRUE(ops->SerializeToString(a, bytes_a));
  ASSERT_TRUE(ops->SerializeToString(b, bytes_b));
  EXPECT_EQ(*bytes_a, *bytes_b);
}

}  // namespace
