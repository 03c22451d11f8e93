// ssysteminfo.cpp: host, CPUs, memory, operating system, process.
#include <quenlib/ssysteminfo.h>

#include <netdb.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

namespace QuenLibA500 {

namespace {

SAnsiString Ansi(std::string const& s) { return SAnsiString(s.c_str(), static_cast<unsigned>(s.size())); }

// KEY=value lines of os-release; values may be quoted.
std::map<std::string, std::string> ReadOsRelease() {
  std::map<std::string, std::string> fields;
  std::ifstream in("/etc/os-release");
  if (!in) in.open("/usr/lib/os-release");
  std::string line;
  while (std::getline(in, line)) {
    size_t const eq = line.find('=');
    if (eq == std::string::npos || line[0] == '#') continue;
    std::string value = line.substr(eq + 1);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
      value = value.substr(1, value.size() - 2);
    fields[line.substr(0, eq)] = value;
  }
  return fields;
}

std::string Lookup(std::map<std::string, std::string> const& fields, char const* key) {
  auto const it = fields.find(key);
  return it == fields.end() ? std::string() : it->second;
}

utsname Uname() {
  utsname u{};
  ::uname(&u);
  return u;
}

}  // namespace

SAnsiString SSystemInfo::getHostName() {
  char name[256] = {};
  if (::gethostname(name, sizeof name - 1) != 0) return SAnsiString();
  return SAnsiString(name);
}

SAnsiString SSystemInfo::getFullyQualifiedHostName() {
  SAnsiString const host = getHostName();
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_flags = AI_CANONNAME;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.getString(), nullptr, &hints, &found) != 0) return host;
  SAnsiString const canonical =
      found->ai_canonname != nullptr && *found->ai_canonname != '\0' ? SAnsiString(found->ai_canonname) : host;
  ::freeaddrinfo(found);
  return canonical;
}

uint32_t SSystemInfo::getCpuCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (::sched_getaffinity(0, sizeof set, &set) == 0) return static_cast<uint32_t>(CPU_COUNT(&set));
  long const online = ::sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<uint32_t>(online) : 1;
}

uint64_t SSystemInfo::getPhysicalMemory() {
  long const pages = ::sysconf(_SC_PHYS_PAGES);
  long const size = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || size <= 0) return 0;
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(size);
}

SAnsiString SSystemInfo::getOsName() {
  auto const fields = ReadOsRelease();
  std::string name = Lookup(fields, "PRETTY_NAME");
  if (name.empty()) name = Lookup(fields, "NAME");
  if (name.empty()) name = Uname().sysname;
  return Ansi(name);
}

SAnsiString SSystemInfo::getOsVersion() {
  std::string version = Lookup(ReadOsRelease(), "VERSION_ID");
  if (version.empty()) version = Uname().release;
  return Ansi(version);
}

SAnsiString SSystemInfo::getKernelRelease() { return SAnsiString(Uname().release); }

uint32_t SSystemInfo::getPageSize() { return static_cast<uint32_t>(::sysconf(_SC_PAGESIZE)); }

uint32_t SSystemInfo::getProcessId() { return static_cast<uint32_t>(::getpid()); }

uint64_t SSystemInfo::getUptimeSeconds() {
  struct sysinfo info {};
  if (::sysinfo(&info) != 0) return 0;
  return static_cast<uint64_t>(info.uptime);
}

}  // namespace QuenLibA500
