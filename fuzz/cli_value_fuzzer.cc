// What the korvan tool reads from its command line and from the wire, against a type it
// learnt at run time. The first byte picks the parser, the rest is its input:
//   0  a message value (text format or JSON), printed again in both notations when it parses
//   1  a field path, checked against the type and applied to a filled message
//   2  a parameter value, read as each parameter type in turn and printed back
//   3  wire bytes scanned for the publish time
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "korvan/tools/param_codec.h"
#include "korvan/tools/text_codec.h"
#include "korvan/tools/wire_scan.h"
#include "quiet_logs.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/parameter/parameter.h"

namespace {

namespace pb = google::protobuf;
namespace tools = tarvik::korvan::tools;

// Most of what a field can be: scalars, bytes, an enum, nesting, repeated, a map, a oneof,
// a required field and the publish_ts stamp.
constexpr char kSchema[] = R"(
  name: "fuzz_value.proto" package: "fuzz"
  enum_type { name: "Mode" value { name: "OFF" number: 0 } value { name: "ON" number: 1 } }
  message_type {
    name: "Inner"
    field { name: "n" number: 1 label: LABEL_OPTIONAL type: TYPE_INT32 }
    field { name: "tags" number: 2 label: LABEL_REPEATED type: TYPE_STRING }
  }
  message_type {
    name: "Sample"
    field { name: "d" number: 1 label: LABEL_OPTIONAL type: TYPE_DOUBLE }
    field { name: "i" number: 2 label: LABEL_OPTIONAL type: TYPE_SINT64 }
    field { name: "s" number: 3 label: LABEL_OPTIONAL type: TYPE_STRING }
    field { name: "b" number: 4 label: LABEL_OPTIONAL type: TYPE_BYTES }
    field { name: "f" number: 5 label: LABEL_OPTIONAL type: TYPE_BOOL }
    field { name: "mode" number: 6 label: LABEL_OPTIONAL type: TYPE_ENUM type_name: ".fuzz.Mode" }
    field { name: "inner" number: 7 label: LABEL_OPTIONAL type: TYPE_MESSAGE
            type_name: ".fuzz.Inner" }
    field { name: "items" number: 8 label: LABEL_REPEATED type: TYPE_MESSAGE
            type_name: ".fuzz.Inner" }
    field { name: "m" number: 9 label: LABEL_REPEATED type: TYPE_MESSAGE
            type_name: ".fuzz.Sample.MEntry" }
    field { name: "ds" number: 10 label: LABEL_REPEATED type: TYPE_DOUBLE }
    field { name: "u" number: 11 label: LABEL_OPTIONAL type: TYPE_UINT32 oneof_index: 0 }
    field { name: "t" number: 12 label: LABEL_OPTIONAL type: TYPE_STRING oneof_index: 0 }
    field { name: "need" number: 13 label: LABEL_REQUIRED type: TYPE_FIXED32 }
    field { name: "publish_ts" number: 536870911 label: LABEL_OPTIONAL type: TYPE_UINT64 }
    nested_type {
      name: "MEntry" options { map_entry: true }
      field { name: "key" number: 1 label: LABEL_OPTIONAL type: TYPE_STRING }
      field { name: "value" number: 2 label: LABEL_OPTIONAL type: TYPE_INT32 }
    }
    oneof_decl { name: "choice" }
  })";

constexpr char kFilled[] = R"(
  d: 1.5 i: -3 s: "x" f: true mode: ON inner { n: 4 tags: "a" tags: "b" }
  items { n: 1 } items { n: 2 tags: "c" } m { key: "k" value: 5 } ds: [0.5, 2] t: "y" need: 9
  publish_ts: 77)";

struct Fixture {
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory;
  const pb::Descriptor* sample = nullptr;
  std::unique_ptr<pb::Message> filled;
  std::vector<tarvik::korvan::Param> params;  // one current value of each parameter type

  Fixture() {
    pb::FileDescriptorProto file;
    if (!pb::TextFormat::ParseFromString(kSchema, &file))
      __builtin_trap();
    sample = pool.BuildFile(file)->FindMessageTypeByName("Sample");
    filled.reset(factory.GetPrototype(sample)->New());
    if (!pb::TextFormat::ParseFromString(kFilled, filled.get()))
      __builtin_trap();
    using tarvik::korvan::Parameter;
    params = {
        Parameter("b", true).ToProtoParam(),    Parameter("i", 1L).ToProtoParam(),
        Parameter("d", 0.5).ToProtoParam(),     Parameter("s", std::string("x")).ToProtoParam(),
        Parameter("m", *filled).ToProtoParam(), Parameter("unset").ToProtoParam()};
  }
};

Fixture& Get() {
  static Fixture* fixture = new Fixture();  // kept for the whole run
  return *fixture;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  Get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0)
    return 0;
  Fixture& fixture = Get();
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  std::string out;
  std::string problem;
  switch (data[0] % 4) {
    case 0: {
      std::unique_ptr<pb::Message> message(fixture.factory.GetPrototype(fixture.sample)->New());
      if (tools::ParseMessageText(input, message.get(), &problem)) {
        message->IsInitialized();
        tools::ToText(*message);
        tools::ToText(*message, true);
        tools::ToJson(*message);
      }
      break;
    }
    case 1:
      tools::CheckFieldPath(fixture.sample, input, &problem);
      tools::FieldText(*fixture.filled, input, false, &out, &problem);
      tools::FieldText(*fixture.filled, input, true, &out, &problem);
      break;
    case 2:
      for (const auto& current : fixture.params) {
        tarvik::korvan::Param next;
        if (tools::ParseParamValue(current, input, &next, &problem)) {
          tools::ParamValueText(next, false, &out, &problem);
          tools::ParamValueText(next, true, &out, &problem);
        }
      }
      break;
    case 3: {
      uint64_t publish_time = 0;
      tools::ReadPublishTime(input.data(), input.size(), &publish_time);
      break;
    }
  }
  return 0;
}
