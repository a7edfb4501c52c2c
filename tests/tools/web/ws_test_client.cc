#include "ws_test_client.h"

#include <asio/connect.hpp>
#include <asio/read.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_no_tls_client.hpp>

namespace korvan_web_test {

using Client = websocketpp::client<websocketpp::config::asio_client>;

struct WsTestClient::Impl {
  enum class State { kIdle, kConnecting, kOpen, kFailed, kClosed };

  Client client;
  std::thread thread;
  websocketpp::connection_hdl hdl;

  mutable std::mutex mu;
  std::condition_variable cv;
  State state = State::kIdle;
  std::string subprotocol;
  int http_status = 0;
  int close_code = 0;
  std::vector<WsMessage> messages;
};

WsTestClient::WsTestClient() : impl_(std::make_unique<Impl>()) {
  impl_->client.clear_access_channels(websocketpp::log::alevel::all);
  impl_->client.clear_error_channels(websocketpp::log::elevel::all);
  impl_->client.init_asio();
  impl_->client.start_perpetual();
  impl_->thread = std::thread([this] { impl_->client.run(); });
}

WsTestClient::~WsTestClient() {
  impl_->client.stop_perpetual();
  Close();
  impl_->client.stop();
  impl_->thread.join();
}

bool WsTestClient::Connect(uint16_t port, const std::vector<std::string>& subprotocols,
                           std::chrono::milliseconds timeout) {
  using State = Impl::State;
  std::error_code ec;
  auto con = impl_->client.get_connection("ws://127.0.0.1:" + std::to_string(port) + "/", ec);
  if (ec)
    return false;
  for (const auto& p : subprotocols)
    con->add_subprotocol(p);
  Impl* impl = impl_.get();
  con->set_open_handler([impl](websocketpp::connection_hdl hdl) {
    auto c = impl->client.get_con_from_hdl(hdl);
    std::lock_guard<std::mutex> lock(impl->mu);
    // The client side of websocketpp does not record the server's choice; the header has it.
    impl->subprotocol = c->get_response_header("Sec-WebSocket-Protocol");
    impl->state = State::kOpen;
    impl->cv.notify_all();
  });
  con->set_fail_handler([impl](websocketpp::connection_hdl hdl) {
    auto c = impl->client.get_con_from_hdl(hdl);
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->http_status = static_cast<int>(c->get_response_code());
    impl->state = State::kFailed;
    impl->cv.notify_all();
  });
  con->set_close_handler([impl](websocketpp::connection_hdl hdl) {
    auto c = impl->client.get_con_from_hdl(hdl);
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->close_code = static_cast<int>(c->get_remote_close_code());
    impl->state = State::kClosed;
    impl->cv.notify_all();
  });
  con->set_message_handler([impl](websocketpp::connection_hdl, Client::message_ptr msg) {
    std::lock_guard<std::mutex> lock(impl->mu);
    impl->messages.push_back(
        {msg->get_opcode() == websocketpp::frame::opcode::binary, msg->get_payload()});
    impl->cv.notify_all();
  });
  {
    std::lock_guard<std::mutex> lock(impl_->mu);
    impl_->state = State::kConnecting;
    impl_->hdl = con->get_handle();
  }
  impl_->client.connect(con);
  std::unique_lock<std::mutex> lock(impl_->mu);
  impl_->cv.wait_for(lock, timeout, [&] { return impl_->state != State::kConnecting; });
  return impl_->state == State::kOpen;
}

std::string WsTestClient::subprotocol() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->subprotocol;
}

int WsTestClient::http_status() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->http_status;
}

void WsTestClient::SendText(const std::string& text) {
  std::error_code ec;
  impl_->client.send(impl_->hdl, text, websocketpp::frame::opcode::text, ec);
}

void WsTestClient::SendBinary(const std::string& bytes) {
  std::error_code ec;
  impl_->client.send(impl_->hdl, bytes, websocketpp::frame::opcode::binary, ec);
}

