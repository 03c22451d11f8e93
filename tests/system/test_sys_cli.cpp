// quen sys info, quen zip/unzip and quen env expand end to end.
#include <cstdio>
#include <string>

#include "text/text_support.h"

namespace {

struct Outcome {
  int status;
  std::string out;
};

class QuenSys : public quentest::QuenTest {
 protected:
  // Runs a shell command line with $Q set to quen, in a scratch directory:
  // stdout and stderr.
  Outcome run(std::string const& line) const {
    std::string const cmd = "cd " + dir.path + " && Q=" + quentest::QuenPath() +
                            " timeout 60 sh -c '" + line + "' 2>&1";
    Outcome r{-1, {}};
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
    int const st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
  }
  quentest::TempDir dir;
};

}  // namespace

TEST_F(QuenSys, InfoListsEveryFactAndJsonParses) {
  Outcome const text = run("$Q sys info");
  ASSERT_EQ(text.status, 0) << text.out;
  for (char const* name : {"host: ", "fqdn: ", "os: ", "os_version: ", "kernel: ", "cpus: ", "memory_bytes: ",
                           "page_size: ", "pid: ", "uptime_seconds: ", "quenlib: 5.0.0"})
    EXPECT_NE(("\n" + text.out).find(std::string("\n") + name), std::string::npos) << name << "\n" << text.out;
  Outcome const json = run(
      "$Q sys info --json | python3 -c \"import json,sys; d=json.load(sys.stdin); "
      "assert d[\\\"cpus\\\"] >= 1 and d[\\\"page_size\\\"] > 0 and d[\\\"quenlib\\\"] == \\\"5.0.0\\\"; print(len(d))\"");
  EXPECT_EQ(json.status, 0) << json.out;
  EXPECT_EQ(json.out, "11\n");
}

TEST_F(QuenSys, ZipWritesWhatGzipReadsAndUnzipRefusesDamage) {
  Outcome const r = run(
      "seq 1 20000 > plain && $Q zip --gzip plain plain.gz && gzip -dc plain.gz | cmp - plain && "
      "$Q zip --level 9 plain plain.z && $Q unzip plain.z back && cmp back plain && "
      "gzip -c plain > theirs.gz && $Q unzip theirs.gz back2 && cmp back2 plain && echo same");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "same\n");
  Outcome const cut = run("head -c 100 plain.gz > cut.gz; $Q unzip cut.gz out; echo \"rc=$?\"; test -e out || echo gone");
  EXPECT_NE(cut.out.find("truncated input"), std::string::npos) << cut.out;
  EXPECT_NE(cut.out.find("rc=1\ngone\n"), std::string::npos) << cut.out;
  Outcome const bomb = run("$Q unzip --limit 1000 plain.gz big; echo \"rc=$?\"");
  EXPECT_NE(bomb.out.find("output too large"), std::string::npos) << bomb.out;
  EXPECT_NE(bomb.out.find("rc=1"), std::string::npos) << bomb.out;
}

TEST_F(QuenSys, EnvExpandsSetNamesAndKeepsOthers) {
  Outcome const r = run("QL_A=one $Q env expand \"%QL_A%/%QL_UNSET%/100%\"");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "one/%QL_UNSET%/100%\n");
}
