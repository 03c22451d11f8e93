// Reader-writer lock and semaphore against the standard library's peers in
// one binary; timer lateness as counters.
#include <quenlib/rwlock.h>
#include <quenlib/ssemaphore.h>
#include <quenlib/stimer.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <semaphore>
#include <shared_mutex>
#include <thread>

using namespace QuenLibA500;

namespace {

// Read-mostly work: one write in 64 operations, a short read otherwise.
struct Table {
  long values[8] = {};
};

template <class Lock, class ReadGuard, class WriteGuard>
void ReadMostly(benchmark::State& state, Lock& lock, Table& table) {
  long sum = 0;
  unsigned i = static_cast<unsigned>(state.thread_index()) * 7;
  for (auto _ : state) {
    if (++i % 64 == 0) {
      WriteGuard w(lock);
      ++table.values[i % 8];
    } else {
      ReadGuard r(lock);
      sum += table.values[i % 8];
    }
  }
  benchmark::DoNotOptimize(sum);
}

SRWLock g_ours;
Table g_oursTable;
std::shared_mutex g_std;
Table g_stdTable;

void BM_ReadMostly_SRWLock(benchmark::State& state) {
  ReadMostly<SRWLock, SRWReadLocker, SRWWriteLocker>(state, g_ours, g_oursTable);
}
void BM_ReadMostly_StdSharedMutex(benchmark::State& state) {
  ReadMostly<std::shared_mutex, std::shared_lock<std::shared_mutex>,
             std::unique_lock<std::shared_mutex>>(state, g_std, g_stdTable);
}
BENCHMARK(BM_ReadMostly_SRWLock)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_ReadMostly_StdSharedMutex)->Threads(1)->Threads(2)->UseRealTime();

// One round trip per iteration: release the partner, wait for its answer.
template <class Sem, class Release, class Acquire>
void PingPong(benchmark::State& state, Release release, Acquire acquire) {
  Sem ping(0, 1), pong(0, 1);
  std::atomic<bool> stop{false};
  std::thread partner([&] {
    for (;;) {
      acquire(ping);
      if (stop.load()) return;
      release(pong);
    }
  });
  for (auto _ : state) {
    release(ping);
    acquire(pong);
  }
  stop = true;
  release(ping);
  partner.join();
}

struct StdSem : std::counting_semaphore<1> {
  StdSem(int initial, int) : std::counting_semaphore<1>(initial) {}
};

void BM_PingPong_SSemaphore(benchmark::State& state) {
  PingPong<SSemaphore>(state, [](SSemaphore& s) { s.release(); },
                       [](SSemaphore& s) { s.wait(); });
}
void BM_PingPong_StdCountingSemaphore(benchmark::State& state) {
  PingPong<StdSem>(state, [](StdSem& s) { s.release(); }, [](StdSem& s) { s.acquire(); });
}
BENCHMARK(BM_PingPong_SSemaphore)->UseRealTime();
BENCHMARK(BM_PingPong_StdCountingSemaphore)->UseRealTime();

// How late a 2 ms one-shot timer calls: mean and worst, in microseconds.
void BM_TimerLateness(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  STimer timer;
  SSemaphore fired(0, 1);
  double total = 0, worst = 0;
  for (auto _ : state) {
    Clock::time_point const due = Clock::now() + std::chrono::milliseconds(2);
    Clock::time_point at;
    timer.startOnce(2, [&] {
      at = Clock::now();
      fired.release();
    });
    fired.wait();
    double const late = std::chrono::duration<double, std::micro>(at - due).count();
    total += late;
    worst = std::max(worst, late);
  }
  state.counters["late_mean_us"] = total / static_cast<double>(state.iterations());
  state.counters["late_max_us"] = worst;
}
BENCHMARK(BM_TimerLateness)->Iterations(500)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
