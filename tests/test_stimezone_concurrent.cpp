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
  std::vector<int64_t> sums(kThreads);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) {
      }
      local[i] = &STimeZone::TZ_Local();
      utc[i] = &STimeZone::TZ_UTC();
      STimeZone ny("EST,300 EDT");
      int64_t sum = 0;
      for (int h = 0; h < 24 * 366; ++h) {
        SDateTime t = SDateTime::FromUnixMilliseconds(1704067200000 + int64_t(h) * 3600000);
        sum += ny.UTCOffsetMinutes(t) + local[i]->UTCOffsetMinutes(t) + t.GetHour(*utc[i]);
        if (h % 500 == 0) sum += t.Format("yyyy-MM-dd HH:mm:ss", *local[i]).getLength();
      }
      sums[i] = sum;
    });
  }
  for (auto& t : threads) t.join();
  for (int i = 1; i < kThreads; ++i) {
    EXPECT_EQ(local[i], local[0]);
    EXPECT_EQ(utc[i], utc[0]);
    EXPECT_EQ(sums[i], sums[0]);
  }
  EXPECT_NE(local[0], nullptr);
}
