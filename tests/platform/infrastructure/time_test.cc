#include "infra/time.h"

#include <chrono>

#include <gtest/gtest.h>

#include "support/fake_env.h"

namespace {

using tarvik::korvan::Time;

TEST(TimeTest, PrecisionCodesAreUnits) {
  EXPECT_EQ(Time::FromNanoseconds(1234567891234ULL, Time::kSecond), 1234u);
  EXPECT_EQ(Time::FromNanoseconds(1234567891234ULL, Time::kMillisecond), 1234567u);
  EXPECT_EQ(Time::FromNanoseconds(1234567891234ULL, Time::kMicrosecond), 1234567891u);
  EXPECT_EQ(Time::FromNanoseconds(1234567891234ULL, Time::kNanosecond), 1234567891234ULL);
}

TEST(TimeTest, UtcAgreesWithTheSystemClockAcrossPrecisions) {
  const uint64_t system_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
  const uint64_t utc_ms = Time::Utc(Time::kMillisecond);
  EXPECT_LE(system_ms, utc_ms);
  EXPECT_LT(utc_ms - system_ms, 1000u);
  const uint64_t ns = Time::Utc(Time::kNanosecond);
  const uint64_t s = Time::Utc(Time::kSecond);
  EXPECT_NEAR(static_cast<double>(ns / 1000000000ULL), static_cast<double>(s), 1.0);
}

TEST(TimeTest, PtpWithoutDeviceFollowsTheRealTimeClock) {
  const uint64_t utc = Time::Utc(Time::kMicrosecond);
  const uint64_t ptp = Time::Ptp(Time::kMicrosecond);
  EXPECT_GE(ptp, utc);
  EXPECT_LT(ptp - utc, 1000000u);
}

TEST(TimeTest, ReadsAndSleepsThroughTheEnv) {
  korvan_test::FakeClockEnv fake;
  const uint64_t wall = fake.RealTimeNanos();
  EXPECT_EQ(Time::Utc(Time::kNanosecond), wall);
  EXPECT_EQ(Time::Ptp(Time::kNanosecond), wall);  // no PTP device: the real-time clock
  Time::Sleep(20, Time::kMillisecond);
  Time::Sleep(5000, Time::kMicrosecond);
  Time::Sleep(2, Time::kSecond);
  Time::Sleep(3, Time::kNanosecond);
  EXPECT_EQ(fake.slept_nanos(), 2025000003u);
  EXPECT_EQ(Time::Utc(Time::kMicrosecond), (wall + 2025000003u) / 1000);
}

}  // namespace
