// System information against what the kernel's files say; version texts.
#include <quenlib/ssysteminfo.h>
#include <quenlib/version.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

using namespace QuenLibA500;

namespace {

std::string FirstLine(char const* path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

uint64_t MemTotalBytes() {
  std::ifstream in("/proc/meminfo");
  std::string key;
  uint64_t kib = 0;
  while (in >> key >> kib) {
    if (key == "MemTotal:") return kib * 1024;
    in.ignore(100, '\n');
  }
  return 0;
}

}  // namespace

TEST(SSystemInfo, AgreesWithTheKernel) {
  EXPECT_STREQ(SSystemInfo::getHostName().getString(), FirstLine("/proc/sys/kernel/hostname").c_str());
  std::string const fqdn = SSystemInfo::getFullyQualifiedHostName().getString();
  EXPECT_EQ(fqdn.rfind(SSystemInfo::getHostName().getString(), 0), 0u) << fqdn;
  EXPECT_GE(SSystemInfo::getCpuCount(), 1u);
  EXPECT_LE(SSystemInfo::getCpuCount(), std::thread::hardware_concurrency());
  uint64_t const mem = MemTotalBytes();
  // MemTotal leaves out what the kernel reserves at boot: within 10 %.
  EXPECT_GE(SSystemInfo::getPhysicalMemory(), mem);
  EXPECT_LE(SSystemInfo::getPhysicalMemory(), mem + mem / 10);
  EXPECT_EQ(SSystemInfo::getPageSize(), static_cast<uint32_t>(::getpagesize()));
  EXPECT_EQ(SSystemInfo::getProcessId(), static_cast<uint32_t>(::getpid()));
  double uptime = 0;
  ASSERT_EQ(std::sscanf(FirstLine("/proc/uptime").c_str(), "%lf", &uptime), 1);
  EXPECT_NEAR(static_cast<double>(SSystemInfo::getUptimeSeconds()), uptime, 2.0);
  EXPECT_STREQ(SSystemInfo::getKernelRelease().getString(), FirstLine("/proc/sys/kernel/osrelease").c_str());
  std::ifstream osRelease("/etc/os-release");
  std::string line, pretty;
  while (std::getline(osRelease, line))
    if (line.rfind("PRETTY_NAME=", 0) == 0) pretty = line.substr(12);
  if (!pretty.empty() && pretty.front() == '"') pretty = pretty.substr(1, pretty.size() - 2);
  if (!pretty.empty()) {
    EXPECT_STREQ(SSystemInfo::getOsName().getString(), pretty.c_str());
  }
  EXPECT_FALSE(SSystemInfo::getOsVersion().isEmpty());
}

TEST(Version, DottedTextsCompareByNumberThenTail) {
  struct Case {
    char const* a;
    char const* b;
    int sign;
  } const cases[] = {
      {"5.0.0", "5.0.0", 0},  {"5.0", "5.0.0", 0},     {"1.10", "1.9", 1},
      {"2.0", "10.0", -1},    {"007.1", "7.1", 0},     {"2.0rc1", "2.0", -1},
      {"2.0rc2", "2.0rc10", 1}, {"1.2.3.4", "1.2.3", 1}, {" 3.1 ", "3.1", 0},
      {"", "0", 0},           {nullptr, "0.1", -1},    {"99999999999999999999.1", "9.1", 1},
  };
  for (auto const& c : cases) {
    int const r = CompareVersions(c.a, c.b);
    EXPECT_EQ((r > 0) - (r < 0), c.sign) << (c.a ? c.a : "null") << " vs " << c.b;
    int const back = CompareVersions(c.b, c.a);
    EXPECT_EQ((back > 0) - (back < 0), -c.sign) << c.b << " vs " << (c.a ? c.a : "null");
  }
  EXPECT_EQ(CompareVersions(LibraryVersion(), "5.0.0"), 0);
}
