// Writes the seed corpora of the binary-input fuzzers: a few valid inputs each, so that
// fuzzing starts from real descriptor trees, parameters, wire samples and recordings rather
// than from nothing. (The text-input fuzzers' seeds are written by hand.)
// Usage: fuzz_seed_writer <corpus dir>   (creates <dir>/<fuzzer>/<seed> files)
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>

#include "fuzz_proto/fuzz_messages.pb.h"
#include "korvan/mcap/protobuf_schema.h"
#include "korvan/mcap/writer.h"
#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/messaging/dds_participant.h"
#include "tarvikdds/parameter/parameter.h"
#include "tarvikdds/proto/proto_desc.pb.h"

namespace {

namespace pb = google::protobuf;
using tarvik::korvan::Parameter;
using tarvik::korvan::message::ProtobufFactory;

// A diamond of imports (top -> left, right -> base) whose top file uses most of what a
// file can declare: nesting, enums, oneofs, maps, extensions and a service.
const char* const kDiamond[] = {
    R"(name: "seed_base.proto" package: "seed"
       message_type { name: "Base" field { name: "id" number: 1 label: LABEL_OPTIONAL
                                           type: TYPE_INT32 }
                      extension_range { start: 100 end: 200 } }
       enum_type { name: "Mode" value { name: "OFF" number: 0 } value { name: "ON" number: 1 } })",
    R"(name: "seed_left.proto" package: "seed" dependency: "seed_base.proto"
       message_type { name: "Left" field { name: "base" number: 1 label: LABEL_OPTIONAL
                                           type: TYPE_MESSAGE type_name: ".seed.Base" } }
       extension { name: "tag" number: 100 label: LABEL_OPTIONAL type: TYPE_STRING
                   extendee: ".seed.Base" })",
    R"(name: "seed_right.proto" package: "seed" dependency: "seed_base.proto"
       message_type { name: "Right" field { name: "mode" number: 1 label: LABEL_OPTIONAL
                                            type: TYPE_ENUM type_name: ".seed.Mode" }
                      field { name: "values" number: 2 label: LABEL_REPEATED type: TYPE_DOUBLE
                              options { packed: true } } })",
    R"(name: "seed_top.proto" package: "seed" dependency: "seed_left.proto"
       dependency: "seed_right.proto"
       message_type {
         name: "Top"
         field { name: "left" number: 1 label: LABEL_OPTIONAL type: TYPE_MESSAGE
                 type_name: ".seed.Left" }
         field { name: "right" number: 2 label: LABEL_REPEATED type: TYPE_MESSAGE
                 type_name: ".seed.Right" }
         field { name: "text" number: 3 label: LABEL_OPTIONAL type: TYPE_STRING oneof_index: 0 }
         field { name: "blob" number: 4 label: LABEL_OPTIONAL type: TYPE_BYTES oneof_index: 0 }
         field { name: "labels" number: 5 label: LABEL_REPEATED type: TYPE_MESSAGE
                 type_name: ".seed.Top.LabelsEntry" }
         field { name: "inner" number: 6 label: LABEL_OPTIONAL type: TYPE_MESSAGE
                 type_name: ".seed.Top.Inner" }
         oneof_decl { name: "choice" }
         nested_type { name: "LabelsEntry" options { map_entry: true }
           field { name: "key" number: 1 label: LABEL_OPTIONAL type: TYPE_STRING }
           field { name: "value" number: 2 label: LABEL_OPTIONAL type: TYPE_SINT64 } }
         nested_type { name: "Inner" field { name: "self" number: 1 label: LABEL_OPTIONAL
                                             type: TYPE_MESSAGE type_name: ".seed.Top" } } }
       service { name: "Echo" method { name: "Call" input_type: ".seed.Top"
                                       output_type: ".seed.Top" } })",
};

const char kTopValue[] = R"(left { base { id: 7 } } right { mode: ON values: [1.5, -2] }
                            text: "hello" labels { key: "k" value: -3 } inner { self { } })";

// The wire fuzzer's input: the reader (0 subscriber, 1 service, 2 client), the envelope field
// choices, the payload.
std::string WireInput(char reader, char fields, const std::string& payload) {
  return std::string{reader, fields} + payload;
}

// A stamped message as a publisher sends it, with its CRC over the message with crc 0.
std::string StampedPayload() {
  korvan::fuzz::Stamped stamped;
  stamped.set_sequence(1);
  stamped.set_payload("wire");
  (*stamped.mutable_labels())["k"] = 2;
  stamped.add_nested()->set_sequence(2);
  stamped.set_publish_ts(1700000000000000000ULL);
  stamped.set_counter(0);
  stamped.set_publisher_id("0123abcd-0000-4000-8000-00000000cafe");
  stamped.set_publish_ptp_ts(1700000000000000000ULL);
  stamped.set_crc(0);
  tarvik::quessa::Participant crc("seed");
  stamped.set_crc(crc.CalculateCRC(stamped.SerializeAsString()));
  return stamped.SerializeAsString();
}

bool Write(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes;
  if (!file) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    return false;
  }
  return true;
}

