// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver's log, open to every room.
//
// A line goes to standard output and, when the configuration switched the log file on, to that
// file behind the local time of day. Lines name the unit, line and function they come from. Where
// an engine writes a line for the function that a reader knows, the call site travels with the
// call as a `wrx::CallSite`; each room has a `here()` (units.h) that takes one.
//
// Every function here may be called from any thread; a line is always written whole.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

namespace wrx {

/// Where a line comes from: source unit, line number, function.
struct CallSite {
  const char* unit;
  int line;
  const char* function;
};

/// Longest text of one log line in bytes, prefix included; longer ones are cut.
inline constexpr std::size_t kMaxLine = 499;

}  // namespace wrx

#pragma GCC visibility push(default)
extern "C" {

/// Switches the log file on (`flag` non-zero) or off. Returns 0. Called by the configuration
/// readers.
int32_t enable_printf_log(int32_t flag);

/// Opens the log file for appending, creating it if need be; does nothing while the log file is
/// switched off. 0, or -1 when it cannot be opened (said on standard output). The next line written
/// by any thread uses a new descriptor and closes this one.
int32_t wrx_open_log_file(void);

/// Appends `len` raw bytes to the log file. 0 (also when it is switched off), or -1 when the file
/// cannot be opened or `buf` is null or `len` not positive.
int32_t wrx_print_log(const uint8_t* buf, int32_t len);

/// As wrx_print_log, with the local time "HH:MM:SS " before the bytes.
int32_t wrx_print_log_time(const uint8_t* buf, int32_t len);

}  // extern "C"
#pragma GCC visibility pop

/// The standard line: "[unit:line:function] " and the message as it stands, to log file and
/// standard output. The message brings its own line end.
[[gnu::format(printf, 2, 3)]] void WRX_LOG(wrx::CallSite site, const char* format, ...);

/// A line for standard output alone: the same prefix, the message, a line end.
void WRX_PRINT(wrx::CallSite site, const char* message);

namespace wrx {

/// A text for standard output alone behind the prefix "[unit:line:function] ", nothing added.
[[gnu::format(printf, 2, 3)]] void print_text(CallSite site, const char* format, ...);

/// A text for standard output alone behind the prefix "unit:line:function: ", nothing added.
[[gnu::format(printf, 2, 3)]] void print_line(CallSite site, const char* format, ...);

/// A text for standard output alone behind the function's name and ": ", nothing added.
[[gnu::format(printf, 2, 3)]] void print_function(CallSite site, const char* format, ...);

/// A piece that continues a line on standard output: no prefix, nothing added.
[[gnu::format(printf, 1, 2)]] void print_piece(const char* format, ...);

/// How a byte dump ("%02x " each) is written.
struct DumpStyle {
  bool toLogFile;        ///< also to the log file, without a time
  bool breaksOnConsole;  ///< "\n" after every 32nd byte on standard output
  bool breaksInLog;      ///< the same in the log file
  const char* end;       ///< text behind the last byte, on both
};

/// Writes a dump, opening the log file once.
void dump(const uint8_t* bytes, std::size_t count, const DumpStyle& style);

}  // namespace wrx
