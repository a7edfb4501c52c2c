// The web server end to end over loopback, with the fake source: the Foxglove protocol
// (handshake, advertising, subscriptions, service calls, bad input, slow and vanishing
// clients), the page's channel and the static files.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/timestamp.pb.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <websocketpp/base64/base64.hpp>

#include "fake_bus_source.h"
#include "korvan/web/server.h"
#include "web_test_proto/web_test.pb.h"
#include "ws_test_client.h"

namespace korvan_web_test {
namespace {

namespace pb = google::protobuf;
using korvan::webtest::Pose;
using korvan::webtest::SetSpeedRequest;
using korvan::webtest::SetSpeedResponse;

constexpr char kFoxglove[] = "foxglove.websocket.v1";
constexpr char kPage[] = "korvan.web.v1";

rapidjson::Document Json(const WsMessage& m) {
  rapidjson::Document doc;
  doc.Parse(m.data.c_str());
  return doc;
}

std::function<bool(const WsMessage&)> Op(const std::string& op) {
  return [op](const WsMessage& m) {
    if (m.binary)
      return false;
    auto doc = Json(m);
    return doc.IsObject() && doc.HasMember("op") && doc["op"].IsString() &&
           op == doc["op"].GetString();
  };
}

uint32_t U32(const std::string& b, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i)
    v |= static_cast<uint32_t>(static_cast<unsigned char>(b[at + i])) << (8 * i);
  return v;
}

uint64_t U64(const std::string& b, size_t at) {
  uint64_t v = 0;
  for (size_t i = 0; i < 8; ++i)
    v |= static_cast<uint64_t>(static_cast<unsigned char>(b[at + i])) << (8 * i);
  return v;
}

std::string LeU32(uint32_t v) {
  std::string s;
  for (int i = 0; i < 4; ++i)
    s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
  return s;
}

std::string CallFrame(uint32_t service, uint32_t call, const std::string& encoding,
                      const std::string& payload) {
  return std::string(1, '\x02') + LeU32(service) + LeU32(call) +
         LeU32(static_cast<uint32_t>(encoding.size())) + encoding + payload;
}

// A message data frame for `subscription`, with its payload.
std::function<bool(const WsMessage&)> DataFor(uint32_t subscription) {
  return [subscription](const WsMessage& m) {
    return m.binary && m.data.size() >= 13 && m.data[0] == 1 && U32(m.data, 1) == subscription;
  };
}

std::string PoseBytes(uint64_t seq, double x = 1.5) {
  Pose pose;
  pose.set_seq(seq);
  pose.set_x(x);
  pose.set_frame_id("map");
  return pose.SerializeAsString();
}

template <typename Pred>
bool Eventually(Pred pred, std::chrono::milliseconds timeout = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred())
      return true;
    std::this_thread::sleep_for(2ms);  // polling a condition, bounded by the deadline
  }
  return pred();
}

class WebServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    source_.AddNode("planner", "planner");
    source_.AddNode("tracker", "tracker");
    source_.AddTopic("/demo/pose", Pose::descriptor(), {"planner"}, {"tracker"});
    source_.AddTopic("/demo/clock", pb::Timestamp::descriptor(), {"planner"}, {});
    source_.AddService("/planner/set_speed", SetSpeedRequest::descriptor(),
                       SetSpeedResponse::descriptor(), {"planner"},
                       [](Encoding, std::string_view request) {
                         SetSpeedRequest req;
                         if (!req.ParseFromArray(request.data(), static_cast<int>(request.size())))
                           return Result<std::string>::Fail("bad request");
                         if (req.speed() < 0)
                           return Result<std::string>::Fail("speed must not be negative");
                         SetSpeedResponse res;
                         res.set_accepted(true);
                         res.set_previous(req.speed() / 2);
                         return Result<std::string>::Ok(res.SerializeAsString());
                       });
    source_.SetApplications(
        {{"planner", "running", 42, false, ""}, {"tracker", "running", 7, true, "lost the pose"}});
    source_.SetParameters("planner", {{"speed", "double", "1.5"},
                                      {"enabled", "bool", "true"},
                                      {"label", "string", "\"alpha\""}});
  }

  void StartServer(ServerOptions options = {}) {
    options.port = 0;
    options.poll_interval = 100ms;
    options.stats_interval = 100ms;
    options.message_interval = 50ms;
    server_ = std::make_unique<Server>(source_, options);
    std::string error;
    ASSERT_TRUE(server_->Start(&error)) << error;
  }

  // Connects a Foxglove client and waits for its first advertise.
  std::unique_ptr<WsTestClient> Foxglove() {
    auto client = std::make_unique<WsTestClient>();
    EXPECT_TRUE(client->Connect(server_->port(), {kFoxglove}));
    EXPECT_TRUE(client->WaitFor(Op("advertise")));
    return client;
  }

  // The channel id the client was given for `topic`, from the latest advertise naming it.
  static std::optional<uint32_t> ChannelId(WsTestClient& client, const std::string& topic) {
    std::optional<uint32_t> id;
    client.WaitFor([&](const WsMessage& m) {
      if (!Op("advertise")(m))
        return false;
      auto doc = Json(m);
      for (const auto& c : doc["channels"].GetArray())
        if (topic == c["topic"].GetString())
          id = c["id"].GetUint();
      return id.has_value();
    });
    return id;
  }

  void Subscribe(WsTestClient& client, uint32_t subscription, uint32_t channel) {
    client.SendText(
        "{\"op\":\"subscribe\",\"subscriptions\":[{\"id\":" + std::to_string(subscription) +
        ",\"channelId\":" + std::to_string(channel) + "}]}");
  }

  // The next status message from index `from` on, as (level, message).
  static std::pair<int, std::string> NextStatus(WsTestClient& client, size_t from) {
    auto m = client.WaitFor(Op("status"), from);
    if (!m)
      return {-1, "no status"};
    auto doc = Json(*m);
    return {doc["level"].GetInt(), doc["message"].GetString()};
  }

  FakeBusSource source_;  // outlives the server
  std::unique_ptr<Server> server_;
};

// --- handshake and advertising ---------------------------------------------------------------

TEST_F(WebServerTest, HandshakeSelectsTheFoxgloveSubprotocolAndTheServerTalksFirst) {
  StartServer();
  WsTestClient client;
  ASSERT_TRUE(client.Connect(server_->port(), {"something.else", kFoxglove}));
  EXPECT_EQ(client.subprotocol(), kFoxglove);
  ASSERT_TRUE(client.WaitFor(Op("advertiseServices")));

  auto messages = client.messages();
  ASSERT_GE(messages.size(), 3u);
  auto info = Json(messages[0]);
  EXPECT_STREQ(info["op"].GetString(), "serverInfo");
  std::vector<std::string> caps;
  for (const auto& c : info["capabilities"].GetArray())
    caps.push_back(c.GetString());
  EXPECT_NE(std::find(caps.begin(), caps.end(), "services"), caps.end());
  EXPECT_EQ(info["sessionId"].GetString(), server_->session_id());
  EXPECT_FALSE(server_->session_id().empty());

  auto advertise = Json(messages[1]);
  EXPECT_STREQ(advertise["op"].GetString(), "advertise");
  ASSERT_EQ(advertise["channels"].Size(), 2u);
  std::set<uint32_t> ids;
  for (const auto& c : advertise["channels"].GetArray()) {
    EXPECT_STREQ(c["encoding"].GetString(), "protobuf");
    EXPECT_STREQ(c["schemaEncoding"].GetString(), "protobuf");
    ids.insert(c["id"].GetUint());
    if (std::string(c["topic"].GetString()) == "/demo/pose")
      EXPECT_STREQ(c["schemaName"].GetString(), "korvan.webtest.Pose");
    else
      EXPECT_STREQ(c["schemaName"].GetString(), "google.protobuf.Timestamp");
  }
  EXPECT_EQ(ids.size(), 2u);

  auto services = Json(messages[2]);
  ASSERT_EQ(services["services"].Size(), 1u);
  const auto& s = services["services"][0];
  EXPECT_STREQ(s["name"].GetString(), "/planner/set_speed");
  EXPECT_STREQ(s["request"]["schemaName"].GetString(), "korvan.webtest.SetSpeedRequest");
  EXPECT_STREQ(s["response"]["schemaName"].GetString(), "korvan.webtest.SetSpeedResponse");
  EXPECT_STREQ(s["request"]["encoding"].GetString(), "protobuf");
}

