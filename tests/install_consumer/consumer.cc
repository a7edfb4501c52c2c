// Starts the runtime from the installed library and serialises one library message.
#include <cstdio>

#include "tarvikdds/application/init.h"
#include "tarvikdds/bus/korvan_message_traits.h"
#include "tarvikdds/proto/raw_message.pb.h"

int main() {
  namespace tarvikdds = tarvik::quessa::tarvikdds;
  using tarvik::quessa::messages::internal::RawMessage;
  tarvik::korvan::bus::korvan_message_operations<RawMessage> ops;
  auto msg = std::make_shared<RawMessage>();
  msg->add_message("installed");
  auto bytes = std::make_shared<std::string>();
  if (!ops.SerializeToString(msg, bytes) || bytes->size() != 11)
    return 1;
  if (!tarvikdds::Init("consumer") || !tarvikdds::Ok())
    return 2;
  std::printf("consumer: runtime up, %zu bytes\n", bytes->size());
  return 0;
}
