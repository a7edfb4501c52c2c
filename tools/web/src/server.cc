#include "korvan/web/server.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <exception>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <websocketpp/config/asio_no_tls.hpp>
#include <websocketpp/server.hpp>

#include "infra/mutex.h"
#include "infra/thread_annotations.h"
#include "korvan/web/page_protocol.h"
#include "korvan/web/protocol.h"
#include "korvan/web/static_files.h"

namespace tarvik::korvan::web {
namespace {

using inf::Mutex;
using inf::MutexLock;

using WsServer = websocketpp::server<websocketpp::config::asio>;
using Hdl = websocketpp::connection_hdl;
using Opcode = websocketpp::frame::opcode::value;

int64_t NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string NewSessionId() {
  std::random_device random;
  std::uniform_int_distribution<uint32_t> pick;
  char text[64];
  std::snprintf(text, sizeof(text), "%lld-%08x", static_cast<long long>(NowNs() / 1000000),
                pick(random));
  return text;
}

enum class Kind { kFoxglove, kPage };

// One bus message on its way to one client: the frame is shared by every client, each writes
// its own subscription id into its copy.
struct Outgoing {
  std::shared_ptr<const std::string> frame;
  uint32_t subscription_id;
};

// One WebSocket connection. The protocol state belongs to the io thread; the queue is shared
// with the bus threads that fill it.
struct Session {
  uint64_t id = 0;
  Kind kind = Kind::kFoxglove;
  Hdl hdl;
  std::string remote;
  std::string protocol;

  // io thread only.
  std::map<uint32_t, uint32_t> subscriptions;  // subscription id -> channel id
  std::map<uint32_t, uint32_t> by_channel;     // channel id -> subscription id
  bool graph_subscribed = false;
  std::string selected_topic;  // page

  Mutex mu;
  std::deque<Outgoing> queue KORVAN_GUARDED_BY(mu);
  size_t queued_bytes KORVAN_GUARDED_BY(mu) = 0;
  bool closed KORVAN_GUARDED_BY(mu) = false;
  // A Drain is posted or waiting on a timer: bus threads need not post another.
  bool drain_scheduled KORVAN_GUARDED_BY(mu) = false;

  std::atomic<uint64_t> sent{0};
  std::atomic<uint64_t> dropped{0};
};

// One subscription at the source, shared by every client and page that wants the topic.
struct Tap {
  std::string topic;
  // io thread only.
  uint64_t handle = 0;
  int page_selectors = 0;
  bool decoding = false;
  uint64_t decoded_seq = 0;

  Mutex mu;
  std::vector<std::pair<std::shared_ptr<Session>, uint32_t>> targets KORVAN_GUARDED_BY(mu);
  bool keep_latest KORVAN_GUARDED_BY(mu) = false;
  std::shared_ptr<const std::string> latest KORVAN_GUARDED_BY(mu);  // a Message Data frame
  int64_t latest_receive_ns KORVAN_GUARDED_BY(mu) = 0;
  std::optional<int64_t> latest_publish_ns KORVAN_GUARDED_BY(mu);
  uint64_t latest_seq KORVAN_GUARDED_BY(mu) = 0;
};

struct ChannelRecord {
  foxglove::Channel channel;
  std::string schema;  // raw, to notice a changed schema without encoding it again
};

struct ServiceRecord {
  foxglove::Service service;
  std::string schema;
};

template <typename T>
Result<T> Guarded(const std::function<Result<T>()>& call) {
  try {
    return call();
  } catch (const std::exception& e) {
    return Result<T>::Fail(std::string("source failed: ") + e.what());
  } catch (...) {
    return Result<T>::Fail("source failed");
  }
}

}  // namespace

class Server::Impl {
 public:
  Impl(BusSource& source, ServerOptions options)
      : source_(source), opt_(std::move(options)), session_id_(NewSessionId()) {}

  ~Impl() { Stop(); }

  bool Start(std::string* error);
  void Stop();
  std::vector<ClientInfo> Clients() const;
  void Refresh();

  uint16_t port() const { return port_; }
  const std::string& session_id() const { return session_id_; }

 private:
  // Connection events, io thread.
  bool OnValidate(Hdl hdl);
  void OnOpen(Hdl hdl);
  void OnClose(Hdl hdl);
  void OnHttp(Hdl hdl);
  void OnMessage(Hdl hdl, WsServer::message_ptr msg);

  void OnFoxgloveText(const std::shared_ptr<Session>& s, const std::string& text);
  void OnFoxgloveBinary(const std::shared_ptr<Session>& s, const std::string& bytes);
  void OnPageText(const std::shared_ptr<Session>& s, const std::string& text);

  void Subscribe(const std::shared_ptr<Session>& s, const foxglove::SubscribeRequest& request);
  void RemoveSubscription(Session& s, uint32_t subscription_id);
  void Select(const std::shared_ptr<Session>& s, const std::string& topic);
  void CallService(const std::shared_ptr<Session>& s, const foxglove::ServiceCallRequest& request);
  void ListParams(const std::shared_ptr<Session>& s, const std::string& node);
  void SetParam(const std::shared_ptr<Session>& s, const page::SetParam& request);