TEST_F(WebServerTest, HandshakeWithoutAKnownSubprotocolIsRefused) {
  StartServer();
  WsTestClient none;
  EXPECT_FALSE(none.Connect(server_->port(), {}));
  EXPECT_EQ(none.http_status(), 400);
  WsTestClient other;
  EXPECT_FALSE(other.Connect(server_->port(), {"foxglove.websocket.v2"}));
  // The server carries on.
  auto client = Foxglove();
  EXPECT_TRUE(ChannelId(*client, "/demo/pose"));
}

TEST_F(WebServerTest, AdvertisedSchemaIsADescriptorSetWithEveryImport) {
  StartServer();
  auto client = Foxglove();
  auto m = client->WaitFor(Op("advertise"));
  auto doc = Json(*m);
  std::string schema;
  for (const auto& c : doc["channels"].GetArray())
    if (std::string(c["topic"].GetString()) == "/demo/pose")
      schema = websocketpp::base64_decode(c["schema"].GetString());
  pb::FileDescriptorSet set;
  ASSERT_TRUE(set.ParseFromString(schema));
  pb::DescriptorPool pool;
  for (const auto& file : set.file())
    ASSERT_NE(pool.BuildFile(file), nullptr) << file.name();
  EXPECT_NE(pool.FindMessageTypeByName("korvan.webtest.Pose"), nullptr);
  EXPECT_NE(pool.FindFileByName("google/protobuf/timestamp.proto"), nullptr);
}

TEST_F(WebServerTest, TopicsThatComeGoOrChangeTypeAreAdvertisedAgain) {
  StartServer();
  auto client = Foxglove();
  size_t mark = client->count();
  source_.AddTopic("/demo/extra", Pose::descriptor());
  source_.NotifyChanged();
  auto extra = ChannelId(*client, "/demo/extra");
  ASSERT_TRUE(extra);
  Subscribe(*client, 1, *extra);
  ASSERT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/extra") == 1; }));

  // Same name, another type: the old channel goes, a new one with a new id comes.
  mark = client->count();
  source_.AddTopic("/demo/extra", pb::Timestamp::descriptor());
  source_.NotifyChanged();
  auto unadvertise = client->WaitFor(Op("unadvertise"), mark);
  ASSERT_TRUE(unadvertise);
  EXPECT_EQ(Json(*unadvertise)["channelIds"][0].GetUint(), *extra);
  auto changed = client->WaitFor(
      [&](const WsMessage& m) {
        return Op("advertise")(m) && m.data.find("google.protobuf.Timestamp") != std::string::npos;
      },
      mark);
  ASSERT_TRUE(changed);
  EXPECT_NE(Json(*changed)["channels"][0]["id"].GetUint(), *extra);
  // The subscription went with the old channel.
  EXPECT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/extra") == 0; }));

  mark = client->count();
  source_.RemoveTopic("/demo/extra");
  source_.NotifyChanged();
  EXPECT_TRUE(client->WaitFor(Op("unadvertise"), mark));
}

// --- subscriptions and message data ----------------------------------------------------------

