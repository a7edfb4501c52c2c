// Keeps the fuzzers fast: every log statement is still built (the gate stays open), but
// glog drops the lines and protobuf only speaks when it is about to abort.
#pragma once

#include <cstdio>
#include <string>

#include <glog/logging.h>
#include <google/protobuf/stubs/logging.h>

namespace korvan_fuzz {

inline void ProtobufFatalOnly(google::protobuf::LogLevel level, const char* file, int line,
                              const std::string& message) {
  if (level == google::protobuf::LOGLEVEL_FATAL)
    std::fprintf(stderr, "[libprotobuf FATAL %s:%d] %s\n", file, line, message.c_str());
}

inline void QuietLogs() {
  FLAGS_minloglevel = google::GLOG_FATAL;
  google::protobuf::SetLogHandler(&ProtobufFatalOnly);
}

}  // namespace korvan_fuzz
