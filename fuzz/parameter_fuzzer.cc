// Arbitrary bytes as a serialised Param: every read and the debug string must cope with any
// combination of declared type, value member, type name and descriptor string.
#include <cstddef>
#include <cstdint>
#include <string>

#include "quiet_logs.h"
#include "tarvikdds/parameter/parameter.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  korvan_fuzz::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tarvik::korvan::Param param;
  if (!param.ParseFromArray(data, static_cast<int>(size)))
    return 0;
  tarvik::korvan::Parameter parameter;
  parameter.FromProtoParam(param);
  parameter.value<bool>();
  parameter.value<long>();
  parameter.value<int>();
  parameter.value<double>();
  parameter.value<float>();
  parameter.value<std::string>();
  parameter.DebugString();
  tarvik::korvan::Parameter copy(parameter);
  copy.ToProtoParam();
  return 0;
}