TEST_F(WebServerTest, SubscribersGetMessageDataFramesTaggedWithTheirOwnSubscriptionIds) {
  StartServer();
  auto a = Foxglove();
  auto b = Foxglove();
  auto channel = ChannelId(*a, "/demo/pose");
  ASSERT_TRUE(channel);
  Subscribe(*a, 7, *channel);
  Subscribe(*b, 900, *channel);
  // One source subscription serves both.
  ASSERT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/pose") == 1; }));
  ASSERT_TRUE(Eventually([&] { return server_->Clients().size() == 2; }));

  // Publish until both have one (their subscribes may still be on the way).
  const int64_t before = WallNs();
  std::optional<WsMessage> on_a, on_b;
  ASSERT_TRUE(Eventually([&] {
    source_.Publish("/demo/pose", PoseBytes(1));
    on_a = a->WaitFor(DataFor(7), 0, 20ms);
    on_b = b->WaitFor(DataFor(900), 0, 20ms);
    return on_a && on_b;
  }));
  const int64_t after = WallNs();
  EXPECT_EQ(on_a->data.substr(13), PoseBytes(1));
  EXPECT_EQ(on_b->data.substr(13), PoseBytes(1));
  const uint64_t stamp = U64(on_a->data, 5);
  EXPECT_GE(stamp, static_cast<uint64_t>(before));
  EXPECT_LE(stamp, static_cast<uint64_t>(after));

  // After unsubscribing, a's stream stops; b's goes on. A marker on another topic shows that
  // nothing is merely late: frames to one client keep their order.
  a->SendText("{\"op\":\"unsubscribe\",\"subscriptionIds\":[7]}");
  auto clock = ChannelId(*a, "/demo/clock");
  Subscribe(*a, 8, *clock);
  ASSERT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/clock") == 1; }));
  const size_t mark = a->count();
  const size_t b_mark = b->count();
  source_.Publish("/demo/pose", PoseBytes(2));
  source_.Publish("/demo/clock", pb::Timestamp().SerializeAsString());
  ASSERT_TRUE(a->WaitFor(DataFor(8), mark));
  EXPECT_FALSE(a->WaitFor(DataFor(7), mark, 0ms));
  EXPECT_TRUE(b->WaitFor(DataFor(900), b_mark));

  b->Close();
  EXPECT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/pose") == 0; }));
}

TEST_F(WebServerTest, ServiceCallsAreAnsweredOrFailIntoServiceCallFailure) {
  StartServer();
  auto client = Foxglove();
  auto services = client->WaitFor(Op("advertiseServices"));
  ASSERT_TRUE(services);
  const uint32_t id = Json(*services)["services"][0]["id"].GetUint();

  SetSpeedRequest request;
  request.set_speed(3.0);
  client->SendBinary(CallFrame(id, 41, "protobuf", request.SerializeAsString()));
  auto response = client->WaitFor([](const WsMessage& m) { return m.binary && m.data[0] == 3; });
  ASSERT_TRUE(response);
  const std::string& r = response->data;
  ASSERT_GE(r.size(), 13u);
  EXPECT_EQ(U32(r, 1), id);
  EXPECT_EQ(U32(r, 5), 41u);
  ASSERT_EQ(U32(r, 9), 8u);
  EXPECT_EQ(r.substr(13, 8), "protobuf");
  SetSpeedResponse answer;
  ASSERT_TRUE(answer.ParseFromString(r.substr(21)));
  EXPECT_TRUE(answer.accepted());
  EXPECT_DOUBLE_EQ(answer.previous(), 1.5);

  struct Case {
    uint32_t service;
    uint32_t call;
    std::string encoding;
    double speed;
    std::string expect;
  };
  for (const Case& c : {Case{id + 100, 1, "protobuf", 1, "not available"},
                        Case{id, 2, "protobuf", -1, "must not be negative"},
                        Case{id, 3, "json", 1, "not supported"}}) {
    SCOPED_TRACE(c.expect);
    request.set_speed(c.speed);
    client->SendBinary(CallFrame(c.service, c.call, c.encoding, request.SerializeAsString()));
    auto failure = client->WaitFor([&](const WsMessage& m) {
      if (!Op("serviceCallFailure")(m))
        return false;
      return Json(m)["callId"].GetUint() == c.call;
    });
    ASSERT_TRUE(failure);
    auto doc = Json(*failure);
    EXPECT_EQ(doc["serviceId"].GetUint(), c.service);
    EXPECT_NE(std::string(doc["message"].GetString()).find(c.expect), std::string::npos)
        << doc["message"].GetString();
  }
}

// --- bad input -------------------------------------------------------------------------------

