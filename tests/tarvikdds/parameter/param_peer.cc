// A peer for the parameter tests, deliberately built WITHOUT the tests' message types: it
// serves parameters and prints every change, decoding message values from the description
// they carry. Arguments: node name, stop file.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "tarvikdds/message/protobuf_factory.h"
#include "tarvikdds/messaging/dds_node.h"
#include "tarvikdds/parameter/parameter_server.h"

int main(int argc, char** argv) {
  if (argc < 3)
    return 2;
  using tarvik::korvan::Parameter;
  using tarvik::korvan::message::ProtobufFactory;
  auto node = tarvik::quessa::Node::CreateNode(argv[1], "");
  tarvik::korvan::ParameterServer server(
      node.get(), [](const std::string& name, const Parameter& parameter) {
        std::printf("CHANGED %s %s\n", name.c_str(), parameter.DebugString().c_str());
        const tarvik::korvan::Param param = parameter.ToProtoParam();
        if (param.type() == tarvik::korvan::PROTOBUF) {
          // Not compiled in here: the factory builds it from the registered description.
          std::unique_ptr<google::protobuf::Message> message(
              ProtobufFactory::Instance()->GenerateMessageByType(param.type_name()));
          if (message && message->ParseFromString(param.string_value())) {
            std::printf("DECODED %s %s\n", message->GetDescriptor()->full_name().c_str(),
                        message->ShortDebugString().c_str());
          }
        }
        std::fflush(stdout);
      });
  std::printf("READY\n");
  std::fflush(stdout);
  for (int waited = 0; access(argv[2], F_OK) != 0 && waited < 120000; waited += 10)
    usleep(10000);
  return 0;
}
