// The logging gate: decides per module and level whether a log line is written.
//
// Levels: 1 fatal, 2 error, 3 warning, 4 info, 5 detail. A module's threshold t lets levels
// 1..t through. The default threshold is 3, so a normal run prints errors and warnings only.
//
// Configuration comes from the environment variable TREVAM_LOG_LEVEL, read once on first use:
//   TREVAM_LOG_LEVEL=4                               every module at 4
//   TREVAM_LOG_LEVEL=korvan_internal=5,*=2           one module at 5, all others at 2
// Unknown or malformed entries are ignored (the rest of the value still applies).
//
// All functions are thread-safe and cheap when the gate is closed.
#pragma once

#include <string>

namespace trevam {

// True when a line of `level` for `module` is to be written. With `use_module_setting` false
// only the process-wide default threshold is consulted.
bool doTriggerCompare(const std::string& module, int level, bool use_module_setting = true);

// Short name of the running program, as printed in the log prefix.
const std::string& GetBinaryName();

// Re-reads TREVAM_LOG_LEVEL. For tools and tests that change the environment at run time.
void ReloadLevels();

}  // namespace trevam