TEST_F(WebServerTest, BadInputIsAnsweredWithStatusAndTheConnectionStays) {
  StartServer();
  auto client = Foxglove();
  const uint32_t pose = *ChannelId(*client, "/demo/pose");
  const uint32_t clock = *ChannelId(*client, "/demo/clock");

  struct Case {
    std::string text;
    bool binary;
    int level;
  };
  const std::string deep(200000, '[');
  const std::vector<Case> cases = {
      {"not json", false, 2},
      {"[1,2,3]", false, 2},
      {"{\"op\":5}", false, 2},
      {"{\"op\":\"noSuchOp\"}", false, 2},
      {"{\"op\":\"\\udc00\"}", false, 2},
      {deep, false, 2},
      {"{\"op\":\"subscribe\"}", false, 2},
      {"{\"op\":\"subscribe\",\"subscriptions\":[{\"id\":-1,\"channelId\":1}]}", false, 2},
      {"{\"op\":\"getParameters\",\"parameterNames\":[]}", false, 2},
      {"{\"op\":\"advertise\",\"channels\":[]}", false, 2},
      {"{\"op\":\"unsubscribe\",\"subscriptionIds\":[12345]}", false, 1},
      {"", true, 2},
      {"\x02\x01\x00", true, 2},
      {std::string("\x02", 1) + LeU32(1) + LeU32(1) + LeU32(1000) + "pro", true, 2},
      {"\x09", true, 2},
      {std::string("\x01", 1) + LeU32(1) + "data", true, 2},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    const size_t mark = client->count();
    if (cases[i].binary)
      client->SendBinary(cases[i].text);
    else
      client->SendText(cases[i].text);
    auto [level, message] = NextStatus(*client, mark);
    EXPECT_EQ(level, cases[i].level) << message;
  }

  // One bad entry among good ones: the good ones still take effect.
  size_t mark = client->count();
  client->SendText(
      "{\"op\":\"subscribe\",\"subscriptions\":[{\"id\":1,\"channelId\":99999},"
      "{\"id\":2,\"channelId\":" +
      std::to_string(pose) + "}]}");
  auto [level, message] = NextStatus(*client, mark);
  EXPECT_EQ(level, 1);
  EXPECT_NE(message.find("99999"), std::string::npos);
  ASSERT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/pose") == 1; }));

  // A reused subscription id is an error; a second subscription to one channel a warning.
  mark = client->count();
  Subscribe(*client, 2, clock);
  EXPECT_EQ(NextStatus(*client, mark).first, 2);
  mark = client->count();
  Subscribe(*client, 3, pose);
  EXPECT_EQ(NextStatus(*client, mark).first, 1);

  mark = client->count();
  ASSERT_TRUE(Eventually([&] {
    source_.Publish("/demo/pose", PoseBytes(5));
    return client->WaitFor(DataFor(2), mark, 20ms).has_value();
  }));
  EXPECT_FALSE(client->WaitFor(DataFor(3), mark, 0ms));
}

TEST_F(WebServerTest, OversizedMessageClosesOnlyThatConnection) {
  ServerOptions options;
  options.max_message_bytes = 64 * 1024;
  StartServer(options);
  auto bystander = Foxglove();
  auto offender = Foxglove();
  offender->SendText(std::string(100 * 1024, 'x'));
  ASSERT_TRUE(offender->WaitClosed());
  EXPECT_EQ(offender->close_code(), 1009);

  const uint32_t pose = *ChannelId(*bystander, "/demo/pose");
  Subscribe(*bystander, 1, pose);
  EXPECT_TRUE(Eventually([&] {
    source_.Publish("/demo/pose", PoseBytes(1));
    return bystander->WaitFor(DataFor(1), 0, 20ms).has_value();
  }));
  auto late = Foxglove();
  EXPECT_TRUE(ChannelId(*late, "/demo/pose"));
}

