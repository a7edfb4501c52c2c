// The C++ side of the outside-reader tests (tests/outside): writes recordings for the npm
// readers, and reads a recording the npm writer made.
//   mcap_outside_fixture write <dir>          recordings and expected.json into <dir>
//   mcap_outside_fixture check <file> <count> reads <file> fully; exit 0 when it is clean
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include "diamond_top.pb.h"
#include "korvan/mcap/protobuf_schema.h"
#include "korvan/mcap/reader.h"
#include "korvan/mcap/recover.h"
#include "korvan/mcap/writer.h"
#include "test_messages.pb.h"

namespace {

namespace mcap = tarvik::korvan::mcap;
namespace pb = google::protobuf;

constexpr mcap::Timestamp kStart = 1700000000000000000ull;

int Fail(const std::string& what) {
  std::fprintf(stderr, "mcap_outside_fixture: %s\n", what.c_str());
  return 1;
}

bool Save(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  return static_cast<bool>(out);
}

// 300 messages 1 ms apart: two of three a PlainMessage on /plain (every 50th with a 200 kB
// payload), the third a DiamondTop on /diamond. /quiet has no messages.
std::string Record(mcap::Compression compression) {
  mcap::BufferSink sink;
  mcap::Writer writer;
  mcap::WriterOptions options;
  options.compression = compression;
  options.chunk_size = 32 * 1024;
  writer.Open(&sink, options);
  mcap::Schema plain = mcap::ProtobufSchema(korvan::test::PlainMessage::descriptor());
  plain.id = 1;
  mcap::Schema diamond = mcap::ProtobufSchema(korvan::test::DiamondTop::descriptor());
  diamond.id = 2;
  writer.AddSchema(plain);
  writer.AddSchema(diamond);
  writer.AddChannel({0, 1, "/plain", "protobuf", {{"origin", "korvan"}}});
  writer.AddChannel({1, 2, "/diamond", "protobuf", {}});
  writer.AddChannel({2, 1, "/quiet", "protobuf", {}});
  uint64_t plain_count = 0;
  uint32_t diamond_count = 0;
  for (uint32_t i = 0; i < 300; ++i) {
    std::string data;
    uint16_t channel;
    uint32_t sequence;
    if (i % 3 == 2) {
      korvan::test::DiamondTop top;
      top.mutable_left()->mutable_base()->set_id(static_cast<int32_t>(diamond_count));
      top.mutable_left()->set_label("diamond " + std::to_string(diamond_count));
      top.mutable_right()->add_values(diamond_count * 0.5);
      data = top.SerializeAsString();
      channel = 1;
      sequence = diamond_count++;
    } else {
      korvan::test::PlainMessage m;
      m.set_sequence(plain_count);
      m.set_text("plain " + std::to_string(plain_count));
      m.set_payload(
          std::string(i % 50 == 0 ? 200000 : i % 7 * 10, static_cast<char>('a' + i % 26)));
      data = m.SerializeAsString();
      channel = 0;
      sequence = static_cast<uint32_t>(plain_count++);
    }
    const mcap::Timestamp t = kStart + i * 1000000ull;
    writer.Write({channel, sequence, t, t - 500, data});
  }
  mcap::Status status = writer.Close();
  if (!status.ok())
    std::fprintf(stderr, "%s\n", status.message().c_str());
  return sink.data();
}

std::map<std::string, uint64_t> CountStream(const std::string& bytes) {
  mcap::BufferSource source(bytes);
  mcap::StreamReader reader(source);
  std::map<uint16_t, uint64_t> counts;
  mcap::Message m;
  while (reader.Next(&m))
    ++counts[m.channel_id];
  std::map<std::string, uint64_t> by_topic;
  for (const auto& [id, channel] : reader.channels())
    by_topic[channel.topic] = counts[id];
  return by_topic;
}

std::string Json(const std::map<std::string, uint64_t>& counts) {
  std::string out = "{";
  for (const auto& [topic, count] : counts)
    out += (out.size() > 1 ? ", \"" : "\"") + topic + "\": " + std::to_string(count);
  return out + "}";
}

int Write(const std::string& dir) {
  std::string entries;
  auto add = [&](const std::string& name, const std::string& bytes, bool indexed) {
    if (!Save(dir + "/" + name, bytes))
      return false;
    entries += std::string(entries.empty() ? "" : ",\n") + "  {\"name\": \"" + name +
               "\", \"indexed\": " + (indexed ? "true" : "false") +
               ", \"counts\": " + Json(CountStream(bytes)) + "}";
    return true;
  };
  std::string zstd = Record(mcap::Compression::kZstd);
  if (!add("ours_zstd.mcap", zstd, true) ||
      !add("ours_lz4.mcap", Record(mcap::Compression::kLz4), true) ||
      !add("ours_none.mcap", Record(mcap::Compression::kNone), true))
    return Fail("cannot write into " + dir);

  // A crash in the middle of the third chunk, and what recover makes of it.
  mcap::BufferSource whole(zstd);
  mcap::IndexedReader reader(whole);
  if (!reader.ok() || reader.chunk_indexes().size() < 4)
    return Fail("the zstd recording has too few chunks");
  const mcap::ChunkIndex& third = reader.chunk_indexes()[2];
  const std::string crashed = zstd.substr(0, third.chunk_start_offset + third.chunk_length / 2);
  mcap::BufferSource crashed_source(crashed);
  mcap::BufferSink recovered;
  mcap::RecoverResult result = mcap::Recover(crashed_source, &recovered);
  if (!result.status.ok() || result.message_count == 0)
    return Fail("recover failed: " + result.status.message());
  if (!add("ours_crashed.mcap", crashed, false) ||
      !add("ours_recovered.mcap", recovered.data(), true))
    return Fail("cannot write into " + dir);
  if (!Save(dir + "/expected.json", "[\n" + entries + "\n]\n"))
    return Fail("cannot write expected.json");
  return 0;
}

// Decodes every message with the message type its schema describes, and checks the content
// the npm writer put in: per channel, field "sequence" counts from 0 and "text" is
// "node <sequence>".
class Decoder {
 public:
  bool Check(const mcap::Schema& schema, const mcap::Message& m, uint64_t expected,
             std::string* error) {
    const pb::Descriptor* type = Type(schema, error);
    if (type == nullptr)
      return false;
    std::unique_ptr<pb::Message> message(factory_.GetPrototype(type)->New());
    if (!message->ParseFromArray(m.data.data(), static_cast<int>(m.data.size()))) {
      *error = "message does not parse as " + schema.name;
      return false;
    }
    const pb::Reflection* reflection = message->GetReflection();
    const pb::FieldDescriptor* sequence = type->FindFieldByName("sequence");
    const pb::FieldDescriptor* text = type->FindFieldByName("text");
    if (sequence == nullptr || text == nullptr) {
      *error = schema.name + " lacks the sequence or text field";
      return false;
    }
    uint64_t got = sequence->cpp_type() == pb::FieldDescriptor::CPPTYPE_UINT64
                       ? reflection->GetUInt64(*message, sequence)
                       : reflection->GetUInt32(*message, sequence);
    std::string got_text = reflection->GetString(*message, text);
    if (got != expected || got_text != "node " + std::to_string(expected)) {
      *error = "expected sequence " + std::to_string(expected) + ", got " + std::to_string(got) +
               " \"" + got_text + "\"";
      return false;
    }
    return true;
  }

