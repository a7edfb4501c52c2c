// The pure parts of the web server: parsing what clients send, the byte layout of what the
// server sends, request targets of the static files, and the topic meter.
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include "korvan/web/page_protocol.h"
#include "korvan/web/protocol.h"
#include "korvan/web/static_files.h"
#include "korvan/web/topic_meter.h"

namespace korvan_web_test {
namespace {

using namespace tarvik::korvan::web;

bool ValidJson(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(text.c_str());
  return !doc.HasParseError();
}

TEST(FoxgloveParseTest, SubscribeKeepsGoodEntriesAndReportsBadOnes) {
  auto parsed = foxglove::ParseClientText(
      R"({"op":"subscribe","subscriptions":[{"id":1,"channelId":2},{"id":4294967296,"channelId":1},
          {"id":3},"x",{"id":4294967295,"channelId":0}]})");
  auto* sub = std::get_if<foxglove::SubscribeRequest>(&parsed);
  ASSERT_NE(sub, nullptr);
  ASSERT_EQ(sub->entries.size(), 2u);
  EXPECT_EQ(sub->entries[0].id, 1u);
  EXPECT_EQ(sub->entries[0].channel_id, 2u);
  EXPECT_EQ(sub->entries[1].id, 4294967295u);
  EXPECT_EQ(sub->errors.size(), 3u);

  auto unsub = foxglove::ParseClientText(R"({"op":"unsubscribe","subscriptionIds":[1,-2,2.5,3]})");
  auto* u = std::get_if<foxglove::UnsubscribeRequest>(&unsub);
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->ids, (std::vector<uint32_t>{1, 3}));
  EXPECT_EQ(u->errors.size(), 2u);
}

TEST(FoxgloveParseTest, OpsOfUndeclaredCapabilitiesAreNamedAsSuch) {
  auto parsed = foxglove::ParseClientText(R"({"op":"fetchAsset","uri":"x","requestId":1})");
  auto* op = std::get_if<foxglove::UnsupportedOp>(&parsed);
  ASSERT_NE(op, nullptr);
  EXPECT_EQ(op->capability, "assets");
  EXPECT_TRUE(std::holds_alternative<foxglove::GraphSubscription>(
      foxglove::ParseClientText(R"({"op":"subscribeConnectionGraph"})")));
  for (const char* bad :
       {"", "{", "null", "{\"op\":null}", "{\"op\":\"subscribe\",\"subscriptions\":{}}",
        "{\"op\":\"unknown\"}", "{\"op\":\"a\"} trailing"}) {
    EXPECT_TRUE(std::holds_alternative<ParseError>(foxglove::ParseClientText(bad))) << bad;
  }
}

TEST(FoxgloveParseTest, BinaryServiceCallRequestBoundsAreChecked) {
  const std::string ok("\x02\x05\x00\x00\x00\x09\x00\x00\x00\x02\x00\x00\x00pbXY", 17);
  auto parsed = foxglove::ParseClientBinary(ok);
  auto* call = std::get_if<foxglove::ServiceCallRequest>(&parsed);
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(call->service_id, 5u);
  EXPECT_EQ(call->call_id, 9u);
  EXPECT_EQ(call->encoding, "pb");
  EXPECT_EQ(call->payload, "XY");
  // Encoding exactly to the end: empty payload. One byte more than there is: refused, also
  // with a length that would wrap around.
  EXPECT_TRUE(std::holds_alternative<foxglove::ServiceCallRequest>(
      foxglove::ParseClientBinary(ok.substr(0, 15))));
  EXPECT_TRUE(std::holds_alternative<ParseError>(foxglove::ParseClientBinary(ok.substr(0, 14))));
  std::string wrap = ok;
  wrap.replace(9, 4, "\xff\xff\xff\xff");
  EXPECT_TRUE(std::holds_alternative<ParseError>(foxglove::ParseClientBinary(wrap)));
  EXPECT_TRUE(std::holds_alternative<ParseError>(foxglove::ParseClientBinary(ok.substr(0, 12))));
  EXPECT_TRUE(std::holds_alternative<ParseError>(foxglove::ParseClientBinary("")));
  EXPECT_TRUE(std::holds_alternative<ParseError>(foxglove::ParseClientBinary("\x03")));
}

