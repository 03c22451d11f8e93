// Files from several threads and processes at once: unique names never
// collide, and each thread's own SFile works undisturbed by the others.
#include <quenlib/sfile.h>

#include "files_support.h"

#include <set>
#include <thread>

using namespace QuenLibA500;
namespace fs = std::filesystem;

namespace {

using quentest::str;
using FilesConcurrent = quentest::FilesTest;

constexpr int kThreads = 4;
constexpr int kPerThread = 300;

}  // namespace

TEST_F(FilesConcurrent, UniqueNamesNeverCollide) {
  // A child process names files in the same directory meanwhile.
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (int i = 0; i < kPerThread; ++i) SFileSys::getUniqueFilename(dir.c_str(), "u", "tmp");
    _exit(0);
  }
  std::vector<std::vector<std::string>> names(kThreads);
  std::vector<std::thread> threads;
  for (auto& list : names)
    threads.emplace_back([&list, this] {
      for (int i = 0; i < kPerThread; ++i)
        list.push_back(str(SFileSys::getUniqueFilename(dir.c_str(), "u", "tmp")));
    });
  for (auto& t : threads) t.join();
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::set<std::string> all;
  for (auto const& list : names) all.insert(list.begin(), list.end());
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kPerThread));
  auto onDisk = std::distance(fs::directory_iterator(dir), fs::directory_iterator());
  EXPECT_EQ(onDisk, (kThreads + 1) * kPerThread);
}

TEST_F(FilesConcurrent, EachThreadWritesAndReadsItsOwnFile) {
  std::vector<std::string> got(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &got, this] {
      std::string text = "thread " + std::to_string(t) + "\n";
      SAnsiString path = SFileSys::getUniqueFilename(dir.c_str(), "t", "txt");
      SFile out(path, SFile::modeCreate);
      for (int i = 0; i < 100; ++i) out.writeString(text.c_str(), FE_UTF16LE);
      out.close();
      SFile in(path, SFile::modeRead);
      got[static_cast<size_t>(t)] = str(in.readString(FE_Detect));
    });
  for (auto& t : threads) t.join();
  for (int t = 0; t < kThreads; ++t) {
    std::string want;
    for (int i = 0; i < 100; ++i) want += "thread " + std::to_string(t) + "\n";
    EXPECT_EQ(got[static_cast<size_t>(t)], want);
  }
}
