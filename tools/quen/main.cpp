// quen: exposes the library to operators, one subcommand per capability.
#include <quenlib/quenlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "command.h"

namespace {
std::vector<QuenCommand const*>& registry() {
  static std::vector<QuenCommand const*> r;
  return r;
}
}  // namespace

QuenCommand::QuenCommand(char const* n, Setup s) : name(n), setup(s) { registry().push_back(this); }

std::vector<QuenCommand const*> QuenCommand::all() {
  auto r = registry();
  std::sort(r.begin(), r.end(),
            [](QuenCommand const* a, QuenCommand const* b) { return std::strcmp(a->name, b->name) < 0; });
  return r;
}

int main(int argc, char** argv) {
  CLI::App app{"quen: the quenlib operators' tool.\n"
               "Inspects and exercises the library as a server built on it would."};
  app.set_version_flag("--version", std::string("quen ") + QuenLibA500::LibraryVersion());
  app.require_subcommand(0, 1);
  for (QuenCommand const* c : QuenCommand::all()) c->setup(app);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    return app.exit(e);
  } catch (QuenExit const& e) {
    if (!e.message.empty()) std::fprintf(stderr, "quen: %s\n", e.message.c_str());
    return e.code;
  }
  if (app.get_subcommands().empty()) std::fputs(app.help().c_str(), stdout);
  return 0;
}
