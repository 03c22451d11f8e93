// command.h: how quen's subcommands register themselves.
//
// Each cmd_*.cpp defines a setup function that adds its subcommand to the
// application and a static QuenCommand that registers it:
//
//   static void setupHello(CLI::App& app) {
//     auto* cmd = app.add_subcommand("hello", "Say hello");
//     cmd->callback([] { std::puts("hello"); });
//   }
//   static QuenCommand hello{"hello", &setupHello};
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

struct QuenCommand {
  using Setup = void (*)(CLI::App&);
  QuenCommand(char const* name, Setup setup);

  char const* name;
  Setup setup;

  // Every registered command, in the order of their names.
  static std::vector<QuenCommand const*> all();
};

// Thrown by a subcommand to end quen with a message and an exit code.
struct QuenExit {
  int code;
  std::string message;
};
