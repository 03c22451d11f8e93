// ssysteminfo.h: facts about the machine and this process.
//
// `SSystemInfo` answers from the kernel and the system's own files: the
// host name (`gethostname`) and its fully qualified form (the canonical name
// the resolver gives for it, or the plain name when it knows none), the
// CPUs this process may run on, physical memory, the operating system's
// name and version (PRETTY_NAME/NAME and VERSION_ID of /etc/os-release,
// else `uname`), the kernel release (`uname -r`), the page size, the
// process id and the seconds since boot:
//
//   using QuenLibA500::SSystemInfo;
//   std::printf("%s has %u CPUs and %llu MiB\n",
//               SSystemInfo::getHostName().getString(), SSystemInfo::getCpuCount(),
//               (unsigned long long)(SSystemInfo::getPhysicalMemory() >> 20));
//
// Nothing here fails: a value the system does not give is empty or 0.
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/sstring.h>

#include <cstdint>

namespace QuenLibA500 {

class QUENLIB_API SSystemInfo {
 public:
  SSystemInfo() = delete;

  static SAnsiString getHostName();
  static SAnsiString getFullyQualifiedHostName();
  // CPUs in this process's affinity mask (what a thread pool should use).
  static uint32_t getCpuCount();
  // Bytes of physical memory installed.
  static uint64_t getPhysicalMemory();
  // "Debian GNU/Linux 12 (bookworm)"; `uname -s` when os-release is missing.
  static SAnsiString getOsName();
  // "12" (VERSION_ID); the kernel release when os-release has none.
  static SAnsiString getOsVersion();
  // The kernel release, "6.1.0-18-amd64".
  static SAnsiString getKernelRelease();
  static uint32_t getPageSize();
  static uint32_t getProcessId();
  // Seconds since the machine booted.
  static uint64_t getUptimeSeconds();
};

}  // namespace QuenLibA500
