#include "tarvikdds/messaging/dds_participant.h"

#include <chrono>

#include <gtest/gtest.h>

#include "support/fake_env.h"
#include "support/test_environment.h"
#include "test_proto/test_messages.pb.h"

namespace {

using korvan_test::LogCapture;
using tarvik::quessa::Participant;
using namespace std::chrono_literals;

TEST(ParticipantTest, StampFieldsNeedNameAndNumber) {
  Participant all("t");
  all.Init(korvan::test::StampedMessage::descriptor());
  EXPECT_TRUE(all.crc_exists() && all.counter_exists() && all.publisher_id_exists() &&
              all.publish_ts_exists() && all.publish_ptp_ts_exists());
  EXPECT_EQ(all.type_name(), "korvan.test.StampedMessage");

  Participant misnamed("t");
  misnamed.Init(korvan::test::MisnamedStamps::descriptor());
  EXPECT_FALSE(misnamed.counter_exists());  // "counter" numbered 7
  misnamed.Init(nullptr);                   // no change
  EXPECT_EQ(misnamed.type_name(), "korvan.test.MisnamedStamps");

  Participant overridden("t");
  overridden.Init(korvan::test::StampedMessage::descriptor());
  overridden.AppSetExits(false, true, false, false, false);
  EXPECT_FALSE(overridden.crc_exists());
  EXPECT_TRUE(overridden.counter_exists());
  EXPECT_NE(all.participant_id(), misnamed.participant_id());
}

TEST(ParticipantTest, CrcIsTheStandardCrc32) {
  Participant p("t");
  EXPECT_EQ(p.CalculateCRC("123456789"), 0xCBF43926u);
  EXPECT_EQ(p.CalculateCRC(""), 0u);
  EXPECT_EQ(p.CalculateCRC(std::string(1, '\0')), 0xD202EF8Du);
}

TEST(ParticipantTest, RateLimitedCounterReportsEveryThousandth) {
  LogCapture log(2);
  {
    Participant p("rate");
    for (int i = 0; i < 2500; ++i)
      p.OnSeqError(5, 9, 100, 7);
    EXPECT_EQ(p.mismatch_count(), 2500u);
    p.OnSeqError(1, 2);
  }
  EXPECT_EQ(log.Count("rate: Message counter mismatch, expected: 5 actual: 9 interval: 100ns "
                      "last_cb_cost: 7"),
            3u);
  EXPECT_EQ(log.Count("rate: Message counter mismatch, expected: 1 actual: 2"), 1u);
}

TEST(ParticipantTest, ReportTexts) {
  LogCapture log(4);
  {
    Participant p("topic/x");
    p.OnCRCError(1, 2);
    p.OnTimestampError(1000, 400);
    p.OnSeqError(1, 2);  // counts only in the four-argument form
  }
  EXPECT_EQ(log.Count("[korvan_internal]topic/x: CRC error, expected: 1 acutal: 2"), 1u);
  EXPECT_EQ(log.Count("topic/x: Transmit delay is high: -600"), 1u);
  EXPECT_EQ(log.Count("Message counter mismatch count:0"), 1u);
}

TEST(ParticipantTest, UpdateGapIsReportedOnceAndItsEndOnce) {
  korvan_test::FakeClockEnv clock;
  LogCapture log(2);
  Participant p("gap", 200);
  for (int i = 0; i < 5; ++i) {
    p.CheckUpdateTs();
    clock.Advance(10ms);
  }
  p.CheckUpdateTs();
  clock.Advance(200ms);  // the threshold itself is no gap yet
  p.CheckUpdateTs();
  EXPECT_EQ(log.Count("Update gap"), 0u);
  clock.Advance(600ms);
  p.CheckUpdateTs();
  EXPECT_EQ(log.Count("Update gap(ms): 600 Topic: gap"), 1u);
  clock.Advance(700ms);
  p.CheckUpdateTs();  // still in the gap: not reported again
  EXPECT_EQ(log.Count("Update gap(ms): "), 1u);
  p.CheckUpdateTs();
  EXPECT_EQ(log.Count("Update gap(ms) OK: 0 Topic: gap"), 1u);
  p.CheckUpdateTs();
  EXPECT_EQ(log.Count("Update gap"), 2u);

  Participant off("off", 0);
  clock.Advance(5s);
  off.CheckUpdateTs();
  off.CheckUpdateTs();
  EXPECT_EQ(log.Count("Topic: off"), 0u);
}

}  // namespace
