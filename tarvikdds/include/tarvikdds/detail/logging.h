// The library's two log modules and its gated log statements (see trevam/log.h).
#pragma once

#include "trevam/log.h"

namespace tarvik {
namespace quessa {

// Internal diagnostics of the library.
inline constexpr char kLogModule[] = "korvan_internal";
// User-facing lines of the application framework.
inline constexpr char kAppLogModule[] = "tarvikdds_logs";

}  // namespace quessa
}  // namespace tarvik

#define KORVAN_LOG_ERROR TREVAM_ERROR(::tarvik::quessa::kLogModule)
#define KORVAN_LOG_WARNING TREVAM_WARNING(::tarvik::quessa::kLogModule)
#define KORVAN_LOG_INFO TREVAM_INFO(::tarvik::quessa::kLogModule)
#define KORVAN_LOG_DETAIL TREVAM_DETAIL(::tarvik::quessa::kLogModule)
