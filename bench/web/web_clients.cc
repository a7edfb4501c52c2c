// The "clients" role of korvan_bench_web: many WebSocket clients of `korvan web` in one
// process on one thread, so that twenty viewers cost the machine what the server makes them
// cost, not what twenty browsers would.
//   foxglove clients: subscribe to the wanted topics as they are advertised, count messages;
//   page clients: select a topic (its latest message is pushed a few times a second) and
//   receive the statistics of every topic, count text messages.
// Prints "ready" once every client has what it asked for, and a result line when SIGTERM ends
// it.
#include "web/web_clients.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include <rapidjson/document.h>
#include <asio/steady_timer.hpp>
#include <websocketpp/client.hpp>
#include <websocketpp/config/asio_no_tls_client.hpp>

#include "common/bench_common.h"

namespace korvan_bench {
namespace {

using WsClient = websocketpp::client<websocketpp::config::asio_client>;
using Hdl = websocketpp::connection_hdl;

std::atomic<bool> g_stop{false};

void OnTerm(int) {
  g_stop = true;
}

struct Client {
  bool foxglove = true;
  Hdl hdl;
  bool open = false;
  std::set<std::string> subscribed;
  uint32_t next_subscription = 1;
  uint64_t messages = 0;
  uint64_t bytes = 0;
};

}  // namespace

int RunClients(const Options& options) {
  struct sigaction action {};
  action.sa_handler = OnTerm;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  const std::string url = "ws://127.0.0.1:" + options.String("port", "8765") + "/";
  const int foxglove = static_cast<int>(options.Int("foxglove", 0));
  const int pages = static_cast<int>(options.Int("pages", 0));
  const std::vector<std::string> topics = SplitList(options.String("topics", ""));
  const std::string select = options.String("select", topics.empty() ? "" : topics.front());

  WsClient ws;
  ws.clear_access_channels(websocketpp::log::alevel::all);
  ws.clear_error_channels(websocketpp::log::elevel::all);
  ws.init_asio();
  std::vector<std::unique_ptr<Client>> clients;
  bool ready_said = false;

  auto all_ready = [&] {
    for (const auto& c : clients) {
      if (!c->open || (c->foxglove && c->subscribed.size() < topics.size()))
        return false;
    }
    return true;
  };
  auto say_ready = [&] {
    if (!ready_said && all_ready()) {
      ready_said = true;
      std::printf("ready\n");
      std::fflush(stdout);
    }
  };

  for (int i = 0; i < foxglove + pages; ++i) {
    auto client = std::make_unique<Client>();
    client->foxglove = i < foxglove;
    Client* c = client.get();
    clients.push_back(std::move(client));
    std::error_code ec;
    WsClient::connection_ptr con = ws.get_connection(url, ec);
    if (ec) {
      std::fprintf(stderr, "clients: %s\n", ec.message().c_str());
      return 1;
    }
    con->add_subprotocol(c->foxglove ? "foxglove.websocket.v1" : "korvan.web.v1");
    con->set_open_handler([&, c](Hdl) {
      c->open = true;
      if (!c->foxglove) {
        std::error_code ignored;
        ws.send(c->hdl, "{\"op\":\"select\",\"topic\":\"" + select + "\"}",
                websocketpp::frame::opcode::text, ignored);
      }
      say_ready();
    });
    con->set_fail_handler([](Hdl) { std::fprintf(stderr, "clients: a connection failed\n"); });
    con->set_message_handler([&, c](Hdl, WsClient::message_ptr msg) {
      ++c->messages;
      c->bytes += msg->get_payload().size();
      if (!c->foxglove || msg->get_opcode() != websocketpp::frame::opcode::text)
        return;
      // Subscribe to the wanted channels as they are advertised.
      rapidjson::Document doc;
      doc.Parse(msg->get_payload().c_str());
      if (doc.HasParseError() || !doc.IsObject() || !doc.HasMember("op") ||
          std::string(doc["op"].GetString()) != "advertise")
        return;
      std::string subscribe;
      for (const auto& channel : doc["channels"].GetArray()) {
        const std::string topic = channel["topic"].GetString();
        const bool wanted =
            topics.empty() || std::find(topics.begin(), topics.end(), topic) != topics.end();
        if (!wanted || !c->subscribed.insert(topic).second)
          continue;
        subscribe += std::string(subscribe.empty() ? "" : ",") +
                     "{\"id\":" + std::to_string(c->next_subscription++) +
                     ",\"channelId\":" + std::to_string(channel["id"].GetUint()) + "}";
      }
      if (!subscribe.empty()) {
        std::error_code ignored;
        ws.send(c->hdl, "{\"op\":\"subscribe\",\"subscriptions\":[" + subscribe + "]}",
                websocketpp::frame::opcode::text, ignored);
      }
      say_ready();
    });
    c->hdl = con->get_handle();
    ws.connect(con);
  }

  // Counting starts when the clients are ready; SIGTERM ends it.
  const int64_t cpu_start = ProcessCpuNs();
  const auto start = Clock::now();
  std::vector<uint64_t> counted_from(clients.size(), 0);
  bool counting = false;
  Clock::time_point counting_since;
  asio::steady_timer timer(ws.get_io_service());
  std::function<void()> tick = [&] {
    if (!counting && ready_said) {
      counting = true;
      counting_since = Clock::now();
      for (size_t i = 0; i < clients.size(); ++i)
        counted_from[i] = clients[i]->messages;
    }
    if (g_stop) {
      ws.stop();
      return;
    }
    timer.expires_after(std::chrono::milliseconds(50));
    timer.async_wait([&](const std::error_code& e) {
      if (!e)
        tick();
    });
  };
  tick();
  ws.run();

  const double seconds =
      counting ? std::chrono::duration<double>(Clock::now() - counting_since).count() : 0;
  uint64_t total = 0, least = ~uint64_t{0}, most = 0;
  for (size_t i = 0; i < clients.size(); ++i) {
    const uint64_t n = clients[i]->messages - counted_from[i];
    total += n;
    least = std::min(least, n);
    most = std::max(most, n);
  }
  ResultLine()
      .Add("role", "clients")
      .Add("ok", static_cast<int64_t>(ready_said))
      .Add("clients", static_cast<int64_t>(clients.size()))
      .Add("seconds", seconds)
      .Add("messages", total)
      .Add("least", clients.empty() ? 0 : least)
      .Add("most", most)
      .Add("cpu_ns", ProcessCpuNs() - cpu_start)
      .Add("wall_s", std::chrono::duration<double>(Clock::now() - start).count())
      .Print();
  return ready_said ? 0 : 4;
}

}  // namespace korvan_bench