TEST(FoxgloveEncodeTest, FramesAreLittleEndianWithTheDocumentedLayout) {
  std::string frame = foxglove::MessageData(0, 1700000000000000000ULL, "pose");
  EXPECT_EQ(frame, std::string("\x01\x00\x00\x00\x00\x00\x00\x2A\x36\xFE\x9C\x97\x17pose", 17));
  foxglove::PatchSubscriptionId(frame, 0x01020304);
  EXPECT_EQ(frame.substr(0, 5), std::string("\x01\x04\x03\x02\x01", 5));
  EXPECT_EQ(foxglove::ServiceCallResponse(1, 2, "protobuf", "R"),
            std::string("\x03\x01\x00\x00\x00\x02\x00\x00\x00\x08\x00\x00\x00protobufR", 22));
}

TEST(FoxgloveEncodeTest, NamesWithInvalidUtf8StillMakeValidJson) {
  foxglove::Channel channel{1, "/bad\xff\xfe/topic", "pkg.T", "AAAA"};
  const std::string text = foxglove::Advertise({channel});
  EXPECT_TRUE(ValidJson(text)) << text;
  EXPECT_NE(text.find("/bad?"
                      "?/topic"),
            std::string::npos);
  EXPECT_TRUE(ValidJson(foxglove::Status(foxglove::StatusLevel::kError, "\xc3\x28")));
  // Valid multi-byte text passes unchanged.
  EXPECT_NE(foxglove::Status(foxglove::StatusLevel::kInfo, "Gr\xc3\xbc\xc3\x9f").find("Gr\xc3\xbc"),
            std::string::npos);
  EXPECT_EQ(foxglove::Base64(std::string("\x00\xff", 2)), "AP8=");
}

TEST(PageParseTest, SetParamKeepsTheValueAsJsonAndRefusesDeepNesting) {
  auto parsed = page::ParseRequest(
      R"({"op":"setParam","node":"n","name":"gains","value":{"kp":1.5,"list":[1,2]},"id":"7"})");
  auto* set = std::get_if<page::SetParam>(&parsed);
  ASSERT_NE(set, nullptr);
  EXPECT_EQ(set->value_json, R"({"kp":1.5,"list":[1,2]})");
  EXPECT_EQ(set->id, "7");

  std::string deep = R"({"op":"setParam","node":"n","name":"p","value":)" + std::string(100, '[') +
                     std::string(100, ']') + "}";
  EXPECT_TRUE(std::holds_alternative<ParseError>(page::ParseRequest(deep)));
  for (const char* bad :
       {R"({"op":"setParam","node":"n","name":"p"})", R"({"op":"listParams","node":""})",
        R"({"op":"select"})", R"({"op":"select","topic":3})", "[]"}) {
    EXPECT_TRUE(std::holds_alternative<ParseError>(page::ParseRequest(bad))) << bad;
  }
}

TEST(PageEncodeTest, DecodedJsonIsEmbeddedOnlyWhenItIsJson) {
  const std::string good =
      page::LatestMessage("/t", "pkg.T", 5, std::nullopt, Result<std::string>::Ok(R"({"a":1})"));
  EXPECT_NE(good.find(R"("json":{"a":1})"), std::string::npos) << good;
  const std::string broken =
      page::LatestMessage("/t", "pkg.T", 5, 4, Result<std::string>::Ok(R"({"a":)"));
  EXPECT_TRUE(ValidJson(broken)) << broken;
  EXPECT_EQ(broken.find("\"json\""), std::string::npos);
  // A parameter value that is not JSON travels as a string.
  const std::string params =
      page::ParamsMessage("n", Result<std::vector<Parameter>>::Ok({{"p", "string", "not json"}}));
  EXPECT_TRUE(ValidJson(params)) << params;
}

