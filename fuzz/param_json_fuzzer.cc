// Bytes as what `korvan web` reads about parameters from outside: a Param from the bus (its
// value to JSON, a message value decoded with the description it carries), a value typed into
// the page for each kind of parameter, and a description tree to flatten. Nothing may crash,
// and whatever value is accepted must read back from the JSON written for it. The first byte
// picks which.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "korvan/tools/param_json.h"
#include "quiet_logs.h"
#include "tarvikdds/parameter/parameter.h"

namespace {

using tarvik::korvan::Param;
using tarvik::korvan::Parameter;
using tarvik::korvan::tools::ParamValueJson;
using tarvik::korvan::tools::ParamWithJsonValue;
using tarvik::korvan::tools::ProtoDescToDescriptorSet;

// One parameter of each kind, the message one of a type with a nested message and a oneof.
const std::vector<Param>& Kinds() {
  static const std::vector<Param> kinds = [] {
    Param nested;
    nested.set_name("inner");
    nested.set_type(tarvik::korvan::DOUBLE);
    nested.set_double_value(0.5);
    return std::vector<Param>{
        Parameter("b", true).ToProtoParam(),   Parameter("i", 7L).ToProtoParam(),
        Parameter("d", 1.5).ToProtoParam(),    Parameter("s", "text").ToProtoParam(),
        Parameter("m", nested).ToProtoParam(),
    };
  }();
  return kinds;
}

void MustReadBack(const Param& accepted) {
  std::string json, problem;
  if (!ParamValueJson(accepted, &json, &problem))
    __builtin_trap();
  Param again;
  if (!ParamWithJsonValue(accepted, json, &again, &problem))
    __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::string out, problem;
  switch (data[0] % 3) {
    case 0: {
      Param param;
      if (param.ParseFromString(bytes))
        ParamValueJson(param, &out, &problem);
      break;
    }
    case 1:
      for (const Param& kind : Kinds()) {
        Param accepted;
        if (ParamWithJsonValue(kind, bytes, &accepted, &problem))
          MustReadBack(accepted);
      }
      break;
    default:
      ProtoDescToDescriptorSet(bytes, &out);
      break;
  }
  return 0;
}
