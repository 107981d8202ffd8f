// SPDX-License-Identifier: LGPL-2.1-or-later
// Recording of scenarios and comparison with golden files.
#include "support/recorder.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <span>

#include "support/virtual_clock.h"

#ifndef WRX_GOLDEN_DIR
#error "the build names the folder of golden files in WRX_GOLDEN_DIR"
#endif

namespace wrx_test {

namespace {
Recorder* active_recorder = nullptr;

int64_t now_ms() {
  VirtualClock* clock = VirtualClock::active();
  return clock != nullptr ? clock->now_ms() : 0;
}

void replace_all(std::string& line, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = line.find(from, at)) != std::string::npos; at += to.size()) {
    line.replace(at, from.size(), to);
  }
}

// A driver's line as golden files have it: "#" for the line number of a prefix, and paths as they
// are without the scratch folder.
std::string settled(std::string line) {
  for (const std::string unit :
       {"wrx7700:", "operations:", "app_fp256_360:", "usb_device:", "upgrade:"}) {
    for (size_t at = 0; (at = line.find(unit, at)) != std::string::npos;) {
      const bool begins = at == 0 || line[at - 1] == '[' || line[at - 1] == '=';
      at += unit.size();
      const size_t end = line.find_first_not_of("0123456789", at);
      if (begins && end != at && end != std::string::npos && line[end] == ':') {
        line.replace(at, end - at, "#");
      }
    }
  }
  replace_all(line, "./etc/", "/etc/");
  replace_all(line, "./sys/", "/sys/");
  return line;
}
}  // namespace

Recorder::Recorder() {
  std::fflush(stdout);
  system_stdout_ = stdout;
  cookie_io_functions_t functions = {};
  functions.write = &Recorder::write;
  stream_ = fopencookie(this, "w", functions);
  std::setvbuf(stream_, nullptr, _IONBF, 0);
  stdout = stream_;
  active_recorder = this;
}

Recorder::~Recorder() {
  active_recorder = nullptr;
  stdout = system_stdout_;
  std::fclose(stream_);
}

Recorder* Recorder::active() {
  return active_recorder;
}

ssize_t Recorder::write(void* self, const char* bytes, size_t size) {
  auto& recorder = *static_cast<Recorder*>(self);
  const std::lock_guard lock(recorder.mutex_);
  for (size_t i = 0; i < size; ++i) {
    if (bytes[i] == '\n') {
      recorder.lines_.push_back(settled(recorder.open_line_));
      recorder.open_line_.clear();
    } else if (bytes[i] == '\r') {
      recorder.open_line_ += "\\r";
    } else {
      recorder.open_line_ += bytes[i];
    }
  }
  return static_cast<ssize_t>(size);
}

void Recorder::finish_open_line() {
  if (open_line_.empty()) return;
  lines_.push_back(settled(open_line_) + "\\");
  open_line_.clear();
}

void Recorder::note(const std::string& text) {
  const std::lock_guard lock(mutex_);
  finish_open_line();
  lines_.push_back("@ t=" + std::to_string(now_ms()) + " " + settled(text));
}

void Recorder::usb(const wrx_module::TraceRecord& record) {
  const std::lock_guard lock(mutex_);
  finish_open_line();
  lines_.push_back(wrx_module::trace_line(record));
}

std::vector<std::string> Recorder::lines() {
  const std::lock_guard lock(mutex_);
  finish_open_line();
  return lines_;
}

std::vector<std::string> Recorder::driver_lines() {
  std::vector<std::string> result = lines();
  std::erase_if(result, [](const std::string& line) { return line.rfind("@ ", 0) == 0; });
  return result;
}

int Recorder::count(const std::string& text) {
  const std::vector<std::string> all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
    return line.find(text) != std::string::npos;
  }));
}

bool Recorder::saw(const std::string& text) {
  return count(text) > 0;
}

void Recorder::clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
  open_line_.clear();
  number_connections_anew();
}