TEST_F(WebServerTest, AbruptDisconnectForgetsTheClientAndItsSubscriptions) {
  StartServer();
  RawWsClient raw;
  ASSERT_TRUE(raw.Connect(server_->port(), kFoxglove));
  ASSERT_TRUE(Eventually([&] { return server_->Clients().size() == 1; }));
  // Channel ids start at 1 and the fixture's topics get the first two.
  raw.SendText(
      "{\"op\":\"subscribe\",\"subscriptions\":[{\"id\":1,\"channelId\":1},"
      "{\"id\":2,\"channelId\":2}]}");
  ASSERT_TRUE(Eventually([&] {
    return source_.Subscriptions("/demo/pose") + source_.Subscriptions("/demo/clock") == 2;
  }));
  raw.Abort();
  EXPECT_TRUE(Eventually([&] { return server_->Clients().empty(); }));
  EXPECT_TRUE(Eventually([&] {
    return source_.Subscriptions("/demo/pose") + source_.Subscriptions("/demo/clock") == 0;
  }));
  // Publishing into the void is harmless.
  source_.Publish("/demo/pose", PoseBytes(1));
}

TEST_F(WebServerTest, SlowClientLosesMessagesAndNobodyElseDoes) {
  ServerOptions options;
  options.client_queue_messages = 32;
  options.client_send_buffer_bytes = 64 * 1024;
  StartServer(options);

  RawWsClient slow;  // subscribes, then never reads again
  ASSERT_TRUE(slow.Connect(server_->port(), kFoxglove, 4096));
  slow.SendText("{\"op\":\"subscribe\",\"subscriptions\":[{\"id\":5,\"channelId\":1}]}");
  auto fast = Foxglove();
  ASSERT_EQ(*ChannelId(*fast, "/demo/pose"), 1u);
  Subscribe(*fast, 6, 1);

  auto slow_info = [&]() -> std::optional<ClientInfo> {
    for (const auto& c : server_->Clients())
      if (c.dropped > 0)
        return c;
    return std::nullopt;
  };
  // Each message waits for the fast client before the next, so it never falls behind; the
  // slow one fills its socket, then its queue, then drops.
  const std::string big(32 * 1024, 'p');
  size_t published = 0;
  size_t received = 0;
  const auto deadline = std::chrono::steady_clock::now() + 120s;
  while (!slow_info() && std::chrono::steady_clock::now() < deadline && published < 20000) {
    const size_t mark = fast->count();
    source_.Publish("/demo/pose", big + std::to_string(published));
    ++published;
    if (fast->WaitFor(DataFor(6), mark, 5s))
      ++received;
    else if (received > 0)
      break;  // the fast client lost one: fail below
    else
      --published;  // its subscription was not in place yet; not counted
  }
  auto info = slow_info();
  ASSERT_TRUE(info) << "no drops after " << published << " messages";
  EXPECT_GT(info->dropped, 0u);
  EXPECT_LE(info->queued, 32u);
  EXPECT_EQ(received, published);
  for (const auto& c : server_->Clients()) {
    if (c.id != info->id) {
      EXPECT_EQ(c.dropped, 0u);
    }
  }
  for (const auto& m : fast->messages()) {
    if (m.binary) {
      EXPECT_EQ(U32(m.data, 1), 6u);
    }
  }
}

// --- the page's channel ------------------------------------------------------------------------

