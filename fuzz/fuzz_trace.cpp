// Fuzzes the text parsers of tracing: command-line splitting and quoting
// (the words must survive a round trip), the tracing options with the
// trace grammar and the file/line filter (dry run), and trace formats.
#include <quenlib/paramlineargs.h>
#include <quenlib/slogger.h>
#include <quenlib/strace.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  std::string const line = text.substr(0, text.find('\0'));

  QuenLibA500::CParamLineArgs const args(line.c_str());
  QuenLibA500::CParamLineArgs const again(args.CmdLine().c_str());
  if (again.Words() != args.Words()) __builtin_trap();

  (void)QuenLibA500::SLogger::DescribeState(args, false);

  QuenLibA500::STraceParameter const params[] = {"text", -42, 3.5, 0xFFu};
  (void)QuenLibA500::STraceHelper::Format(line.c_str(), params, 4);
  return 0;
}
