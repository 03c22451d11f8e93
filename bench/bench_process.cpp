// Pipes and processes against the plain system calls: frames of 64 bytes
// and 64 KiB from one thread to another through a pipe pair, and starting
// and reaping /bin/true.
#include <quenlib/csipipe.h>
#include <quenlib/csiprocess.h>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

using namespace QuenLibA500;

extern char** environ;

namespace {

constexpr int kFramesPerRound = 256;

// Ours: the server writes frames, a client on the other thread reads them.
void BM_Frames_CSIPipe(benchmark::State& state) {
  std::string const body(static_cast<size_t>(state.range(0)), 'f');
  SAnsiString const frame(body.data(), static_cast<unsigned>(body.size()));
  for (auto _ : state) {
    CSIPipeServer server(10, true, false);
    CSIPipeClient client(server.GetReadPipe(), server.GetWritePipe(), 10, true, false);
    std::thread reader([&] {
      for (int i = 0; i < kFramesPerRound; ++i) benchmark::DoNotOptimize(client.ReadString());
    });
    for (int i = 0; i < kFramesPerRound; ++i) server.WriteString(frame);
    reader.join();
  }
  state.SetBytesProcessed(state.iterations() * kFramesPerRound * state.range(0));
}
BENCHMARK(BM_Frames_CSIPipe)->Arg(64)->Arg(64 * 1024)->UseRealTime();

bool ReadFully(int fd, char* p, size_t n) {
  while (n > 0) {
    ssize_t r = ::read(fd, p, n);
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

// Peer: the same frame bytes with one write, read back by their known size
// into a fresh string each, as a caller of plain read would.
void BM_Frames_PlainWriteRead(benchmark::State& state) {
  auto const n = static_cast<size_t>(state.range(0));
  std::string const wire = (n == 64 ? std::string("240") : std::string("510000")) + std::string(n, 'f');
  size_t const header = wire.size() - n;
  for (auto _ : state) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    std::thread reader([&] {
      std::string head(header, '\0');
      for (int i = 0; i < kFramesPerRound; ++i) {
        std::string bodyIn(n, '\0');
        if (!ReadFully(fds[0], head.data(), header) || !ReadFully(fds[0], bodyIn.data(), n)) std::abort();
        benchmark::DoNotOptimize(bodyIn);
      }
    });
    for (int i = 0; i < kFramesPerRound; ++i) {
      size_t off = 0;
      while (off < wire.size()) off += static_cast<size_t>(::write(fds[1], wire.data() + off, wire.size() - off));
    }
    reader.join();
    ::close(fds[0]);
    ::close(fds[1]);
  }
  state.SetBytesProcessed(state.iterations() * kFramesPerRound * state.range(0));
}
BENCHMARK(BM_Frames_PlainWriteRead)->Arg(64)->Arg(64 * 1024)->UseRealTime();

void BM_StartAndReap_CSIProcess(benchmark::State& state) {
  SIArray<SAnsiString> none;
  for (auto _ : state) {
    CSIProcess::Child child;
    if (!CSIProcess::NewProcessAsyncEx("/bin/true", none, child, true, nullptr)) std::abort();
    if (child.waitfor() != 0) std::abort();
  }
}
BENCHMARK(BM_StartAndReap_CSIProcess)->UseRealTime();

void BM_StartAndReap_PosixSpawn(benchmark::State& state) {
  char arg0[] = "/bin/true";
  char* argv[] = {arg0, nullptr};
  for (auto _ : state) {
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) std::abort();
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (status != 0) std::abort();
  }
}
BENCHMARK(BM_StartAndReap_PosixSpawn)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
