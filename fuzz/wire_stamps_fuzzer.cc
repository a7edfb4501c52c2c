// Arbitrary bytes as a message's wire form for the recorder's stamp walk: it must never read
// past the bytes, and whenever both it and a protobuf parse accept them, the stamps it finds
// must be the ones reflection reads. The first byte picks the stamps' field types.
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "korvan/tools/wire_stamps.h"
#include "quiet_logs.h"
#include "tarvikdds/bus/stamp_fields.h"

namespace {

namespace pb = google::protobuf;
using tarvik::korvan::tools::ReadWireStamps;
using tarvik::korvan::tools::StampLayout;
using tarvik::korvan::tools::WireStamps;

struct Types {
  pb::DescriptorPool pool;
  pb::DynamicMessageFactory factory;
  std::vector<const pb::Descriptor*> descriptors;

  Types() {
    const pb::FieldDescriptorProto::Type kinds[] = {
        pb::FieldDescriptorProto::TYPE_UINT64,  pb::FieldDescriptorProto::TYPE_INT32,
        pb::FieldDescriptorProto::TYPE_SINT64,  pb::FieldDescriptorProto::TYPE_SINT32,
        pb::FieldDescriptorProto::TYPE_FIXED32, pb::FieldDescriptorProto::TYPE_SFIXED64,
        pb::FieldDescriptorProto::TYPE_UINT32,  pb::FieldDescriptorProto::TYPE_SFIXED32};
    pb::FileDescriptorProto file;
    file.set_name("fuzz_stamps.proto");
    file.set_package("fuzz");
    int n = 0;
    for (const auto kind : kinds) {
      auto* message = file.add_message_type();
      message->set_name("Stamped" + std::to_string(n++));
      auto add = [&](const char* name, int number, pb::FieldDescriptorProto::Type type) {
        auto* field = message->add_field();
        field->set_name(name);
        field->set_number(number);
        field->set_type(type);
        field->set_label(pb::FieldDescriptorProto::LABEL_OPTIONAL);
      };
      add("payload", 1, pb::FieldDescriptorProto::TYPE_BYTES);
      add("publish_ts", tarvik::korvan::bus::kPublishTsNumber, kind);
      add("counter", tarvik::korvan::bus::kCounterNumber, kind);
      add("publisher_id", tarvik::korvan::bus::kPublisherIdNumber,
          pb::FieldDescriptorProto::TYPE_STRING);
    }
    const pb::FileDescriptor* built = pool.BuildFile(file);
    for (int i = 0; i < built->message_type_count(); ++i)
      descriptors.push_back(built->message_type(i));
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  korvan_fuzz::QuietLogs();
  static Types* types = new Types();
  if (size == 0)
    return 0;
  const pb::Descriptor* descriptor = types->descriptors[data[0] % types->descriptors.size()];
  const StampLayout layout = StampLayout::Of(descriptor);
  // A copy of exactly the bytes, so a read past them is caught.
  const std::vector<uint8_t> bytes(data + 1, data + size);
  WireStamps stamps;
  const bool walked = ReadWireStamps(bytes.data(), bytes.size(), layout, &stamps);
  std::unique_ptr<pb::Message> message(types->factory.GetPrototype(descriptor)->New());
  if (!walked || !message->ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
    return 0;
  const auto* reflection = message->GetReflection();
  const auto* counter = descriptor->FindFieldByName("counter");
  const auto* publish_ts = descriptor->FindFieldByName("publish_ts");
  const auto* publisher_id = descriptor->FindFieldByName("publisher_id");
  if (stamps.has_counter != reflection->HasField(*message, counter) ||
      stamps.has_publish_ts != reflection->HasField(*message, publish_ts) ||
      stamps.has_publisher_id != reflection->HasField(*message, publisher_id))
    __builtin_trap();
  if (stamps.has_counter &&
      stamps.counter != tarvik::korvan::bus::ReadStampInteger(*message, counter))
    __builtin_trap();
  if (stamps.has_publish_ts &&
      stamps.publish_ts != tarvik::korvan::bus::ReadStampInteger(*message, publish_ts))
    __builtin_trap();
  if (stamps.has_publisher_id &&
      stamps.publisher_id != reflection->GetString(*message, publisher_id))
    __builtin_trap();
  return 0;
}
