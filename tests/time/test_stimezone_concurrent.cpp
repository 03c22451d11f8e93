// The process-wide zones are built once even when many threads ask at once,
// and are then read by all of them without a lock.
#include <quenlib/sdatetime.h>
#include <quenlib/stimezone.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace QuenLibA500;

TEST(STimeZoneConcurrent, OneInstanceSharedByAllThreads) {
  constexpr int kThreads = 8;
  std::vector<STimeZone const*> local(kThreads), utc(kThreads);
  std::atomic<int> ready{0};
  STimeZone const shared("EST,300 EDT");  // its year cache is rewritten by every thread
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) {
      }
      local[i] = &STimeZone::TZ_Local();
      utc[i] = &STimeZone::TZ_UTC();
      STimeZone const own("EST,300 EDT");
      // 37 hours apart, so consecutive instants often fall in different
      // years; threads start at different offsets so their years interleave.
      for (int h = 0; h < 24 * 366; ++h) {
        int64_t hours = int64_t(h) * 37 + i * 24 * 91;
        SDateTime t = SDateTime::FromUnixMilliseconds(946684800000 + hours * 3600000);
        int32_t offset = shared.UTCOffsetMinutes(t);
        EXPECT_EQ(offset, own.UTCOffsetMinutes(t));
        if (h % 500 == 0) {
          EXPECT_EQ(t.Format("yyyy-MM-dd HH:mm:ss", *local[i]).getLength(), 19u);
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 1; i < kThreads; ++i) {
    EXPECT_EQ(local[i], local[0]);
    EXPECT_EQ(utc[i], utc[0]);
  }
  EXPECT_NE(local[0], nullptr);
}
