// Values read are kept per process: a write by another process must be seen
// by the very next read, and a writer killed in the middle of a write must
// leave every reader with what the store file really holds.

#include "config_support.h"
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>

#include <chrono>
#include <thread>

using namespace QuenLibA500;

namespace {

class RegStoreCache : public quentest::StoreTest {
 protected:
  // The value as the store file holds it, read with SQLite directly.
  std::string fileValue(char const* name) const {
    sqlite3* db = nullptr;
    std::string out = "<absent>";
    if (sqlite3_open_v2((dir + "/machine.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_stmt* st = nullptr;
      if (sqlite3_prepare_v2(db, "SELECT data FROM vals WHERE name_fold = lower(?1)", -1, &st, nullptr) ==
          SQLITE_OK) {
        sqlite3_bind_text(st, 1, name, -1, SQLITE_STATIC);
        if (sqlite3_step(st) == SQLITE_ROW)
          out.assign(static_cast<char const*>(sqlite3_column_blob(st, 0)),
                     static_cast<size_t>(sqlite3_column_bytes(st, 0)));
      }
      sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return out;
  }
  static std::string read(char const* name) { return rawGet(HKEY_LOCAL_MACHINE, "Software\\Cache", name); }
  static void write(char const* name, std::string const& v) {
    rawSet(HKEY_LOCAL_MACHINE, "Software\\Cache", name, REG_SZ, v + '\0');
  }
};

// Waits for the child with a deadline; kills it when the deadline passes.
int reap(pid_t pid) {
  int status = 0;
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return status;
}

std::string roundValue(int round) { return "round " + std::to_string(round); }

// One writer process, forked once (a fork empties the parent's kept values,
// so the parent must keep values across the other process's writes): each
// byte on the pipe is a round; round % 4 == 3 deletes the value.
TEST_F(RegStoreCache, WriteByAnotherProcessSeenByTheNextRead) {
  write("v", "start");
  int toChild[2], fromChild[2];
  ASSERT_EQ(pipe(toChild), 0);
  ASSERT_EQ(pipe(fromChild), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    close(toChild[1]);
    close(fromChild[0]);
    HKEY k = nullptr;
    RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Cache", 0, KEY_ALL_ACCESS, &k);
    unsigned char round = 0;
    while (::read(toChild[0], &round, 1) == 1) {
      std::string const v = roundValue(round);
      LONG rc = round % 4 == 3 ? RegDeleteValueA(k, "v")
                               : RegSetValueExA(k, "v", 0, REG_SZ, reinterpret_cast<BYTE const*>(v.c_str()),
                                                static_cast<DWORD>(v.size() + 1));
      char ack = rc == ERROR_SUCCESS ? 'y' : 'n';
      if (::write(fromChild[1], &ack, 1) != 1) _exit(2);
    }
    _exit(0);
  }
  close(toChild[0]);
  close(fromChild[1]);
  for (unsigned char round = 0; round < 12; ++round) {
    ASSERT_EQ(read("v"), read("v"));  // the second read comes from the kept value
    ASSERT_EQ(::write(toChild[1], &round, 1), 1);
    char ack = 0;
    ASSERT_EQ(::read(fromChild[0], &ack, 1), 1);
    ASSERT_EQ(ack, 'y');
    EXPECT_EQ(read("v"), round % 4 == 3 ? std::string("<absent>") : roundValue(round) + '\0') << int{round};
    if (round % 4 == 3) write("v", "back");
  }
  close(toChild[1]);
  close(fromChild[0]);
  int const status = reap(pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(RegStoreCache, WriterKilledMidWriteLeavesReadersCorrect) {
  write("k", "seed");
  for (int run = 0; run < 8; ++run) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      HKEY k = nullptr;
      RegOpenKeyExA(HKEY_LOCAL_MACHINE, "Software\\Cache", 0, KEY_ALL_ACCESS, &k);
      std::string v(300, 'x');
      for (int i = 0;; ++i) {
        v[0] = static_cast<char>('a' + i % 26);
        RegSetValueExA(k, "k", 0, REG_SZ, reinterpret_cast<BYTE const*>(v.c_str()), static_cast<DWORD>(v.size() + 1));
      }
    }
    // Read (and keep) while the child writes, then kill it at a varying point.
    auto const until = std::chrono::steady_clock::now() + std::chrono::microseconds(3000 + run * 1700);
    while (std::chrono::steady_clock::now() < until) (void)read("k");
    kill(pid, SIGKILL);
    int const status = reap(pid);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(read("k"), fileValue("k")) << "run " << run;
    EXPECT_EQ(read("k"), fileValue("k")) << "run " << run << ", second read";
    write("k", "after " + std::to_string(run));
    EXPECT_EQ(read("k"), "after " + std::to_string(run) + '\0');
  }
}

}  // namespace
