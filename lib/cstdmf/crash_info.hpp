#pragma once
// Crash information: what the default critical-error handler records before the process ends.
//
// One text file per crash, "<tool>_crash_<pid>.txt" (tool: the executable's name without its
// extension) in DebugConfig::crashInfoDirectory, or in the system's temporary directory when that
// is empty. It holds the time, the process, the message with its source location, and the system
// and memory lines.

#include "cstdmf/debug.hpp"

#include <string>

namespace cstdmf
{

// The system and memory lines: "\tOS Name: %s\n", "\tOS Version: %s\n",
// "\tNumber of processors: %u\n", "\tPhysical memory: %lluKb/%lluKb (%d%%)\n" and
// "\tVirtual memory: %lluKb/%lluKb (%d%%)\n", each memory line giving used/total and the share used.
std::string systemInformationText();

// The whole report for a critical error with this text and source location.
std::string crashReportText(const char* text, const SourceLocation& where);

// Where this process's report goes.
std::string crashInfoPath();

// Writes the report to crashInfoPath(). On failure returns false with the reason in `error`.
[[nodiscard]] bool saveCrashInfo(const char* text, const SourceLocation& where, std::string& error);

} // namespace cstdmf