TEST_F(WebServerTest, PageGetsGraphStatsAppsAndTheSelectedTopicDecoded) {
  StartServer();
  WsTestClient page;
  ASSERT_TRUE(page.Connect(server_->port(), {kPage}));
  EXPECT_EQ(page.subprotocol(), kPage);
  ASSERT_TRUE(page.WaitFor(Op("hello")));
  auto graph = page.WaitFor(Op("graph"));
  ASSERT_TRUE(graph);
  auto g = Json(*graph);
  EXPECT_EQ(g["nodes"].Size(), 2u);
  EXPECT_EQ(g["topics"].Size(), 2u);
  EXPECT_STREQ(g["topics"][0]["publishers"][0].GetString(), "planner");
  EXPECT_STREQ(g["services"][0]["providers"][0].GetString(), "planner");

  auto apps = page.WaitFor(Op("apps"));
  ASSERT_TRUE(apps);
  auto a = Json(*apps);
  EXPECT_EQ(a["apps"][0]["frame"].GetUint64(), 42u);
  EXPECT_TRUE(a["apps"][1]["failed"].GetBool());
  EXPECT_STREQ(a["apps"][1]["failure"].GetString(), "lost the pose");

  // Statistics come from the source and show a rate once messages flow.
  ASSERT_TRUE(Eventually(
      [&] {
        source_.Publish("/demo/pose", PoseBytes(1), WallNs() - 2'000'000);
        return page
            .WaitFor(
                [](const WsMessage& m) {
                  if (!Op("stats")(m))
                    return false;
                  auto doc = Json(m);
                  for (const auto& t : doc["topics"].GetArray())
                    if (std::string(t["topic"].GetString()) == "/demo/pose" &&
                        t["rateHz"].GetDouble() > 0 && t["delayMs"].IsNumber())
                      return t["delayMs"].GetDouble() >= 2.0;
                  return false;
                },
                0, 20ms)
            .has_value();
      },
      20s));

  // Selecting a topic: its latest message, decoded; a newer one replaces it.
  page.SendText("{\"op\":\"select\",\"topic\":\"/demo/pose\"}");
  ASSERT_TRUE(Eventually([&] {
    source_.Publish("/demo/pose", PoseBytes(77, 4.25));
    return page.WaitFor(Op("message"), 0, 20ms).has_value();
  }));
  auto message = page.WaitFor(Op("message"));
  auto doc = Json(*message);
  EXPECT_STREQ(doc["topic"].GetString(), "/demo/pose");
  EXPECT_STREQ(doc["type"].GetString(), "korvan.webtest.Pose");
  ASSERT_TRUE(doc.HasMember("json")) << message->data;
  EXPECT_DOUBLE_EQ(doc["json"]["x"].GetDouble(), 4.25);
  EXPECT_STREQ(doc["json"]["seq"].GetString(), "77");  // 64-bit integers are strings in JSON

  page.SendText("{\"op\":\"select\",\"topic\":\"/no/such/topic\"}");
  EXPECT_TRUE(page.WaitFor(Op("error")));
  page.SendText("{\"op\":\"select\",\"topic\":\"\"}");
  EXPECT_TRUE(Eventually([&] { return source_.Subscriptions("/demo/pose") == 0; }));
}

TEST_F(WebServerTest, PageEditsParametersThroughTheSource) {
  StartServer();
  WsTestClient page;
  ASSERT_TRUE(page.Connect(server_->port(), {kPage}));
  page.SendText("{\"op\":\"listParams\",\"node\":\"planner\"}");
  auto params = page.WaitFor(Op("params"));
  ASSERT_TRUE(params);
  auto p = Json(*params);
  ASSERT_EQ(p["params"].Size(), 3u);
  EXPECT_DOUBLE_EQ(p["params"][0]["value"].GetDouble(), 1.5);
  EXPECT_STREQ(p["params"][2]["value"].GetString(), "alpha");

  size_t mark = page.count();
  page.SendText(
      "{\"op\":\"setParam\",\"node\":\"planner\",\"name\":\"speed\",\"value\":2.5,"
      "\"id\":\"e1\"}");
  auto result = page.WaitFor(Op("paramResult"), mark);
  ASSERT_TRUE(result);
  auto r = Json(*result);
  EXPECT_TRUE(r["ok"].GetBool());
  EXPECT_STREQ(r["id"].GetString(), "e1");
  EXPECT_DOUBLE_EQ(r["param"]["value"].GetDouble(), 2.5);
  EXPECT_EQ(source_.ParameterWrites(), std::vector<std::string>{"planner/speed=2.5"});
  // The table is sent again with the new value.
  auto table = page.WaitFor(Op("params"), mark);
  ASSERT_TRUE(table);
  EXPECT_DOUBLE_EQ(Json(*table)["params"][0]["value"].GetDouble(), 2.5);

  mark = page.count();
  page.SendText(
      "{\"op\":\"setParam\",\"node\":\"planner\",\"name\":\"enabled\",\"value\":\"yes\","
      "\"id\":\"e2\"}");
  result = page.WaitFor(Op("paramResult"), mark);
  ASSERT_TRUE(result);
  r = Json(*result);
  EXPECT_FALSE(r["ok"].GetBool());
  EXPECT_NE(std::string(r["error"].GetString()).find("bool"), std::string::npos);

  mark = page.count();
  page.SendText("{\"op\":\"listParams\",\"node\":\"nobody\"}");
  auto missing = page.WaitFor(
      [](const WsMessage& m) {
        return Op("params")(m) && std::string(Json(m)["node"].GetString()) == "nobody";
      },
      mark);
  ASSERT_TRUE(missing);
  EXPECT_TRUE(Json(*missing).HasMember("error"));

  for (const char* bad : {"garbage", "{\"op\":\"setParam\",\"node\":\"planner\"}", "{\"op\":1}"}) {
    mark = page.count();
    page.SendText(bad);
    EXPECT_TRUE(page.WaitFor(Op("error"), mark)) << bad;
  }
  EXPECT_EQ(source_.ParameterWrites().size(), 1u);
}

