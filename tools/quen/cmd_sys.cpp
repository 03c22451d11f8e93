// quen sys info: the machine and process facts the library reports.
#include <quenlib/ssysteminfo.h>
#include <quenlib/version.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "command.h"

using namespace QuenLibA500;

namespace {

char const kUsage[] = R"(
Prints one "name: value" line per fact; --json prints one JSON object with
the same names (numbers as numbers).

Examples:
  quen sys info
  quen sys info --json | jq .cpus
)";

struct Fact {
  std::string name;
  std::string value;
  bool number;
};

std::vector<Fact> Facts() {
  return {
      {"host", SSystemInfo::getHostName().getString(), false},
      {"fqdn", SSystemInfo::getFullyQualifiedHostName().getString(), false},
      {"os", SSystemInfo::getOsName().getString(), false},
      {"os_version", SSystemInfo::getOsVersion().getString(), false},
      {"kernel", SSystemInfo::getKernelRelease().getString(), false},
      {"cpus", std::to_string(SSystemInfo::getCpuCount()), true},
      {"memory_bytes", std::to_string(SSystemInfo::getPhysicalMemory()), true},
      {"page_size", std::to_string(SSystemInfo::getPageSize()), true},
      {"pid", std::to_string(SSystemInfo::getProcessId()), true},
      {"uptime_seconds", std::to_string(SSystemInfo::getUptimeSeconds()), true},
      {"quenlib", LibraryVersion(), false},
  };
}

std::string JsonString(std::string const& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c < 0x20) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out + "\"";
}

void PrintJson(std::vector<Fact> const& facts) {
  std::string out = "{";
  for (size_t i = 0; i < facts.size(); ++i) {
    if (i > 0) out += ", ";
    out += JsonString(facts[i].name) + ": " + (facts[i].number ? facts[i].value : JsonString(facts[i].value));
  }
  std::puts((out + "}").c_str());
}

void setupSys(CLI::App& app) {
  auto* sys = app.add_subcommand("sys", "Facts about the machine and the process");
  sys->require_subcommand(1);
  auto* info = sys->add_subcommand("info", "Host, CPUs, memory, operating system, process");
  auto json = std::make_shared<bool>(false);
  info->add_flag("--json", *json, "one JSON object instead of name: value lines");
  info->footer(kUsage);
  info->callback([json] {
    std::vector<Fact> const facts = Facts();
    if (*json) {
      PrintJson(facts);
      return;
    }
    for (auto const& f : facts) std::printf("%s: %s\n", f.name.c_str(), f.value.c_str());
  });
}

}  // namespace

static QuenCommand sysCommand{"sys", &setupSys};
