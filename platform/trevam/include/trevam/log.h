// Gated glog statements with the house prefix "[binary][module]" directly followed by the text:
//
//   TREVAM_LOG(korvan_internal_module, 2, ERROR) << "something broke: " << why;
//
// The stream expression is not evaluated when the gate is closed.
#pragma once

#include <glog/logging.h>

#include "trevam/trevam.h"

#define TREVAM_LOG(module, level, severity)                   \
  if (!::trevam::doTriggerCompare((module), (level), true)) { \
  } else                                                      \
    LOG(severity) << "[" << ::trevam::GetBinaryName() << "][" << (module) << "]"

// The four levels the system uses, with their glog severities.
#define TREVAM_ERROR(module) TREVAM_LOG(module, 2, ERROR)
#define TREVAM_WARNING(module) TREVAM_LOG(module, 3, WARNING)
#define TREVAM_INFO(module) TREVAM_LOG(module, 4, INFO)
#define TREVAM_DETAIL(module) TREVAM_LOG(module, 5, INFO)