// A small recording: two channels, a few messages over two chunks.
std::string Recording(tarvik::korvan::mcap::Compression compression, int messages) {
  namespace mcap = tarvik::korvan::mcap;
  mcap::BufferSink sink;
  mcap::Writer writer;
  mcap::WriterOptions options;
  options.compression = compression;
  options.chunk_size = 200;
  writer.Open(&sink, options);
  mcap::Schema schema = mcap::ProtobufSchema(tarvik::korvan::Param::descriptor());
  schema.id = 1;
  writer.AddSchema(schema);
  writer.AddChannel({0, 1, "/param", "protobuf", {{"k", "v"}}});
  writer.AddChannel({1, 0, "/raw", "raw", {}});
  for (int i = 0; i < messages; ++i) {
    std::string data = i % 2 == 0
                           ? Parameter("p", static_cast<long>(i)).ToProtoParam().SerializeAsString()
                           : std::string(static_cast<size_t>(i * 7), 'r');
    const uint64_t t = 1700000000000000000ull + static_cast<uint64_t>(i) * 1000;
    writer.Write({static_cast<uint16_t>(i % 2), static_cast<uint32_t>(i), t, t, data});
  }
  writer.Close();
  return sink.data();
}

std::string Serialized(const Parameter& parameter) {
  return parameter.ToProtoParam().SerializeAsString();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
    return 2;
  }
  const std::string factory_dir = std::string(argv[1]) + "/protobuf_factory_fuzzer";
  const std::string parameter_dir = std::string(argv[1]) + "/parameter_fuzzer";
  const std::string mcap_dir = std::string(argv[1]) + "/mcap_reader_fuzzer";
  const std::string wire_dir = std::string(argv[1]) + "/wire_fuzzer";
  ::mkdir(argv[1], 0777);
  ::mkdir(factory_dir.c_str(), 0777);
  ::mkdir(parameter_dir.c_str(), 0777);
  ::mkdir(mcap_dir.c_str(), 0777);
  ::mkdir(wire_dir.c_str(), 0777);

  pb::DescriptorPool pool;
  for (const char* text : kDiamond) {
    pb::FileDescriptorProto file;
    if (!pb::TextFormat::ParseFromString(text, &file) || pool.BuildFile(file) == nullptr) {
      std::fprintf(stderr, "seed file does not build:\n%s\n", text);
      return 1;
    }
  }
  const pb::Descriptor* top = pool.FindMessageTypeByName("seed.Top");
  pb::DynamicMessageFactory messages(&pool);
  std::unique_ptr<pb::Message> top_value(messages.GetPrototype(top)->New());
  if (!pb::TextFormat::ParseFromString(kTopValue, top_value.get())) {
    std::fprintf(stderr, "seed value does not parse\n");
    return 1;
  }

  std::string diamond, param_desc, file_desc;
  ProtobufFactory::GetDescriptorString(top, &diamond);
  ProtobufFactory::GetDescriptorString(tarvik::korvan::Param::descriptor(), &param_desc);
  ProtobufFactory::GetDescriptorString(pb::FileDescriptorProto::descriptor(), &file_desc);

  tarvik::korvan::Param wire = Parameter("p", 3L).ToProtoParam();
  bool ok =
      Write(factory_dir + "/diamond", diamond) && Write(factory_dir + "/param", param_desc) &&
      Write(factory_dir + "/descriptor", file_desc) &&
      Write(parameter_dir + "/bool", Serialized(Parameter("flag", true))) &&
      Write(parameter_dir + "/int", Serialized(Parameter("count", -12L))) &&
      Write(parameter_dir + "/double", Serialized(Parameter("gain", 0.25))) &&
      Write(parameter_dir + "/string", Serialized(Parameter("frame", "base_link"))) &&
      Write(parameter_dir + "/not_set", Serialized(Parameter("empty"))) &&
      Write(parameter_dir + "/message", Serialized(Parameter("wire", wire))) &&
      Write(parameter_dir + "/remote",
            Serialized(Parameter("top", "seed.Top", top_value->SerializeAsString(), diamond)));
  namespace mcap = tarvik::korvan::mcap;
  const std::string zstd = Recording(mcap::Compression::kZstd, 6);
  ok = ok && Write(mcap_dir + "/zstd", zstd) &&
       Write(mcap_dir + "/lz4", Recording(mcap::Compression::kLz4, 6)) &&
       Write(mcap_dir + "/none", Recording(mcap::Compression::kNone, 6)) &&
       Write(mcap_dir + "/empty", Recording(mcap::Compression::kZstd, 0)) &&
       Write(mcap_dir + "/cut", zstd.substr(0, zstd.size() * 2 / 3));

  korvan::fuzz::Request request;
  request.set_id(3);
  request.set_payload("ask");
  request.add_words("one");
  korvan::fuzz::Response response;
  response.set_id(3);
  response.set_payload("answer");
  // Fields: own type with its fingerprint (4); for the client also its own identity and
  // request number (16 | 32).
  ok = ok && Write(wire_dir + "/stamped", WireInput(0, 4, StampedPayload())) &&
       Write(wire_dir + "/stamped_any_type", WireInput(0, 2, StampedPayload())) &&
       Write(wire_dir + "/request", WireInput(1, 4, request.SerializeAsString())) &&
       Write(wire_dir + "/request_no_response", WireInput(1, 4 | 16, "")) &&
       Write(wire_dir + "/response", WireInput(2, 4 | 16 | 32, response.SerializeAsString())) &&
       Write(wire_dir + "/response_to_another", WireInput(2, 4 | 16, response.SerializeAsString()));
  return ok ? 0 : 1;
}
