// Arbitrary bytes as what a web client may send: the first byte picks the parser (Foxglove
// text, Foxglove binary, the page's requests, a request target of the static files), the rest
// is the message. Whatever the parsers make of it must stay valid JSON when the server echoes
// it back, and a resolved path must stay inside the page folder.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <rapidjson/document.h>

#include "korvan/web/page_protocol.h"
#include "korvan/web/protocol.h"
#include "korvan/web/static_files.h"

namespace web = tarvik::korvan::web;

namespace {

void MustBeJson(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag>(text.c_str(),
                                                                                    text.size());
  if (doc.HasParseError() || !doc.IsObject())
    std::abort();
}

void Text(std::string_view input) {
  auto parsed = web::foxglove::ParseClientText(input);
  if (auto* e = std::get_if<web::ParseError>(&parsed)) {
    MustBeJson(web::foxglove::Status(web::foxglove::StatusLevel::kError, e->message));
  } else if (auto* sub = std::get_if<web::foxglove::SubscribeRequest>(&parsed)) {
    for (const auto& error : sub->errors)
      MustBeJson(web::foxglove::Status(web::foxglove::StatusLevel::kError, error));
  } else if (auto* op = std::get_if<web::foxglove::UnsupportedOp>(&parsed)) {
    MustBeJson(web::foxglove::Status(web::foxglove::StatusLevel::kError, op->op));
  }
}

void Binary(std::string_view input) {
  auto parsed = web::foxglove::ParseClientBinary(input);
  if (auto* call = std::get_if<web::foxglove::ServiceCallRequest>(&parsed)) {
    if (call->payload.data() < input.data() ||
        call->payload.data() + call->payload.size() > input.data() + input.size())
      std::abort();
    MustBeJson(web::foxglove::ServiceCallFailure(call->service_id, call->call_id,
                                                 "encoding " + call->encoding));
    web::foxglove::ServiceCallResponse(call->service_id, call->call_id, call->encoding,
                                       call->payload);
  } else if (auto* e = std::get_if<web::ParseError>(&parsed)) {
    MustBeJson(web::foxglove::Status(web::foxglove::StatusLevel::kError, e->message));
  }
}

void Page(std::string_view input) {
  auto parsed = web::page::ParseRequest(input);
  if (auto* e = std::get_if<web::ParseError>(&parsed)) {
    MustBeJson(web::page::Error(e->message));
  } else if (auto* set = std::get_if<web::page::SetParam>(&parsed)) {
    // The value was re-serialized: it must parse again, and echoing it must stay JSON.
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag>(set->value_json.c_str(), set->value_json.size());
    if (doc.HasParseError())
      std::abort();
    MustBeJson(web::page::ParamResult(
        *set, web::Result<web::Parameter>::Ok({set->name, "string", set->value_json})));
  } else if (auto* select = std::get_if<web::page::SelectTopic>(&parsed)) {
    MustBeJson(web::page::Error("unknown topic " + select->topic));
  }
}

void Path(std::string_view input) {
  auto path = web::SafeRelativePath(input);
  if (!path)
    return;
  const std::string& p = *path;
  if (p.empty() || p[0] == '/' || p.find('\0') != std::string::npos || p == ".." ||
      p.rfind("../", 0) == 0 || p.find("/../") != std::string::npos ||
      (p.size() >= 3 && p.compare(p.size() - 3, 3, "/..") == 0))
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0:
      Text(input);
      break;
    case 1:
      Binary(input);
      break;
    case 2:
      Page(input);
      break;
    default:
      Path(input);
      break;
  }
  return 0;
}