  // Taps, io thread.
  std::shared_ptr<Tap> AcquireTap(const std::string& topic);
  void ReleaseTapIfUnused(const std::string& topic);
  void ReleaseAllTaps();
  // Bus threads.
  void Deliver(const std::shared_ptr<Tap>& tap, const ReceivedMessage& message);
  void Push(const std::shared_ptr<Session>& s, const std::shared_ptr<const std::string>& frame,
            uint32_t subscription_id);
  // io thread.
  void Drain(const std::shared_ptr<Session>& s);
  void PurgeQueue(Session& s, uint32_t subscription_id);

  // Periodic work, io thread.
  void RefreshGraph();
  void RefreshApps();
  void SendStats();
  void DecodeSelected(const std::shared_ptr<Tap>& tap);
  void DecodeAllSelected();
  bool HasPages() const;
  void Every(asio::steady_timer& timer, std::chrono::milliseconds interval, void (Impl::*work)());

  void SendText(const Session& s, const std::string& text);
  void SendBinary(const Session& s, const std::string& bytes);
  // Page updates are skipped for a page that does not keep up: the next one replaces them.
  void SendToPages(const std::string& text, const std::string* topic = nullptr);
  void Status(const Session& s, foxglove::StatusLevel level, const std::string& message);
  std::shared_ptr<Session> FindSession(uint64_t id) const;
  const TopicInfo* FindTopic(const std::string& name) const;
  // Runs `work` on a worker thread and then `done(result)` on the io thread.
  template <typename T>
  void OffIo(std::function<Result<T>()> work, std::function<void(Result<T>)> done);
  void Log(const std::string& line) const {
    if (opt_.log)
      opt_.log(line);
  }

  BusSource& source_;
  const ServerOptions opt_;
  const std::string session_id_;
  WsServer ws_;
  std::unique_ptr<asio::thread_pool> pool_;
  std::thread io_thread_;
  std::unique_ptr<asio::steady_timer> poll_timer_, stats_timer_, message_timer_, stop_timer_;
  uint16_t port_ = 0;
  std::atomic<bool> started_{false};
  std::atomic<bool> stopped_{false};
  std::atomic<bool> refresh_posted_{false};

  // io thread only.
  bool stopping_ = false;
  uint64_t next_session_id_ = 1;
  std::map<Hdl, std::shared_ptr<Session>, std::owner_less<Hdl>> sessions_;
  std::map<std::string, ChannelRecord> channels_;  // by topic
  std::map<uint32_t, std::string> channel_topics_;
  uint32_t next_channel_id_ = 1;
  std::map<std::string, ServiceRecord> services_;  // by name
  std::map<uint32_t, std::string> service_names_;
  uint32_t next_service_id_ = 1;
  std::map<std::string, std::shared_ptr<Tap>> taps_;
  Graph graph_;
  std::string graph_json_;
  std::string apps_json_;
  std::string stats_json_;