 private:
  const pb::Descriptor* Type(const mcap::Schema& schema, std::string* error) {
    auto it = types_.find(schema.id);
    if (it != types_.end())
      return it->second;
    pb::FileDescriptorSet set;
    if (schema.encoding != "protobuf" || !set.ParseFromString(schema.data)) {
      *error = "schema " + schema.name + " is not a protobuf FileDescriptorSet";
      return nullptr;
    }
    for (const pb::FileDescriptorProto& file : set.file())
      if (pool_.FindFileByName(file.name()) == nullptr && pool_.BuildFile(file) == nullptr) {
        *error = "file " + file.name() + " of schema " + schema.name + " does not build";
        return nullptr;
      }
    const pb::Descriptor* type = pool_.FindMessageTypeByName(schema.name);
    if (type == nullptr)
      *error = "schema " + schema.name + " does not define its type";
    return types_[schema.id] = type;
  }

  pb::DescriptorPool pool_;
  pb::DynamicMessageFactory factory_{&pool_};
  std::map<uint16_t, const pb::Descriptor*> types_;
};

int Check(const std::string& path, uint64_t expected) {
  mcap::Status status;
  auto source = mcap::FileSource::Open(path, &status);
  if (source == nullptr)
    return Fail(status.message());

  mcap::StreamReader stream(*source);
  Decoder decoder;
  std::map<uint16_t, uint64_t> per_channel;
  uint64_t count = 0;
  std::string error;
  mcap::Message m;
  while (stream.Next(&m)) {
    const mcap::Channel& channel = stream.channels().at(m.channel_id);
    if (!decoder.Check(stream.schemas().at(channel.schema_id), m, per_channel[m.channel_id]++,
                       &error))
      return Fail("streaming, " + channel.topic + ": " + error);
    ++count;
  }
  for (const mcap::Problem& p : stream.problems())
    std::fprintf(stderr, "streaming: %s\n", p.ToString().c_str());
  if (!stream.problems().empty() || !stream.complete() || count != expected)
    return Fail("the streaming read got " + std::to_string(count) + " messages, expected " +
                std::to_string(expected));

  mcap::IndexedReader indexed(*source);
  for (const mcap::Problem& p : indexed.problems())
    std::fprintf(stderr, "indexed: %s\n", p.ToString().c_str());
  if (!indexed.ok() || !indexed.problems().empty())
    return Fail("the indexed read failed");
  uint64_t indexed_count = 0;
  mcap::Timestamp last = 0;
  while (indexed.Next(&m)) {
    if (m.log_time < last)
      return Fail("indexed messages out of log-time order");
    last = m.log_time;
    ++indexed_count;
  }
  if (indexed_count != expected || indexed.statistics() == nullptr ||
      indexed.statistics()->message_count != expected)
    return Fail("the indexed read got " + std::to_string(indexed_count) + " messages");
  std::printf("%s: %llu messages on %zu channels read streaming and indexed, decoded\n",
              path.c_str(), static_cast<unsigned long long>(count), stream.channels().size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "write" && argc == 3)
    return Write(argv[2]);
  if (command == "check" && argc == 4)
    return Check(argv[2], std::strtoull(argv[3], nullptr, 10));
  std::fprintf(stderr, "usage: %s write <dir> | check <file> <message count>\n", argv[0]);
  return 2;
}
