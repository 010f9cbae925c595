// spdlog as one compiled library for the Windows cross build, made from Debian's headers.
//
// Header-only spdlog includes <windows.h> in every file that logs (and with it the macros near,
// far, ERROR, ...). Compiled, only this file sees the definitions: the library's own "-inl"
// headers hold them, and the sink templates the program uses are instantiated here once.
#ifndef SPDLOG_COMPILED_LIB
#error "build this file with SPDLOG_COMPILED_LIB"
#endif

#include <spdlog/spdlog-inl.h>
#include <spdlog/common-inl.h>
#include <spdlog/details/backtracer-inl.h>
#include <spdlog/details/log_msg-inl.h>
#include <spdlog/details/log_msg_buffer-inl.h>
#include <spdlog/details/os-inl.h>
#include <spdlog/details/periodic_worker-inl.h>
#include <spdlog/details/registry-inl.h>
#include <spdlog/logger-inl.h>
#include <spdlog/pattern_formatter-inl.h>
#include <spdlog/sinks/base_sink-inl.h>
#include <spdlog/sinks/sink-inl.h>
#include <spdlog/sinks/stdout_sinks-inl.h>
#include <spdlog/sinks/wincolor_sink-inl.h>
#include <spdlog/details/console_globals.h>
#include <spdlog/details/null_mutex.h>

#include <mutex>

// Sinks built on base_sink (the debugger-output sink, test sinks over streams).
template class spdlog::sinks::base_sink<std::mutex>;
template class spdlog::sinks::base_sink<spdlog::details::null_mutex>;

// The plain console sinks of the tool.
template class spdlog::sinks::stdout_sink_base<spdlog::details::console_mutex>;
template class spdlog::sinks::stdout_sink_base<spdlog::details::console_nullmutex>;
template class spdlog::sinks::stdout_sink<spdlog::details::console_mutex>;
template class spdlog::sinks::stdout_sink<spdlog::details::console_nullmutex>;
template class spdlog::sinks::stderr_sink<spdlog::details::console_mutex>;
template class spdlog::sinks::stderr_sink<spdlog::details::console_nullmutex>;

// The registry's default logger writes through the colour console sink; the program's own
// logger never does.
template class spdlog::sinks::wincolor_sink<spdlog::details::console_mutex>;
template class spdlog::sinks::wincolor_stdout_sink<spdlog::details::console_mutex>;
template class spdlog::sinks::wincolor_stderr_sink<spdlog::details::console_mutex>;