  mutable Mutex clients_mu_;
  std::map<uint64_t, std::shared_ptr<Session>> clients_ KORVAN_GUARDED_BY(clients_mu_);
};

// ---------------------------------------------------------------------------------------------
// Start and stop

bool Server::Impl::Start(std::string* error) {
  if (started_) {
    *error = "already started";
    return false;
  }
  std::error_code ec;
  ws_.clear_access_channels(websocketpp::log::alevel::all);
  ws_.clear_error_channels(websocketpp::log::elevel::all);
  ws_.init_asio(ec);
  if (ec) {
    *error = "cannot set up networking: " + ec.message();
    return false;
  }
  ws_.set_user_agent("korvan-web");
  ws_.set_reuse_addr(true);
  ws_.set_max_message_size(opt_.max_message_bytes);
  ws_.set_max_http_body_size(64 * 1024);
  ws_.set_open_handshake_timeout(5000);
  ws_.set_close_handshake_timeout(1000);
  ws_.set_socket_init_handler([](Hdl, asio::ip::tcp::socket& socket) {
    std::error_code ignored;
    socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  });
  ws_.set_validate_handler([this](Hdl hdl) { return OnValidate(hdl); });
  ws_.set_open_handler([this](Hdl hdl) { OnOpen(hdl); });
  ws_.set_close_handler([this](Hdl hdl) { OnClose(hdl); });
  ws_.set_fail_handler([this](Hdl hdl) { OnClose(hdl); });
  ws_.set_http_handler([this](Hdl hdl) { OnHttp(hdl); });
  ws_.set_message_handler(
      [this](Hdl hdl, WsServer::message_ptr msg) { OnMessage(hdl, std::move(msg)); });

  const asio::ip::address address = asio::ip::make_address(opt_.bind_address, ec);
  if (ec) {
    *error = "bad bind address \"" + opt_.bind_address + "\": " + ec.message();
    return false;
  }
  ws_.listen(asio::ip::tcp::endpoint(address, opt_.port), ec);
  if (ec) {
    *error = "cannot listen on " + opt_.bind_address + ":" + std::to_string(opt_.port) + ": " +
             ec.message();
    return false;
  }
  ws_.start_accept(ec);
  if (ec) {
    *error = "cannot accept: " + ec.message();
    return false;
  }
  port_ = ws_.get_local_endpoint(ec).port();

  auto& io = ws_.get_io_service();
  poll_timer_ = std::make_unique<asio::steady_timer>(io);
  stats_timer_ = std::make_unique<asio::steady_timer>(io);
  message_timer_ = std::make_unique<asio::steady_timer>(io);
  stop_timer_ = std::make_unique<asio::steady_timer>(io);
  pool_ = std::make_unique<asio::thread_pool>(opt_.worker_threads > 0 ? opt_.worker_threads : 1);
  started_ = true;

  asio::post(io, [this] {
    RefreshGraph();
    RefreshApps();
    Every(*poll_timer_, opt_.poll_interval, &Impl::RefreshGraph);
    Every(*stats_timer_, opt_.stats_interval, &Impl::SendStats);
    Every(*message_timer_, opt_.message_interval, &Impl::DecodeAllSelected);
  });
  source_.SetChangeCallback([this] { Refresh(); });
  io_thread_ = std::thread([this] {
    // A throwing handler must not take the server down; the loop resumes after it.
    for (;;) {
      try {
        ws_.run();
        return;
      } catch (const std::exception& e) {
        Log(std::string("web server: handler failed: ") + e.what());
      }
    }
  });
  return true;
}

void Server::Impl::Stop() {
  if (!started_ || stopped_.exchange(true))
    return;
  source_.SetChangeCallback({});
  asio::post(ws_.get_io_service(), [this] {
    stopping_ = true;
    poll_timer_->cancel();
    stats_timer_->cancel();
    message_timer_->cancel();
    std::error_code ec;
    ws_.stop_listening(ec);
    ReleaseAllTaps();
    for (auto& [hdl, s] : sessions_) {
      {
        MutexLock lock(&s->mu);
        s->closed = true;
        s->queue.clear();
      }
      ws_.close(hdl, websocketpp::close::status::going_away, "server stopping", ec);
    }
    if (sessions_.empty())
      return;
    // A peer that never answers the close must not hold the process.
    stop_timer_->expires_after(std::chrono::seconds(2));
    stop_timer_->async_wait([this](const std::error_code& e) {
      if (!e)
        ws_.stop();
    });
  });
  io_thread_.join();
  pool_->stop();
  pool_->join();
  // Handlers still queued (late worker results, drains) hold only weak references and die
  // with the io context.
}

// ---------------------------------------------------------------------------------------------
// Connections

bool Server::Impl::OnValidate(Hdl hdl) {
  auto con = ws_.get_con_from_hdl(hdl);
  if (stopping_)
    return false;
  for (const std::string& offered : con->get_requested_subprotocols()) {
    if (offered == foxglove::kSubprotocol || offered == page::kSubprotocol) {
      con->select_subprotocol(offered);
      return true;
    }
  }
  con->set_status(websocketpp::http::status_code::bad_request);
  con->set_body(std::string("offer the WebSocket subprotocol ") + foxglove::kSubprotocol + " or " +
                page::kSubprotocol + "\n");
  return false;
}

void Server::Impl::OnOpen(Hdl hdl) {
  auto con = ws_.get_con_from_hdl(hdl);
  auto s = std::make_shared<Session>();
  s->id = next_session_id_++;
  s->hdl = hdl;
  s->remote = con->get_remote_endpoint();
  s->protocol = con->get_subprotocol();
  s->kind = s->protocol == foxglove::kSubprotocol ? Kind::kFoxglove : Kind::kPage;
  sessions_[hdl] = s;
  {
    MutexLock lock(&clients_mu_);
    clients_[s->id] = s;
  }
  if (s->kind == Kind::kFoxglove) {
    SendText(*s, foxglove::ServerInfo(opt_.name, {"services", "connectionGraph"}, {"protobuf"},
                                      session_id_));
    std::vector<foxglove::Channel> channels;
    for (const auto& [topic, record] : channels_)
      channels.push_back(record.channel);
    SendText(*s, foxglove::Advertise(channels));
    if (!services_.empty()) {
      std::vector<foxglove::Service> services;
      for (const auto& [name, record] : services_)
        services.push_back(record.service);
      SendText(*s, foxglove::AdvertiseServices(services));
    }
  } else {
    SendText(*s, page::Hello(opt_.name, session_id_));
    SendText(*s, graph_json_);
    if (!apps_json_.empty())
      SendText(*s, apps_json_);
    if (!stats_json_.empty())
      SendText(*s, stats_json_);
    else
      SendStats();  // the first page: the source starts measuring now
  }
}

void Server::Impl::OnClose(Hdl hdl) {
  auto it = sessions_.find(hdl);
  if (it == sessions_.end())
    return;  // a handshake that failed, or plain HTTP
  std::shared_ptr<Session> s = it->second;
  sessions_.erase(it);
  {
    MutexLock lock(&clients_mu_);
    clients_.erase(s->id);
  }
  {
    MutexLock lock(&s->mu);
    s->closed = true;
    s->queue.clear();
    s->queued_bytes = 0;
  }
  while (!s->subscriptions.empty())
    RemoveSubscription(*s, s->subscriptions.begin()->first);
  if (!s->selected_topic.empty())
    Select(s, "");
  if (stopping_ && sessions_.empty())
    stop_timer_->cancel();
}

void Server::Impl::OnHttp(Hdl hdl) {
  auto con = ws_.get_con_from_hdl(hdl);
  StaticResponse response =
      ServeStatic(opt_.static_dir, con->get_request().get_method(), con->get_resource());
  con->set_status(static_cast<websocketpp::http::status_code::value>(response.status));
  con->append_header("Content-Type", response.content_type);
  con->append_header("Cache-Control", "no-cache");
  con->append_header("X-Content-Type-Options", "nosniff");
  con->set_body(std::move(response.body));
}

void Server::Impl::OnMessage(Hdl hdl, WsServer::message_ptr msg) {
  auto it = sessions_.find(hdl);
  if (it == sessions_.end())
    return;
  std::shared_ptr<Session> s = it->second;
  const bool text = msg->get_opcode() == websocketpp::frame::opcode::text;
  if (s->kind == Kind::kFoxglove) {
    if (text)
      OnFoxgloveText(s, msg->get_payload());
    else
      OnFoxgloveBinary(s, msg->get_payload());
  } else if (text) {
    OnPageText(s, msg->get_payload());
  } else {
    SendText(*s, page::Error("binary messages are not part of this protocol"));
  }
}

// ---------------------------------------------------------------------------------------------
// Foxglove protocol

void Server::Impl::OnFoxgloveText(const std::shared_ptr<Session>& s, const std::string& text) {
  using foxglove::StatusLevel;
  foxglove::ClientText parsed = foxglove::ParseClientText(text);
  if (auto* e = std::get_if<ParseError>(&parsed)) {
    Status(*s, StatusLevel::kError, e->message);
  } else if (auto* sub = std::get_if<foxglove::SubscribeRequest>(&parsed)) {
    Subscribe(s, *sub);
  } else if (auto* unsub = std::get_if<foxglove::UnsubscribeRequest>(&parsed)) {
    for (const auto& error : unsub->errors)
      Status(*s, StatusLevel::kError, error);
    for (uint32_t id : unsub->ids) {
      if (s->subscriptions.count(id) == 0)
        Status(*s, StatusLevel::kWarning, "subscription " + std::to_string(id) + " not found");
      else
        RemoveSubscription(*s, id);
    }
  } else if (auto* graph = std::get_if<foxglove::GraphSubscription>(&parsed)) {
    s->graph_subscribed = graph->subscribe;
    if (graph->subscribe)
      SendText(*s, foxglove::ConnectionGraphUpdate(graph_, {}, {}));
  } else if (auto* op = std::get_if<foxglove::UnsupportedOp>(&parsed)) {
    Status(*s, StatusLevel::kError,
           "\"" + op->op + "\" needs the capability " + op->capability +
               ", which this server does not offer");
  }
}

void Server::Impl::OnFoxgloveBinary(const std::shared_ptr<Session>& s, const std::string& bytes) {
  foxglove::ClientBinary parsed = foxglove::ParseClientBinary(bytes);
  if (auto* e = std::get_if<ParseError>(&parsed)) {
    Status(*s, foxglove::StatusLevel::kError, e->message);
  } else if (std::get_if<foxglove::ClientMessageData>(&parsed)) {
    Status(*s, foxglove::StatusLevel::kError,
           "client message data needs the capability clientPublish, which this server does not "
           "offer");
  } else if (auto* call = std::get_if<foxglove::ServiceCallRequest>(&parsed)) {
    CallService(s, *call);
  }
}

void Server::Impl::Subscribe(const std::shared_ptr<Session>& s,
                             const foxglove::SubscribeRequest& request) {
  using foxglove::StatusLevel;
  for (const auto& error : request.errors)
    Status(*s, StatusLevel::kError, error);
  for (const auto& entry : request.entries) {
    if (s->subscriptions.count(entry.id) != 0) {
      Status(*s, StatusLevel::kError,
             "subscription id " + std::to_string(entry.id) + " is already in use");
      continue;
    }
    auto topic = channel_topics_.find(entry.channel_id);
    if (topic == channel_topics_.end()) {
      Status(*s, StatusLevel::kWarning,
             "channel " + std::to_string(entry.channel_id) + " not available");
      continue;
    }
    if (s->by_channel.count(entry.channel_id) != 0) {
      Status(*s, StatusLevel::kWarning,
             "channel " + std::to_string(entry.channel_id) + " is already subscribed");
      continue;
    }
    std::shared_ptr<Tap> tap = AcquireTap(topic->second);
    if (!tap) {
      Status(*s, StatusLevel::kError, "cannot subscribe to " + topic->second + " on the bus");
      continue;
    }
    s->subscriptions[entry.id] = entry.channel_id;
    s->by_channel[entry.channel_id] = entry.id;
    MutexLock lock(&tap->mu);
    tap->targets.emplace_back(s, entry.id);
  }
}

void Server::Impl::RemoveSubscription(Session& s, uint32_t subscription_id) {
  auto it = s.subscriptions.find(subscription_id);
  if (it == s.subscriptions.end())
    return;
  const uint32_t channel_id = it->second;
  s.subscriptions.erase(it);
  s.by_channel.erase(channel_id);
  // The channel may be gone already: the tap is found by its targets.
  std::optional<std::string> tap_topic;
  for (auto& [topic, tap] : taps_) {
    MutexLock lock(&tap->mu);
    auto& targets = tap->targets;
    auto found = std::find_if(targets.begin(), targets.end(), [&](const auto& target) {
      return target.first.get() == &s && target.second == subscription_id;
    });
    if (found != targets.end()) {
      targets.erase(found);
      tap_topic = topic;
      break;
    }
  }
  PurgeQueue(s, subscription_id);
  if (tap_topic)
    ReleaseTapIfUnused(*tap_topic);
}

void Server::Impl::CallService(const std::shared_ptr<Session>& s,
                               const foxglove::ServiceCallRequest& request) {
  const uint32_t service_id = request.service_id;
  const uint32_t call_id = request.call_id;
  auto name = service_names_.find(service_id);
  if (name == service_names_.end()) {
    SendText(*s,
             foxglove::ServiceCallFailure(
                 service_id, call_id, "service " + std::to_string(service_id) + " not available"));
    return;
  }
  if (request.encoding != "protobuf") {
    SendText(*s, foxglove::ServiceCallFailure(
                     service_id, call_id,
                     "encoding \"" + request.encoding + "\" not supported, use protobuf"));
    return;
  }
  const uint64_t session_id = s->id;
  OffIo<std::string>(
      [this, service = name->second, payload = std::string(request.payload)] {
        return source_.CallService(service, Encoding::kProtobuf, payload);
      },
      [this, session_id, service_id, call_id](Result<std::string> result) {
        auto s = FindSession(session_id);
        if (!s)
          return;
        if (result.ok())
          SendBinary(*s,
                     foxglove::ServiceCallResponse(service_id, call_id, "protobuf", *result.value));
        else
          SendText(*s, foxglove::ServiceCallFailure(service_id, call_id, result.error));
      });
}

// ---------------------------------------------------------------------------------------------
// Page protocol

void Server::Impl::OnPageText(const std::shared_ptr<Session>& s, const std::string& text) {
  page::Request request = page::ParseRequest(text);
  if (auto* e = std::get_if<ParseError>(&request)) {
    SendText(*s, page::Error(e->message));
  } else if (auto* select = std::get_if<page::SelectTopic>(&request)) {
    if (!select->topic.empty() && FindTopic(select->topic) == nullptr) {
      SendText(*s, page::Error("unknown topic " + select->topic));
      return;
    }
    Select(s, select->topic);
  } else if (auto* list = std::get_if<page::ListParams>(&request)) {
    ListParams(s, list->node);
  } else if (auto* set = std::get_if<page::SetParam>(&request)) {
    SetParam(s, *set);
  }
}

void Server::Impl::Select(const std::shared_ptr<Session>& s, const std::string& topic) {
  if (!s->selected_topic.empty()) {
    auto it = taps_.find(s->selected_topic);
    if (it != taps_.end() && --it->second->page_selectors == 0) {
      MutexLock lock(&it->second->mu);
      it->second->keep_latest = false;
      it->second->latest.reset();
    }
    const std::string old = s->selected_topic;
    s->selected_topic.clear();
    ReleaseTapIfUnused(old);
  }
  if (topic.empty())
    return;
  std::shared_ptr<Tap> tap = AcquireTap(topic);
  if (!tap) {
    SendText(*s, page::Error("cannot subscribe to " + topic + " on the bus"));
    return;
  }
  s->selected_topic = topic;
  ++tap->page_selectors;
  {
    MutexLock lock(&tap->mu);
    tap->keep_latest = true;
  }
  // The new page wants the current message now, not at the next new one.
  tap->decoded_seq = 0;
  DecodeSelected(tap);
}

void Server::Impl::ListParams(const std::shared_ptr<Session>& s, const std::string& node) {
  const uint64_t session_id = s->id;
  OffIo<std::vector<Parameter>>([this, node] { return source_.ListParameters(node); },
                                [this, session_id, node](Result<std::vector<Parameter>> result) {
                                  if (auto s = FindSession(session_id))
                                    SendText(*s, page::ParamsMessage(node, result));
                                });
}

void Server::Impl::SetParam(const std::shared_ptr<Session>& s, const page::SetParam& request) {
  const uint64_t session_id = s->id;
  OffIo<Parameter>(
      [this, request] {
        return source_.SetParameter(request.node, request.name, request.value_json);
      },
      [this, session_id, request](Result<Parameter> result) {
        if (auto s = FindSession(session_id)) {
          SendText(*s, page::ParamResult(request, result));
          ListParams(s, request.node);
        }
      });
}

// ---------------------------------------------------------------------------------------------
// Taps and per-client queues

std::shared_ptr<Tap> Server::Impl::AcquireTap(const std::string& topic) {
  auto it = taps_.find(topic);
  if (it != taps_.end())
    return it->second;
  auto tap = std::make_shared<Tap>();
  tap->topic = topic;
  tap->handle =
      source_.Subscribe(topic, [this, tap](const ReceivedMessage& m) { Deliver(tap, m); });
  if (tap->handle == 0)
    return nullptr;
  taps_[topic] = tap;
  return tap;
}

void Server::Impl::ReleaseTapIfUnused(const std::string& topic) {
  auto it = taps_.find(topic);
  if (it == taps_.end() || it->second->page_selectors > 0)
    return;
  {
    MutexLock lock(&it->second->mu);
    if (!it->second->targets.empty())
      return;
  }
  const uint64_t handle = it->second->handle;
  taps_.erase(it);
  source_.Unsubscribe(handle);
}

void Server::Impl::ReleaseAllTaps() {
  for (auto& [topic, tap] : taps_) {
    source_.Unsubscribe(tap->handle);
    MutexLock lock(&tap->mu);
    tap->targets.clear();  // they hold the sessions
  }
  taps_.clear();
}

void Server::Impl::Deliver(const std::shared_ptr<Tap>& tap, const ReceivedMessage& m) {
  MutexLock lock(&tap->mu);
  if (tap->targets.empty() && !tap->keep_latest)
    return;
  auto frame = std::make_shared<const std::string>(
      foxglove::MessageData(0, static_cast<uint64_t>(m.receive_ns), m.payload));
  for (const auto& [session, subscription_id] : tap->targets)
    Push(session, frame, subscription_id);
  if (tap->keep_latest) {
    tap->latest = frame;
    tap->latest_receive_ns = m.receive_ns;
    tap->latest_publish_ns = m.publish_ns;
    ++tap->latest_seq;
  }
}

void Server::Impl::Push(const std::shared_ptr<Session>& s,
                        const std::shared_ptr<const std::string>& frame, uint32_t subscription_id) {
  {
    MutexLock lock(&s->mu);
    if (s->closed)
      return;
    if (s->queue.size() >= opt_.client_queue_messages ||
        s->queued_bytes + frame->size() > opt_.client_queue_bytes) {
      s->dropped.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    s->queue.push_back({frame, subscription_id});
    s->queued_bytes += frame->size();
    if (s->drain_scheduled)
      return;
    s->drain_scheduled = true;
  }
  asio::post(ws_.get_io_service(), [this, weak = std::weak_ptr<Session>(s)] {
    if (auto s = weak.lock())
      Drain(s);
  });
}

void Server::Impl::Drain(const std::shared_ptr<Session>& s) {
  std::error_code ec;
  auto con = ws_.get_con_from_hdl(s->hdl, ec);
  for (;;) {
    Outgoing item;
    {
      MutexLock lock(&s->mu);
      if (ec || s->closed || s->queue.empty()) {
        s->drain_scheduled = false;
        return;
      }
      if (con->get_buffered_amount() >= opt_.client_send_buffer_bytes)
        break;
      item = std::move(s->queue.front());
      s->queue.pop_front();
      s->queued_bytes -= item.frame->size();
    }
    auto msg = con->get_message(websocketpp::frame::opcode::binary, item.frame->size());
    std::string& bytes = msg->get_raw_payload();
    bytes.assign(*item.frame);
    foxglove::PatchSubscriptionId(bytes, item.subscription_id);
    ec = con->send(msg);
    if (!ec)
      s->sent.fetch_add(1, std::memory_order_relaxed);
  }
  // The socket is behind: look again shortly. The queue keeps filling, and drops, meanwhile.
  auto timer = std::make_shared<asio::steady_timer>(ws_.get_io_service());
  timer->expires_after(std::chrono::milliseconds(5));
  timer->async_wait([this, timer, weak = std::weak_ptr<Session>(s)](const std::error_code& e) {
    auto s = weak.lock();
    if (!s)
      return;
    if (e || stopping_) {
      MutexLock lock(&s->mu);
      s->drain_scheduled = false;
      return;
    }
    Drain(s);
  });
}

void Server::Impl::PurgeQueue(Session& s, uint32_t subscription_id) {
  MutexLock lock(&s.mu);
  for (auto it = s.queue.begin(); it != s.queue.end();) {
    if (it->subscription_id == subscription_id) {
      s.queued_bytes -= it->frame->size();
      it = s.queue.erase(it);
    } else {
      ++it;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Graph, applications, statistics, selected messages

void Server::Impl::Refresh() {
  if (!started_ || refresh_posted_.exchange(true))
    return;
  asio::post(ws_.get_io_service(), [this] {
    refresh_posted_ = false;
    if (stopping_)
      return;
    RefreshGraph();
    RefreshApps();
  });
}

void Server::Impl::RefreshGraph() {
  Graph graph;
  try {
    graph = source_.GetGraph();
  } catch (const std::exception& e) {
    Log(std::string("web server: reading the graph failed: ") + e.what());
    return;
  }

  // Channels: a topic keeps its id while its type and schema stay; otherwise it is withdrawn
  // and advertised again under a new id, as clients cache schemas by id.
  std::map<std::string, ChannelRecord> channels;
  std::vector<foxglove::Channel> added;
  std::vector<uint32_t> removed;
  for (const TopicInfo& t : graph.topics) {
    if (t.type.empty() || t.schema.empty() || channels.count(t.name) != 0)
      continue;
    auto old = channels_.find(t.name);
    if (old != channels_.end() && old->second.channel.schema_name == t.type &&
        old->second.schema == t.schema) {
      channels[t.name] = std::move(old->second);
      channels_.erase(old);
      continue;
    }
    ChannelRecord record{{next_channel_id_++, t.name, t.type, foxglove::Base64(t.schema)},
                         t.schema};
    added.push_back(record.channel);
    channels[t.name] = std::move(record);
  }
  for (const auto& [topic, record] : channels_)
    removed.push_back(record.channel.id);
  channels_ = std::move(channels);
  channel_topics_.clear();
  for (const auto& [topic, record] : channels_)
    channel_topics_[record.channel.id] = topic;

  std::map<std::string, ServiceRecord> services;
  std::vector<foxglove::Service> added_services;
  std::vector<uint32_t> removed_services;
  for (const ServiceInfo& sv : graph.services) {
    if (sv.request_type.empty() || sv.response_type.empty() || sv.schema.empty() ||
        services.count(sv.name) != 0)
      continue;
    auto old = services_.find(sv.name);
    if (old != services_.end() && old->second.service.request_type == sv.request_type &&
        old->second.service.response_type == sv.response_type && old->second.schema == sv.schema) {
      services[sv.name] = std::move(old->second);
      services_.erase(old);
      continue;
    }
    ServiceRecord record{{next_service_id_++, sv.name, sv.request_type, sv.response_type,
                          foxglove::Base64(sv.schema)},
                         sv.schema};
    added_services.push_back(record.service);
    services[sv.name] = std::move(record);
  }
  for (const auto& [name, record] : services_)
    removed_services.push_back(record.service.id);
  services_ = std::move(services);
  service_names_.clear();
  for (const auto& [name, record] : services_)
    service_names_[record.service.id] = name;

  // Names that left, for connection graph subscribers.
  std::set<std::string> topic_names, service_names;
  for (const auto& t : graph.topics)
    topic_names.insert(t.name);
  for (const auto& sv : graph.services)
    service_names.insert(sv.name);
  std::vector<std::string> gone_topics, gone_services;
  for (const auto& t : graph_.topics)
    if (topic_names.count(t.name) == 0)
      gone_topics.push_back(t.name);
  for (const auto& sv : graph_.services)
    if (service_names.count(sv.name) == 0)
      gone_services.push_back(sv.name);

  std::string graph_json = page::GraphMessage(graph);
  const bool graph_changed = graph_json != graph_json_;
  graph_ = std::move(graph);
  graph_json_ = std::move(graph_json);

  for (auto& [hdl, s] : sessions_) {
    if (s->kind != Kind::kFoxglove)
      continue;
    for (uint32_t channel_id : removed) {
      auto sub = s->by_channel.find(channel_id);
      if (sub != s->by_channel.end())
        RemoveSubscription(*s, sub->second);
    }
    if (!removed.empty())
      SendText(*s, foxglove::Unadvertise(removed));
    if (!added.empty())
      SendText(*s, foxglove::Advertise(added));
    if (!removed_services.empty())
      SendText(*s, foxglove::UnadvertiseServices(removed_services));
    if (!added_services.empty())
      SendText(*s, foxglove::AdvertiseServices(added_services));
    if (graph_changed && s->graph_subscribed)
      SendText(*s, foxglove::ConnectionGraphUpdate(graph_, gone_topics, gone_services));
  }
  if (graph_changed)
    SendToPages(graph_json_);

  // A page whose topic left keeps its selection: the topic may come back.
}

bool Server::Impl::HasPages() const {
  for (const auto& [hdl, s] : sessions_) {
    if (s->kind == Kind::kPage)
      return true;
  }
  return false;
}

void Server::Impl::RefreshApps() {
  // Only pages show applications; without one the source need not follow them.
  if (!HasPages()) {
    apps_json_.clear();
    return;
  }
  std::vector<ApplicationInfo> apps;
  try {
    apps = source_.GetApplications();
  } catch (const std::exception& e) {
    Log(std::string("web server: reading the applications failed: ") + e.what());
    return;
  }
  std::string json = page::AppsMessage(apps);
  if (json == apps_json_)
    return;
  apps_json_ = std::move(json);
  SendToPages(apps_json_);
}

void Server::Impl::SendStats() {
  // Statistics cost the source a subscription to every topic: asked for only while a page
  // shows them. A page that comes later gets fresh figures, not the last ones.
  if (!HasPages()) {
    stats_json_.clear();
    apps_json_.clear();
    return;
  }
  std::vector<TopicStats> stats;
  try {
    stats = source_.GetStats();
  } catch (const std::exception& e) {
    Log(std::string("web server: reading the statistics failed: ") + e.what());
    return;
  }
  stats_json_ = page::StatsMessage(stats, NowNs());
  SendToPages(stats_json_);
  // Applications change with their frames: they travel at the statistics' pace.
  RefreshApps();
}

void Server::Impl::DecodeSelected(const std::shared_ptr<Tap>& tap) {
  if (tap->decoding || tap->page_selectors == 0)
    return;
  std::shared_ptr<const std::string> frame;
  uint64_t seq;
  int64_t receive_ns;
  std::optional<int64_t> publish_ns;
  {
    MutexLock lock(&tap->mu);
    if (!tap->latest || tap->latest_seq == tap->decoded_seq)
      return;
    frame = tap->latest;
    seq = tap->latest_seq;
    receive_ns = tap->latest_receive_ns;
    publish_ns = tap->latest_publish_ns;
  }
  const TopicInfo* info = FindTopic(tap->topic);
  const std::string type = info != nullptr ? info->type : "";
  tap->decoding = true;
  OffIo<std::string>(
      [this, frame, type] {
        return source_.DecodeToJson(
            type, std::string_view(*frame).substr(foxglove::kMessageDataHeaderSize));
      },
      [this, tap, seq, type, receive_ns, publish_ns](Result<std::string> json) {
        tap->decoding = false;
        tap->decoded_seq = seq;
        if (tap->page_selectors == 0)
          return;
        SendToPages(page::LatestMessage(tap->topic, type, receive_ns, publish_ns, json),
                    &tap->topic);
      });
}

void Server::Impl::DecodeAllSelected() {
  for (auto& [topic, tap] : taps_)
    DecodeSelected(tap);
}

void Server::Impl::Every(asio::steady_timer& timer, std::chrono::milliseconds interval,
                         void (Impl::*work)()) {
  timer.expires_after(interval);
  timer.async_wait([this, &timer, interval, work](const std::error_code& e) {
    if (e || stopping_)
      return;
    (this->*work)();
    Every(timer, interval, work);
  });
}

// ---------------------------------------------------------------------------------------------
// Helpers

template <typename T>
void Server::Impl::OffIo(std::function<Result<T>()> work, std::function<void(Result<T>)> done) {
  asio::post(*pool_, [this, work = std::move(work), done = std::move(done)]() mutable {
    Result<T> result = Guarded<T>(work);
    asio::post(ws_.get_io_service(),
               [done = std::move(done), result = std::move(result)]() mutable {
                 done(std::move(result));
               });
  });
}

void Server::Impl::SendText(const Session& s, const std::string& text) {
  std::error_code ec;
  ws_.send(s.hdl, text, websocketpp::frame::opcode::text, ec);
}

void Server::Impl::SendBinary(const Session& s, const std::string& bytes) {
  std::error_code ec;
  ws_.send(s.hdl, bytes, websocketpp::frame::opcode::binary, ec);
}

void Server::Impl::SendToPages(const std::string& text, const std::string* topic) {
  for (auto& [hdl, s] : sessions_) {
    if (s->kind != Kind::kPage || (topic != nullptr && s->selected_topic != *topic))
      continue;
    std::error_code ec;
    auto con = ws_.get_con_from_hdl(hdl, ec);
    if (ec || con->get_buffered_amount() >= opt_.client_send_buffer_bytes) {
      s->dropped.fetch_add(1, std::memory_order_relaxed);
      continue;
    }
    SendText(*s, text);
  }
}

void Server::Impl::Status(const Session& s, foxglove::StatusLevel level,
                          const std::string& message) {
  SendText(s, foxglove::Status(level, message));
}

std::shared_ptr<Session> Server::Impl::FindSession(uint64_t id) const {
  MutexLock lock(&clients_mu_);
  auto it = clients_.find(id);
  return it == clients_.end() ? nullptr : it->second;
}

const TopicInfo* Server::Impl::FindTopic(const std::string& name) const {
  for (const auto& t : graph_.topics)
    if (t.name == name)
      return &t;
  return nullptr;
}

std::vector<ClientInfo> Server::Impl::Clients() const {
  std::vector<ClientInfo> out;
  MutexLock lock(&clients_mu_);
  for (const auto& [id, s] : clients_) {
    ClientInfo info;
    info.id = id;
    info.remote = s->remote;
    info.protocol = s->protocol;
    info.sent = s->sent.load(std::memory_order_relaxed);
    info.dropped = s->dropped.load(std::memory_order_relaxed);
    {
      MutexLock session_lock(&s->mu);
      info.queued = s->queue.size();
    }
    out.push_back(std::move(info));
  }
  return out;
}

// ---------------------------------------------------------------------------------------------

Server::Server(BusSource& source, ServerOptions options)
    : impl_(std::make_unique<Impl>(source, std::move(options))) {}

Server::~Server() = default;

bool Server::Start(std::string* error) {
  std::string ignored;
  return impl_->Start(error != nullptr ? error : &ignored);
}

void Server::Stop() {
  impl_->Stop();
}

uint16_t Server::port() const {
  return impl_->port();
}

std::string Server::session_id() const {
  return impl_->session_id();
}

std::vector<ClientInfo> Server::Clients() const {
  return impl_->Clients();
}

void Server::Refresh() {
  impl_->Refresh();
}

}  // namespace tarvik::korvan::web