std::string quoted(const char* text) {
  return fmt::format("{:?}", text);
}

namespace {

/// A line's time, if it begins with one, and the rest of it.
struct TimedLine {
  explicit TimedLine(const std::string& line) : text(line) {
    const size_t end = line.rfind("@ t=", 0) == 0 ? line.find(' ', 4) : std::string::npos;
    if (end == std::string::npos) return;
    ms = std::stoll(line.substr(4));
    text = line.substr(end);
  }
  std::optional<int64_t> ms;
  std::string text;
};

/// How many lines of `now` are those of `then`, all so many milliseconds later.
std::pair<size_t, int64_t> repeated(std::span<const TimedLine> then,
                                    std::span<const TimedLine> now) {
  std::optional<int64_t> later_ms;
  size_t count = 0;
  for (; count < std::min(then.size(), now.size()); ++count) {
    const TimedLine &one = then[count], &other = now[count];
    if (one.text != other.text || one.ms.has_value() != other.ms.has_value()) break;
    if (one.text.starts_with("> ")) break;
    if (one.ms && later_ms.value_or(*other.ms - *one.ms) != *other.ms - *one.ms) break;
    if (one.ms) later_ms = *other.ms - *one.ms;
  }
  return {count, later_ms.value_or(0)};
}

}  // namespace

std::vector<std::string> without_repeats(const std::vector<std::string>& lines) {
  constexpr size_t kWorthNaming = 6;
  const std::vector<TimedLine> all(lines.begin(), lines.end());
  std::vector<std::string> result;
  std::vector<size_t> begins;  // where in the trace a line of the result begins
  for (size_t at = 0; at < lines.size();) {
    begins.push_back(at);
    size_t most = 1;
    std::string line = lines[at];
    for (size_t from = 0; from + 1 < begins.size(); ++from) {
      const auto trace = std::span(all);
      const auto [count, later_ms] =
          repeated(trace.subspan(begins[from], at - begins[from]), trace.subspan(at));
      // As many lines of the result as that are wholly repeated.
      const auto end = std::ranges::upper_bound(begins, begins[from] + count) - 1;
      if (*end < begins[from] + std::max(most + 1, kWorthNaming)) continue;
      most = *end - begins[from];
      line = fmt::format("… lines {} to {} again, {} ms {}", from + 1, end - begins.begin(),
                         std::abs(later_ms), later_ms < 0 ? "earlier" : "later");
    }
    result.push_back(line);
    at += most;
  }
  return result;
}

namespace {
std::string golden_path(const std::string& name) {
  return fmt::format(WRX_GOLDEN_DIR "/{}.txt", name);
}
}  // namespace

std::vector<std::string> golden_lines(const std::string& name) {
  std::vector<std::string> lines;
  std::ifstream in(golden_path(name));
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

std::string golden_difference(const std::string& name, std::vector<std::string> lines) {
  const std::string path = golden_path(name);
  if (std::getenv("WRX_UPDATE_GOLDEN") != nullptr) {
    std::ofstream out(path);
    for (const std::string& line : lines)
      out << line << '\n';
    return out ? "" : "cannot write " + path;
  }
  std::vector<std::string> expected = golden_lines(name);
  if (std::endian::native == std::endian::big) {
    // Records are shown as they lie in memory, and the files come from the other kind of machine.
    for (std::vector<std::string>* side : {&lines, &expected})
      std::erase_if(*side, [](const std::string& line) {
        return (" " + line).find(" record ") != line.npos;
      });
  }
  const auto [got, wanted] =
      std::mismatch(lines.begin(), lines.end(), expected.begin(), expected.end());
  if (got == lines.end() && wanted == expected.end()) return "";
  return path + ":" + std::to_string(got - lines.begin() + 1) + ": expected\n  " +
         (wanted == expected.end() ? "no more" : *wanted) + "\ngot\n  " +
         (got == lines.end() ? "no more" : *got);
}

}  // namespace wrx_test
