// korvan: sees and operates the bus from a shell. Every type on the bus can be printed and
// published, compiled into this program or not: descriptions travel with the bus.
//
// Exit status: 0 success, 1 failure at run time (nothing found, time-out, refused), 2 usage.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <CLI/CLI.hpp>

#include "cli.h"

int main(int argc, char** argv) {
  using namespace korvan_cli;
  // The library's own warnings would mix with the tool's output; errors still show.
  // TREVAM_LOG_LEVEL set by the user wins.
  setenv("TREVAM_LOG_LEVEL", "2", 0);
  InstallInterruptHandler();

  CLI::App app{
      "korvan: see and operate the bus from a shell.\n"
      "Every command takes --help. Exit status: 0 success, 1 failure at run time "
      "(nothing found, time-out, refused), 2 usage error."};
  app.name("korvan");
  app.require_subcommand(1);
  app.fallthrough(false);
  int exit_code = kExitOk;
  AddNodeCommands(app, &exit_code);
  AddTopicCommands(app, &exit_code);
  AddWebCommand(app, &exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? kExitOk : kExitUsage;
  } catch (const std::exception& e) {
    PrintError(e.what());
    return kExitFailure;
  }
  std::fflush(stdout);
  return exit_code;
}
