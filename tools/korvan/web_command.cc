// korvan web: the live view of the bus in a browser, and the Foxglove WebSocket bridge for the
// field's viewers, on one port.
#include <cstdio>

#include "cli.h"
#include "korvan/tools/bus_web_source.h"
#include "korvan/web/server.h"
#include "korvan/web/static_files.h"

namespace korvan_cli {
namespace {

struct WebOptions {
  int port = 8765;
  std::string bind = "127.0.0.1";
  bool quiet = false;
};

int Web(const WebOptions& options) {
  Session& session = Session::Get();
  if (!session.Start())
    return kExitFailure;

  tarvik::korvan::tools::BusWebSource source(session.node(), session.catalog());
  tarvik::korvan::web::ServerOptions server_options;
  server_options.bind_address = options.bind;
  server_options.port = static_cast<uint16_t>(options.port);
  server_options.static_dir = tarvik::korvan::web::FindPageDir();
  server_options.log = [](const std::string& line) { PrintError(line); };
  tarvik::korvan::web::Server server(source, server_options);
  std::string error;
  if (!server.Start(&error)) {
    PrintError(error);  // names the address
    return kExitFailure;
  }
  const std::string address =
      options.bind.find(':') != std::string::npos ? "[" + options.bind + "]" : options.bind;
  const std::string where = address + ":" + std::to_string(server.port());
  std::printf("korvan web: listening on port %u\n", static_cast<unsigned>(server.port()));
  std::printf("  page:     http://%s/\n", where.c_str());
  std::printf("  Foxglove: ws://%s (Foxglove WebSocket, \"Open connection\" in the viewer)\n",
              where.c_str());
  if (server_options.static_dir.empty())
    std::printf("  (the page is not built: only the WebSocket protocols are served)\n");
  std::printf("Ctrl-C stops.\n");
  std::fflush(stdout);

  while (SleepUnlessInterrupted(std::chrono::seconds(1))) {
  }
  const auto clients = server.Clients();
  server.Stop();  // before the source goes
  if (!options.quiet) {
    for (const auto& client : clients) {
      std::fprintf(stderr, "client %s (%s): %llu sent, %llu dropped\n", client.remote.c_str(),
                   client.protocol.c_str(), static_cast<unsigned long long>(client.sent),
                   static_cast<unsigned long long>(client.dropped));
    }
  }
  return kExitOk;
}

}  // namespace

void AddWebCommand(CLI::App& app, int* exit_code) {
  static WebOptions options;
  CLI::App* web = app.add_subcommand(
      "web",
      "Serves a live view of the bus to browsers (http://HOST:PORT/) and the Foxglove WebSocket "
      "protocol to the field's viewers (ws://HOST:PORT), on one port, until Ctrl-C");
  web->add_option("--port", options.port, "TCP port (0 picks a free one)")
      ->capture_default_str()
      ->check(CLI::Range(0, 65535));
  web->add_option("--bind", options.bind,
                  "Address to listen on; 0.0.0.0 serves other hosts too (there is no "
                  "authentication: anyone who reaches the port can set parameters and call "
                  "services)")
      ->capture_default_str();
  web->add_flag("-q,--quiet", options.quiet, "Do not list the clients when stopping");
  web->callback([=] { *exit_code = Web(options); });
}

}  // namespace korvan_cli