// --- static files ----------------------------------------------------------------------------

TEST_F(WebServerTest, ServesThePageAndNothingOutsideIt) {
  namespace fs = std::filesystem;
  const fs::path root = fs::temp_directory_path() / ("korvan_web_test_" + std::to_string(getpid()));
  fs::remove_all(root);
  fs::create_directories(root / "page" / "assets");
  std::ofstream(root / "page" / "index.html") << "<!doctype html><title>korvan</title>";
  std::ofstream(root / "page" / "assets" / "app.js") << "console.log(1)";
  std::ofstream(root / "secret.txt") << "do not serve";
  fs::create_symlink(root / "secret.txt", root / "page" / "link.txt");

  ServerOptions options;
  options.static_dir = (root / "page").string();
  StartServer(options);
  const uint16_t port = server_->port();

  std::string index = HttpRequest(port, "GET", "/");
  EXPECT_EQ(index.rfind("HTTP/1.1 200", 0), 0u) << index;
  EXPECT_NE(index.find("Content-Type: text/html"), std::string::npos);
  EXPECT_NE(index.find("<title>korvan</title>"), std::string::npos);
  std::string js = HttpRequest(port, "GET", "/assets/app.js?v=3");
  EXPECT_EQ(js.rfind("HTTP/1.1 200", 0), 0u) << js;
  EXPECT_NE(js.find("Content-Type: text/javascript"), std::string::npos);

  for (const char* target : {"/../secret.txt", "/assets/../../secret.txt", "/%2e%2e/secret.txt",
                             "/assets/%2E%2E/%2e%2e/secret.txt", "/..%2fsecret.txt"}) {
    std::string response = HttpRequest(port, "GET", target);
    EXPECT_EQ(response.find("do not serve"), std::string::npos) << target;
    EXPECT_NE(response.rfind("HTTP/1.1 200", 0), 0u) << target;
  }
  EXPECT_EQ(HttpRequest(port, "GET", "/link.txt").rfind("HTTP/1.1 404", 0), 0u);
  EXPECT_EQ(HttpRequest(port, "GET", "/missing.js").rfind("HTTP/1.1 404", 0), 0u);
  EXPECT_EQ(HttpRequest(port, "DELETE", "/").rfind("HTTP/1.1 405", 0), 0u);
  fs::remove_all(root);
}

TEST(WebServerStartTest, ReportsAnAddressItCannotBind) {
  FakeBusSource source;
  ServerOptions options;
  options.port = 0;
  Server first(source, options);
  std::string error;
  ASSERT_TRUE(first.Start(&error)) << error;
  options.port = first.port();
  Server second(source, options);
  EXPECT_FALSE(second.Start(&error));
  EXPECT_NE(error.find(std::to_string(first.port())), std::string::npos) << error;
  options.bind_address = "not-an-address";
  Server third(source, options);
  EXPECT_FALSE(third.Start(&error));
}

}  // namespace
}  // namespace korvan_web_test
