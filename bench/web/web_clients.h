// The WebSocket clients of the web load benchmark (see web_clients.cc).
#pragma once

#include "common/bench_common.h"

namespace korvan_bench {

// korvan_bench_web clients --port P [--foxglove N] [--pages M] [--topics a,b] [--select t]
int RunClients(const Options& options);

}  // namespace korvan_bench
