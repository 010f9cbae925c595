#pragma once
// The exit status a parent sees for a process that a fatal assertion or critical error ended
// (exit code -1): POSIX systems keep the low 8 bits of it, Windows all 32.

#ifdef _WIN32
inline constexpr int kFatalExitStatus = -1;
#else
inline constexpr int kFatalExitStatus = 255;
#endif
