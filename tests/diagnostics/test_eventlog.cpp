// SEventLog: file name components, event lines, size limit, failures.
#include <quenlib/seventlog.h>

#include <thread>

#include "diagnostics_support.h"

using namespace QuenLibA500;

namespace {

std::string s(SAnsiString const& a) { return std::string(a.getString(), a.getLength()); }

SIArray<SAnsiString> list(std::initializer_list<char const*> items) {
  SIArray<SAnsiString> out;
  for (char const* i : items) out.Add(i);
  return out;
}

}  // namespace

TEST(EventLog, OneLinePerEvent) {
  tracetest::ScratchDir dir;
  std::string const file = (dir / "sub/ev.log");
  SEventLog log;
  ASSERT_TRUE(log.openSource("billing", true, file.c_str()));
  EXPECT_TRUE(log.isOpen());
  EXPECT_EQ(s(log.getSourceName()), "billing");
  EXPECT_TRUE(log.reportEvent(SEventLog::EVENTLOG_ERROR_TYPE, 1001, "cannot send %1 to %2", list({"invoice", "bob"})));
  EXPECT_TRUE(log.reportEvent(SEventLog::EVENTLOG_INFORMATION_TYPE, 7, list({"two\nlines", "100%"})));
  EXPECT_TRUE(log.writeStrToLog("raw line"));
  log.closeSource();
  EXPECT_FALSE(log.reportEvent(SEventLog::EVENTLOG_WARNING_TYPE, 1, list({"closed"})));

  std::string const text = tracetest::ReadFile(file);
  auto const first = text.find('\n');
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(text.substr(19, first - 19), " billing Error 1001 cannot send invoice to bob");
  EXPECT_NE(text.find(" billing Information 7 two lines 100%\n"), std::string::npos) << text;
  EXPECT_EQ(text.substr(text.size() - 9), "raw line\n");
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
  EXPECT_EQ(s(SEventLog::formatString("%2%1%3", list({"a", "b"}))), "ba%3");
}

TEST(EventLog, SizeLimitRotates) {
  tracetest::ScratchDir dir;
  SEventLog log(200);
  ASSERT_TRUE(log.openSource("src", true, (dir / "e.log").c_str()));
  for (int i = 0; i < 20; ++i) log.reportEvent(SEventLog::EVENTLOG_WARNING_TYPE, i, list({"a fairly long event text"}));
  log.closeSource();
  EXPECT_LE(std::filesystem::file_size((dir / "e.log")), 200u);
  EXPECT_LE(std::filesystem::file_size((dir / "e.1.log")), 200u);
  EXPECT_NE(tracetest::ReadFile((dir / "e.log")).find("Warning 19 a fairly"), std::string::npos);
}

TEST(EventLog, ConcurrentEventsStayWhole) {
  tracetest::ScratchDir dir;
  SEventLog log;
  ASSERT_TRUE(log.openSource("src", true, (dir / "c.log").c_str()));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 500; ++i) log.reportEvent(SEventLog::EVENTLOG_SUCCESS, t, list({"payload-payload-payload"}));
    });
  for (auto& th : threads) th.join();
  log.closeSource();
  std::string const text = tracetest::ReadFile((dir / "c.log"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2000);
  size_t pos = 0, lines = 0;
  while ((pos = text.find(" src Success ", pos)) != std::string::npos) {
    ++lines;
    ++pos;
  }
  EXPECT_EQ(lines, 2000u);
}
