// SPDX-License-Identifier: LGPL-2.1-or-later
// The program's two voices.

#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "words.h"

namespace wrx::client {
namespace {

// A cell a press; leaves a driver's message room on a line of 80 columns.
constexpr int kBarWidth = 12;

int share(int done, int total, int whole) {
  return total > 0 ? static_cast<int>(std::clamp<int64_t>(int64_t{done} * whole / total, 0, whole))
                   : 0;
}

std::string trimmed(std::string text) {
  const auto end = text.find_last_not_of(" \r\n\t");
  text.resize(end == std::string::npos ? 0 : end + 1);
  return text;
}

std::string dumped(const nlohmann::json& object) {
  // Bytes that are no UTF-8 (a finger's name in an old encoding) must not end the program.
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

void Output::note(const std::string& text) {
  const std::lock_guard lock(guard_);
  if (json_) return event({{"event", "note"}, {"text", text}});
  line(text);
}

void Output::driverSays(int number, const std::string& text) {
  const std::lock_guard lock(guard_);
  if (json_) return event({{"event", "notify"}, {"number", number}, {"text", trimmed(text)}});
  beside_ = trimmed(text);
  terminal_ ? drawBar() : line("  " + beside_);
}

void Output::progress(const std::string& what, int done, int total) {
  const std::lock_guard lock(guard_);
  done_ = done;
  total_ = total;
  const int percent = share(done, total, 100);
  if (json_)
    return event({{"event", "progress"},
                  {"what", what},
                  {"done", done},
                  {"total", total},
                  {"percent", percent}});
  const std::string words = gettext(what.c_str());
  if (terminal_) {
    if (beside_.empty()) beside_ = words;
    return drawBar();
  }
  line("  " + tr("{} {} of {} ({} %)", words, done, total, percent));
}

void Output::end(const std::string& command, const Report& report) {
  const std::lock_guard lock(guard_);
  endLocked(command, report);
}

void Output::endAtOnce(const std::string& command, const Report& report) {
  const std::unique_lock lock(guard_, std::try_to_lock);
  if (lock.owns_lock()) endLocked(command, report);
}

void Output::endLocked(const std::string& command, const Report& report) {
  leaveBar();
  if (json_) {
    nlohmann::json object = {{"command", command},
                             {"outcome", host::name(report.outcome)},
                             {"exit_code", static_cast<int>(report.outcome)},
                             {"message", report.text}};
    if (report.data.is_object()) object.update(report.data);
    return event(object);
  }
  put(report.body);
  if (report.outcome == host::Outcome::Success || report.outcome == host::Outcome::NoMatch)
    return line(report.text);
  flush();
  std::fprintf(stderr, "wrxctl: %s\n", report.text.c_str());
}

void Output::event(const nlohmann::json& object) {
  line(dumped(object));
}

void Output::line(const std::string& text) {
  leaveBar();
  put(text + "\n");
  flush();
}

void Output::put(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), to_) != text.size() && errno != EPIPE) lost_ = true;
}

void Output::flush() {
  if (std::fflush(to_) != 0 && errno != EPIPE) lost_ = true;
}

void Output::drawBar() {
  const auto full = static_cast<std::size_t>(share(done_, total_, kBarWidth));
  const std::string bar = std::string(full, '#') + std::string(kBarWidth - full, '.');
  // Without wrapping: a line too long for the terminal must not leave a piece behind when the
  // next one is drawn over it.
  put(fmt::format("\r\x1b[K\x1b[?7l[{}] {:3} %  {}\x1b[?7h", bar, share(done_, total_, 100),
                  beside_));
  flush();
  bar_ = true;
}

void Output::leaveBar() {
  if (bar_) put("\n");
  bar_ = false;
}

}  // namespace wrx::client
