// Server: the web side of `korvan web`. One TCP port serves
//   - plain HTTP GET: the built page (files from ServerOptions::static_dir),
//   - WebSocket "foxglove.websocket.v1": the Foxglove protocol, so that the field's viewers can
//     list topics, subscribe and call services,
//   - WebSocket "korvan.web.v1": the page's live channel (see page_protocol.h).
// A WebSocket that offers neither subprotocol is refused at the handshake.
//
// Threads: one io thread owns every connection and all protocol state; a few worker threads
// run the BusSource calls that may block (service calls, parameters, decoding). Messages from
// the bus are framed once on the delivering thread and put on each subscribed client's bounded
// queue; a full queue drops the message for that client only and counts it, so a slow client
// never holds up the bus or the other clients.
//
// Ownership: the server borrows the BusSource, which must outlive it (until Stop returns).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "korvan/web/bus_source.h"

namespace tarvik::korvan::web {

struct ServerOptions {
  std::string bind_address = "127.0.0.1";
  uint16_t port = 8765;    // 0 picks a free port; see Server::port()
  std::string static_dir;  // the built page; empty serves a note that it is missing
  std::string name = "korvan";

  // Incoming WebSocket messages larger than this close the connection (status 1009).
  size_t max_message_bytes = 1 << 20;
  // Per client: messages from the bus waiting to be written, at most this many and this much.
  size_t client_queue_messages = 1024;
  size_t client_queue_bytes = 32 << 20;
  // Per client: bytes handed to the socket layer but not yet written, before the server holds
  // further messages back in the client's queue.
  size_t client_send_buffer_bytes = 4 << 20;

  // How often the graph and the applications are read when the source does not signal changes.
  std::chrono::milliseconds poll_interval{1000};
  // How often the page gets statistics and the latest message of its selected topic.
  std::chrono::milliseconds stats_interval{500};
  std::chrono::milliseconds message_interval{250};

  int worker_threads = 2;
  // Where the server reports what it cannot tell a client (bind failures are returned by
  // Start). Called on the io thread. Empty: silent.
  std::function<void(const std::string&)> log;
};

// One connection as Clients() sees it.
struct ClientInfo {
  uint64_t id = 0;
  std::string remote;    // "address:port"
  std::string protocol;  // the selected subprotocol
  uint64_t sent = 0;     // bus messages written to this client
  uint64_t dropped = 0;  // bus messages dropped because this client's queue was full
  size_t queued = 0;     // bus messages waiting in its queue now
};

class Server {
 public:
  Server(BusSource& source, ServerOptions options);
  ~Server();  // stops
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds, listens and starts the threads. False with `error` set when the address cannot be
  // bound. Call once.
  bool Start(std::string* error);
  // Closes every connection, unsubscribes from the source and joins the threads. Idempotent;
  // any thread but the server's own.
  void Stop();

  // The port listened on (useful with port 0), valid after Start succeeded.
  uint16_t port() const;
  std::string session_id() const;
  // A snapshot of the connections; any thread.
  std::vector<ClientInfo> Clients() const;

  // Reads the graph and the applications now instead of at the next poll; any thread.
  void Refresh();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarvik::korvan::web