TEST(StaticFilesTest, RequestTargetsMapInsideTheFolderOnly) {
  EXPECT_EQ(SafeRelativePath("/"), "index.html");
  EXPECT_EQ(SafeRelativePath("/?x=1#top"), "index.html");
  EXPECT_EQ(SafeRelativePath("/assets/a.js"), "assets/a.js");
  EXPECT_EQ(SafeRelativePath("//assets/./a%2Ejs"), "assets/a.js");
  EXPECT_EQ(SafeRelativePath("/assets/"), "assets/index.html");
  for (const char* bad : {"", "assets/a.js", "/..", "/a/../b", "/%2e%2e/x", "/a%2f..%2fb",
                          "/a%00.js", "/a\\b", "/%", "/%4", "/%zz", "/a/..%5cb"}) {
    EXPECT_FALSE(SafeRelativePath(bad).has_value()) << bad;
  }
  EXPECT_EQ(ContentType("index.html"), "text/html; charset=utf-8");
  EXPECT_EQ(ContentType("assets/x.js"), "text/javascript; charset=utf-8");
  EXPECT_EQ(ContentType("x.css"), "text/css; charset=utf-8");
  EXPECT_EQ(ContentType("x.svg"), "image/svg+xml");
  EXPECT_EQ(ContentType("noext"), "application/octet-stream");
}

TEST(StaticFilesTest, PageDirectoryFromTheEnvironmentComesFirst) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("korvan_page_" + std::to_string(getpid()));
  fs::create_directories(dir);
  ASSERT_EQ(setenv("KORVAN_WEB_DIR", dir.c_str(), 1), 0);
  // Without an index.html the folder is passed over.
  EXPECT_NE(FindPageDir(), dir.string());
  std::ofstream(dir / "index.html") << "<!doctype html>";
  EXPECT_EQ(FindPageDir(), dir.string());
  unsetenv("KORVAN_WEB_DIR");
  fs::remove_all(dir);
}

TEST(TopicMeterTest, RateBandwidthAndDelayOverTheCompletedBuckets) {
  const int64_t bucket = 100'000'000;  // 100 ms
  TopicMeter meter(bucket);
  const int64_t start = 1'000 * bucket;
  // 10 messages of 100 bytes in each of 8 buckets, each 3 ms in transit.
  for (int b = 0; b < 8; ++b)
    for (int i = 0; i < 10; ++i) {
      const int64_t t = start + b * bucket + i * (bucket / 10);
      meter.Record(t, t - 3'000'000, 100);
    }
  // The ninth bucket is still filling and not counted.
  meter.Record(start + 8 * bucket, std::nullopt, 100000);
  TopicStats stats = meter.Snapshot(start + 8 * bucket + 1);
  EXPECT_NEAR(stats.rate_hz, 100.0, 1e-9);
  EXPECT_NEAR(stats.bandwidth_bytes_per_s, 10000.0, 1e-9);
  ASSERT_TRUE(stats.delay_ms);
  EXPECT_NEAR(*stats.delay_ms, 3.0, 1e-9);
  EXPECT_EQ(stats.messages, 81u);

  // A quiet topic decays to zero, with no delay known.
  stats = meter.Snapshot(start + 100 * bucket);
  EXPECT_EQ(stats.rate_hz, 0);
  EXPECT_FALSE(stats.delay_ms);
  // A message older than its bucket's current content is ignored, not mixed in.
  meter.Record(start + 20 * bucket, std::nullopt, 1);
  meter.Record(start + 11 * bucket, std::nullopt, 1);
  EXPECT_DOUBLE_EQ(meter.Snapshot(start + 21 * bucket).rate_hz, 1.25);
}

TEST(TopicMeterTest, ASampledMessageStandsForTheOnesSkippedBeforeIt) {
  const int64_t bucket = 100'000'000;
  TopicMeter meter(bucket);
  const int64_t start = 1'000 * bucket;
  // One message of 100 bytes taken per bucket, standing for 10; its delay counts once.
  for (int b = 0; b < 8; ++b) {
    const int64_t t = start + b * bucket;
    meter.Record(t, t - (b % 2 == 0 ? 2'000'000 : 4'000'000), 100, 10);
  }
  meter.Record(start + 3 * bucket, std::nullopt, 100, 0);  // heard twice: counted already
  const TopicStats stats = meter.Snapshot(start + 8 * bucket + 1);
  EXPECT_NEAR(stats.rate_hz, 100.0, 1e-9);
  EXPECT_NEAR(stats.bandwidth_bytes_per_s, 10000.0, 1e-9);
  ASSERT_TRUE(stats.delay_ms);
  EXPECT_NEAR(*stats.delay_ms, 3.0, 1e-9);
  EXPECT_EQ(stats.messages, 80u);
}

}  // namespace
}  // namespace korvan_web_test