void WsTestClient::Close() {
  std::error_code ec;
  websocketpp::connection_hdl hdl;
  {
    std::lock_guard<std::mutex> lock(impl_->mu);
    if (impl_->state != Impl::State::kOpen)
      return;
    hdl = impl_->hdl;
  }
  impl_->client.close(hdl, websocketpp::close::status::normal, "", ec);
}

std::optional<WsMessage> WsTestClient::WaitFor(const std::function<bool(const WsMessage&)>& match,
                                               size_t from, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(impl_->mu);
  std::optional<WsMessage> found;
  impl_->cv.wait_for(lock, timeout, [&] {
    for (size_t i = from; i < impl_->messages.size(); ++i) {
      if (match(impl_->messages[i])) {
        found = impl_->messages[i];
        return true;
      }
    }
    return false;
  });
  return found;
}

size_t WsTestClient::count() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->messages.size();
}

std::vector<WsMessage> WsTestClient::messages() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->messages;
}

bool WsTestClient::WaitClosed(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(impl_->mu);
  return impl_->cv.wait_for(lock, timeout, [&] { return impl_->state == Impl::State::kClosed; });
}

int WsTestClient::close_code() const {
  std::lock_guard<std::mutex> lock(impl_->mu);
  return impl_->close_code;
}

// ---------------------------------------------------------------------------------------------

bool RawWsClient::Connect(uint16_t port, const std::string& subprotocol, int receive_buffer) {
  std::error_code ec;
  socket_ = std::make_unique<asio::ip::tcp::socket>(io_);
  socket_->open(asio::ip::tcp::v4(), ec);
  // Before connecting, so that the window the client advertises is small from the start.
  if (receive_buffer > 0)
    socket_->set_option(asio::socket_base::receive_buffer_size(receive_buffer), ec);
  socket_->connect({asio::ip::make_address("127.0.0.1"), port}, ec);
  if (ec)
    return false;
  const std::string request =
      "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Protocol: " +
      subprotocol + "\r\n\r\n";
  asio::write(*socket_, asio::buffer(request), ec);
  asio::streambuf response;
  asio::read_until(*socket_, response, "\r\n\r\n", ec);
  if (ec)
    return false;
  std::string head(asio::buffers_begin(response.data()), asio::buffers_end(response.data()));
  return head.rfind("HTTP/1.1 101", 0) == 0;
}

void RawWsClient::SendText(const std::string& text) {
  std::string frame;
  frame.push_back(static_cast<char>(0x81));  // FIN, text
  if (text.size() < 126) {
    frame.push_back(static_cast<char>(0x80 | text.size()));
  } else {
    frame.push_back(static_cast<char>(0x80 | 126));
    frame.push_back(static_cast<char>((text.size() >> 8) & 0xFF));
    frame.push_back(static_cast<char>(text.size() & 0xFF));
  }
  frame.append(4, '\0');  // a zero mask leaves the payload as it is
  frame += text;
  std::error_code ec;
  asio::write(*socket_, asio::buffer(frame), ec);
}

void RawWsClient::Abort() {
  std::error_code ec;
  socket_->set_option(asio::socket_base::linger(true, 0), ec);
  socket_->close(ec);
}

std::string HttpRequest(uint16_t port, const std::string& method, const std::string& target) {
  asio::io_context io;
  asio::ip::tcp::socket socket(io);
  std::error_code ec;
  socket.connect({asio::ip::make_address("127.0.0.1"), port}, ec);
  if (ec)
    return "";
  const std::string request =
      method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
  asio::write(socket, asio::buffer(request), ec);
  std::string response;
  char chunk[4096];
  for (;;) {
    const size_t n = socket.read_some(asio::buffer(chunk), ec);
    response.append(chunk, n);
    if (ec)
      break;
  }
  return response;
}

}  // namespace korvan_web_test
