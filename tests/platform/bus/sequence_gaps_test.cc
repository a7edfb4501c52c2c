#include "core/sequence_gaps.h"
#include "core/seen_window.h"

#include <gtest/gtest.h>

namespace {

using tarvik::korvan::bus::SeenWindow;
using tarvik::korvan::bus::SequenceGaps;

TEST(SequenceGapsTest, CountsWhatEachWriterSkippedFromWhereTheReaderJoined) {
  SequenceGaps gaps;
  EXPECT_EQ(gaps.Observe(1, 40), 0u);  // joined late: nothing before counts
  EXPECT_EQ(gaps.Observe(1, 41), 0u);
  EXPECT_EQ(gaps.Observe(1, 45), 3u);
  EXPECT_EQ(gaps.Observe(2, 7), 0u);  // another writer, its own numbers
  EXPECT_EQ(gaps.Observe(2, 9), 1u);
  EXPECT_EQ(gaps.Observe(1, 46), 0u);
}

TEST(SequenceGapsTest, UnnumberedOldAndRepeatedSamplesSkipNothing) {
  SequenceGaps gaps;
  EXPECT_EQ(gaps.Observe(1, 0), 0u);
  EXPECT_EQ(gaps.Observe(1, 10), 0u);
  EXPECT_EQ(gaps.Observe(1, 0), 0u);
  EXPECT_EQ(gaps.Observe(1, 10), 0u);
  EXPECT_EQ(gaps.Observe(1, 4), 0u);
  EXPECT_EQ(gaps.Observe(1, 12), 1u);  // measured from the highest seen
}

// A transport that sees samples arrive marks the start there, so losses between arrival and
// the first take count too.
TEST(SequenceGapsTest, StartMarksTheFirstArrivalBeforeItIsTaken) {
  SequenceGaps gaps;
  gaps.Start(1, 10);
  EXPECT_EQ(gaps.Observe(1, 15), 5u);  // 10..14 overwritten before anything was taken
  gaps.Start(1, 40);                   // known: no effect
  EXPECT_EQ(gaps.Observe(1, 16), 0u);
  gaps.Start(2, 0);  // not numbered: no start
  EXPECT_EQ(gaps.Observe(2, 8), 0u);
}

TEST(SequenceGapsTest, ManyWritersAreForgottenNotMiscounted) {
  SequenceGaps gaps;
  for (uint64_t writer = 0; writer < 10000; ++writer)
    EXPECT_EQ(gaps.Observe(writer, 5), 0u);
  // Each skipped one sample: counted, or not seen by a writer that was forgotten and starts
  // afresh; never more.
  for (uint64_t writer = 0; writer < 10000; ++writer)
    EXPECT_LE(gaps.Observe(writer, 7), 1u);
}

TEST(SeenWindowTest, EachNumberPassesOnceInAnyOrderWithinTheWindow) {
  SeenWindow seen;
  EXPECT_TRUE(seen.FirstTime(100));
  EXPECT_TRUE(seen.FirstTime(102));  // another thread admitted 102 before 101
  EXPECT_TRUE(seen.FirstTime(101));
  EXPECT_TRUE(seen.FirstTime(3));  // below the first number, still within the window
  for (uint64_t n : {100, 101, 102, 3})
    EXPECT_FALSE(seen.FirstTime(n)) << n;
  // A long run slides the window: what falls out of it counts as seen.
  for (uint64_t n = 103; n < 103 + 3 * SeenWindow::kSpan; ++n)
    ASSERT_TRUE(seen.FirstTime(n)) << n;
  const uint64_t top = 102 + 3 * SeenWindow::kSpan;
  EXPECT_FALSE(seen.FirstTime(top));
  EXPECT_FALSE(seen.FirstTime(top + 1 - SeenWindow::kSpan));
  EXPECT_FALSE(seen.FirstTime(top - SeenWindow::kSpan));
  // A jump beyond the window forgets everything before it, and numbers in the gap still pass
  // once.
  const uint64_t far = top + 10 * SeenWindow::kSpan;
  EXPECT_TRUE(seen.FirstTime(far));
  EXPECT_TRUE(seen.FirstTime(far - 1));
  EXPECT_FALSE(seen.FirstTime(far - 1));
  EXPECT_FALSE(seen.FirstTime(top));
}

}  // namespace
