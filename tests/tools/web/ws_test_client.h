// WebSocket clients for the web server's tests.
//   WsTestClient: a well-behaved client (websocketpp) on its own thread that records everything
//     it receives; tests wait for a message with a deadline.
//   RawWsClient: a bare TCP socket that does the handshake by hand and then misbehaves on
//     purpose: it stops reading (a slow client) or drops the connection without a close frame.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

namespace korvan_web_test {

using namespace std::chrono_literals;

struct WsMessage {
  bool binary = false;
  std::string data;
};

class WsTestClient {
 public:
  WsTestClient();
  ~WsTestClient();

  // Connects offering `subprotocols`. True once open; false when refused, with http_status().
  bool Connect(uint16_t port, const std::vector<std::string>& subprotocols,
               std::chrono::milliseconds timeout = 10s);
  std::string subprotocol() const;
  int http_status() const;

  void SendText(const std::string& text);
  void SendBinary(const std::string& bytes);
  void Close();

  // The first message at index `from` or later that `match` accepts, waiting up to `timeout`.
  std::optional<WsMessage> WaitFor(const std::function<bool(const WsMessage&)>& match,
                                   size_t from = 0, std::chrono::milliseconds timeout = 10s);
  size_t count() const;
  std::vector<WsMessage> messages() const;
  // True when the server closed the connection within `timeout`; close_code() says how.
  bool WaitClosed(std::chrono::milliseconds timeout = 10s);
  int close_code() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class RawWsClient {
 public:
  // A small receive buffer makes the client slow as soon as it stops reading.
  bool Connect(uint16_t port, const std::string& subprotocol, int receive_buffer = 0);
  // One masked text frame.
  void SendText(const std::string& text);
  // Resets the connection: no close frame, no orderly shutdown.
  void Abort();

 private:
  asio::io_context io_;
  std::unique_ptr<asio::ip::tcp::socket> socket_;
};

// Plain HTTP/1.1 request on a fresh connection; the whole response, headers and body.
std::string HttpRequest(uint16_t port, const std::string& method, const std::string& target);

}  // namespace korvan_web_test
