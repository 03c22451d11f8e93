// Framed pipes inside one process: the frame bytes, round trips, time-outs,
// broken frames, a vanished reader and interrupted reads.
#include <quenlib/csipipe.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

using namespace QuenLibA500;

namespace {

int Fd(SAnsiString const& hex) { return static_cast<int>(std::stoul(hex.getString(), nullptr, 16)); }

std::string Str(SAnsiString const& s) { return std::string(s.getString(), s.getLength()); }

// Reads what is waiting on a descriptor (the tests write before reading).
std::string Drain(int fd, size_t n) {
  std::string out(n, '\0');
  size_t got = 0;
  while (got < n) {
    ssize_t r = ::read(fd, out.data() + got, n - got);
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  out.resize(got);
  return out;
}

void WriteRaw(int fd, std::string const& bytes) { ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), (ssize_t)bytes.size()); }

template <class Fn>
CSIPipeException::ErrorCodes CodeOf(Fn fn, std::string* text = nullptr) {
  try {
    fn();
  } catch (CSIPipeException const& e) {
    if (text) *text = e.what();
    return e.ErrCode();
  }
  return static_cast<CSIPipeException::ErrorCodes>(0);
}

}  // namespace

TEST(CSIPipe, FramesOnTheWire) {
  struct Case {
    std::string text;
    std::string header;
  } const cases[] = {{"", "10"},
                     {"hello", "15"},
                     {std::string(16, 'a'), "210"},
                     {std::string(255, 'b'), "2FF"},
                     {std::string(4096, 'c'), "41000"}};
  for (auto const& c : cases) {
    CSIPipeServer pipe(5, true, false);
    pipe.WriteString(SAnsiString(c.text.data(), static_cast<unsigned>(c.text.size())));
    EXPECT_EQ(Drain(Fd(pipe.GetReadPipe()), c.header.size() + c.text.size()), c.header + c.text) << c.header;
  }
}

TEST(CSIPipe, RoundTripsBothWaysBetweenServerAndClient) {
  CSIPipeServer server(10, true, false);
  CSIPipeClient client(server.GetReadPipe(), server.GetWritePipe(), 10, true, false);
  std::string const big(3 * 1024 * 1024 + 7, 'z');
  std::thread writer([&] {
    for (std::string s : {std::string("one"), std::string(), big, std::string("last")})
      server.WriteString(SAnsiString(s.data(), static_cast<unsigned>(s.size())));
  });
  EXPECT_EQ(Str(client.ReadString()), "one");
  EXPECT_EQ(Str(client.ReadString()), "");
  EXPECT_EQ(Str(client.ReadString()), big);
  EXPECT_EQ(Str(client.ReadString()), "last");
  writer.join();
  client.WriteString("back");
  EXPECT_EQ(Str(server.ReadString()), "back");
}

TEST(CSIPipe, TimeOutCoversTheWholeFrame) {
  CSIPipeServer server(1, true, false);
  int const childWrite = Fd(server.GetWritePipe());
  auto const start = std::chrono::steady_clock::now();
  std::string text;
  EXPECT_EQ(CodeOf([&] { server.ReadString(); }, &text), CSIPipeException::timedOut);
  EXPECT_EQ(text.rfind("PipeListener: timed out reading from pipe: ", 0), 0u) << text;
  // A header that arrives and a body that never does still end at the
  // deadline of the frame, not one time-out per read.
  std::thread dribble([&] {
    WriteRaw(childWrite, "15");
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    WriteRaw(childWrite, "he");
  });
  auto const second = std::chrono::steady_clock::now();
  EXPECT_EQ(CodeOf([&] { server.ReadString(); }), CSIPipeException::timedOut);
  auto const took = std::chrono::steady_clock::now() - second;
  dribble.join();
  EXPECT_GE(second - start, std::chrono::milliseconds(900));
  EXPECT_LT(took, std::chrono::milliseconds(1500));
}

TEST(CSIPipe, BrokenFramesAndClosedWritersThrow) {
  struct Case {
    std::string bytes;
    CSIPipeException::ErrorCodes code;
  } const cases[] = {{"Z", CSIPipeException::badFrame},
                     {"8FFFFFFFF", CSIPipeException::badFrame},
                     {"2G0", CSIPipeException::badFrame},
                     {"15he", CSIPipeException::readFailed},
                     {"", CSIPipeException::readFailed}};
  for (auto const& c : cases) {
    CSIPipeServer server(5, true, false);
    WriteRaw(Fd(server.GetWritePipe()), c.bytes);
    server.ClosePipesOnExec();  // the writer is gone after its bytes
    EXPECT_EQ(CodeOf([&] { server.ReadString(); }), c.code) << c.bytes;
  }
}

TEST(CSIPipe, WriteWithoutReaderThrowsInsteadOfSigpipe) {
  CSIPipeServer server(5, true, false);
  server.ClosePipesOnExec();
  std::string text;
  EXPECT_EQ(CodeOf([&] { server.WriteString("anyone?"); }, &text), CSIPipeException::writeFailed);
  EXPECT_EQ(text.rfind("CSIPipe::WriteString(): failed writing to pipe: ", 0), 0u) << text;
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(CSIPipe, ClientHandlesAndLoopback) {
  CSIPipeClient client(5, true, false);
  EXPECT_FALSE(client.SetPipes("12x", "4"));
  EXPECT_FALSE(client.SetPipes("", "4"));
  client.WriteString("to myself");
  EXPECT_EQ(Str(client.ReadString()), "to myself");
  CSIPipeClient copy = client;
  copy.WriteString("shared");
  EXPECT_EQ(Str(client.ReadString()), "shared");
}

namespace {
void OnSignal(int) {}
}  // namespace

TEST(CSIPipe, ThrowEintrDecidesWhatASignalDoes) {
  struct sigaction sa {};
  sa.sa_handler = OnSignal;  // no SA_RESTART: poll returns EINTR
  struct sigaction old {};
  sigaction(SIGUSR1, &sa, &old);
  for (bool throwEintr : {true, false}) {
    CSIPipeServer server(5, true, throwEintr);
    int const childWrite = Fd(server.GetWritePipe());
    pthread_t const reader = pthread_self();
    std::thread poke([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      pthread_kill(reader, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      WriteRaw(childWrite, "12ok");
    });
    if (throwEintr) {
      EXPECT_EQ(CodeOf([&] { server.ReadString(); }), CSIPipeException::interrupted);
    } else {
      EXPECT_EQ(Str(server.ReadString()), "ok");
    }
    poke.join();
  }
  sigaction(SIGUSR1, &old, nullptr);
}
