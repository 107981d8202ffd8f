// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The parser: statements into words, words into steps, by a table of verbs.
#include "module/play/script.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "module/play/script_words.h"

namespace wrx_module {
namespace {

constexpr size_t kMostSteps = 10'000;
constexpr int kMostPresses = 1'000;
constexpr int64_t kLongestTimeUs = 86'400'000'000;  // a day
constexpr int64_t kMostTransfers = 1'000'000'000;
constexpr size_t kLongestName = 32;

struct Word {
  std::string_view text;
  int column = 0;
};

/// Thrown inside the parser only; becomes a ScriptError.
struct Failure {
  int column;
  std::string message;
};

// A word as an error message shows it.
std::string shown(std::string_view text) {
  constexpr size_t kShown = 24;
  return std::string("'").append(text.substr(0, kShown)).append(text.size() > kShown ? "…'" : "'");
}

std::optional<int64_t> whole_number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x")) {
    base = 16;
    text.remove_prefix(2);
  }
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

std::optional<int64_t> time_us(std::string_view text) {
  constexpr std::pair<std::string_view, int64_t> kUnits[] = {
      {"ms", 1'000}, {"us", 1}, {"s", 1'000'000}};
  for (const auto& [unit, factor] : kUnits) {
    if (!text.ends_with(unit)) continue;
    const auto number = whole_number(text.substr(0, text.size() - unit.size()));
    if (!number || *number > kLongestTimeUs / factor) return std::nullopt;
    return *number * factor;
  }
  return std::nullopt;
}

bool is_name(std::string_view text) {
  return !text.empty() && text.size() <= kLongestName &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '_';
         });
}

/// The words of one statement, taken from the left.
class Words {
 public:
  explicit Words(std::vector<Word> words) : words_(std::move(words)) {}

  bool empty() const { return next_ == words_.size(); }
  /// The column of the next word, or of the end of the statement.
  int column() const {
    if (!empty()) return words_[next_].column;
    return words_.back().column + static_cast<int>(words_.back().text.size());
  }
  std::string_view peek() const { return empty() ? std::string_view() : words_[next_].text; }
  std::string_view take(std::string_view what) {
    if (empty()) fail("expected " + std::string(what));
    return words_[next_++].text;
  }
  /// Takes the next word if it is this one.
  bool accept(std::string_view text) {
    if (peek() != text) return false;
    ++next_;
    return true;
  }
  int64_t number(std::string_view what, int64_t least, int64_t most) {
    const int at = column();
    const auto value = whole_number(take(what));
    if (!value || *value < least || *value > most) {
      throw Failure{at, "expected " + std::string(what) + ", " + std::to_string(least) + " to " +
                            std::to_string(most)};
    }
    return *value;
  }
  int64_t time() {
    const int at = column();
    const auto value = time_us(take("a time such as 300ms"));
    if (!value) throw Failure{at, "expected a time such as 300ms, 20us or 2s, at most a day"};
    return *value;
  }
  std::string name() {
    const int at = column();
    const std::string_view text = take("a finger's name");
    if (!is_name(text)) throw Failure{at, shown(text) + " is no finger's name"};
    return std::string(text);
  }
  /// A trailing xN; 1 without it.
  int times(int most) {
    if (empty()) return 1;
    const int at = column();
    const std::string_view text = take("xN");
    const auto value = text.starts_with('x') ? whole_number(text.substr(1)) : std::nullopt;
    if (!value || *value < 1 || *value > most) {
      throw Failure{at, "expected xN with N from 1 to " + std::to_string(most) + " instead of " +
                            shown(text)};
    }
    return static_cast<int>(*value);
  }
  [[noreturn]] void fail(std::string message) const { throw Failure{column(), std::move(message)}; }

 private:
  std::vector<Word> words_;
  size_t next_ = 0;
};

/// What carries over from statement to statement.
class Reader {
 public:
  void statement(Words words);
  Script take() { return std::move(script_); }

 private:
  friend struct Verbs;

  void add(decltype(Step::action) action) {
    if (script_.steps.size() == kMostSteps) throw Failure{1, "too many statements"};
    script_.steps.push_back({moment_, std::move(action)});
  }

  Script script_;
  std::optional<int64_t> moment_;
  std::string finger_ = "thumb";
};

/// One function a verb; the verb itself has been taken.
struct Verbs {
  static void at(Reader& r, Words& w) {
    const int column = w.column();
    const int64_t time = w.time();
    if (time < r.moment_.value_or(0)) throw Failure{column, "time goes forward only"};
    r.moment_ = time;
  }
  static void wait(Reader& r, Words& w) { r.moment_ = r.moment_.value_or(0) + w.time(); }
  static void finger(Reader& r, Words& w) { r.finger_ = w.name(); }

  static void press(Reader& r, Words& w) {
    const auto is_finger = [](std::string_view word) {
      const bool repeat = word.starts_with('x') && whole_number(word.substr(1));
      return !word.empty() && word != "code" && !quality_named(word) && !repeat;
    };
    std::string finger = is_finger(w.peek()) ? w.name() : r.finger_;
    Press press;
    if (w.accept("code")) {
      press.feature = static_cast<uint8_t>(w.number("a confirm code", 0, 255));
    } else if (const auto quality = quality_named(w.peek())) {
      press = *quality;
      w.take("a quality");
    }
    press.finger = std::move(finger);
    const int column = w.column();
    const int times = w.times(kMostPresses);
    if (times > 1 && r.moment_) throw Failure{column, "a press at its moment happens once"};
    r.add(PressAction{std::move(press), times});
  }
  static void lift(Reader& r, Words&) { r.add(LiftAction{}); }
  static void plug(Reader& r, Words&) { r.add(PowerAction::plug); }
  static void cut_power(Reader& r, Words&) { r.add(PowerAction::cut_power); }
  static void power_cycle(Reader& r, Words&) { r.add(PowerAction::power_cycle); }
  static void unplug(Reader& r, Words& w) {
    if (!w.accept("after")) return r.add(PowerAction::unplug);
    const int64_t count = w.number("a number of transfers", 0, kMostTransfers);
    if (!w.accept("transfers") && !w.accept("transfer")) w.fail("expected 'transfers'");
    r.add(FaultAction{{static_cast<int>(count) + 1, FaultKind::unplug, 0}});
  }

  static void fault(Reader& r, Words& w) {
    if (!w.accept("at")) w.fail("expected 'at' and the number of a transfer");
    Fault fault;
    fault.at = static_cast<int>(w.number("the number of a transfer", 1, kMostTransfers));
    const int column = w.column();
    const std::string_view word = w.take("a kind of fault");
    const auto kind = fault_named(word);
    if (!kind) throw Failure{column, "unknown kind of fault " + shown(word)};
    fault.kind = *kind;
    if (fault_value(*kind) == FaultValue::count) fault.value = w.number("a number", 0, 1 << 24);
    if (fault_value(*kind) == FaultValue::time) fault.value = w.time();
    r.add(FaultAction{fault});
  }

  static void power_up(Reader& r, Words& w) {
    PowerUpSettings found;
    if (w.accept("match")) {
      found.outcome = PowerUpOutcome::match;
      do {
        found.slots.push_back(static_cast<uint16_t>(w.number("a slot", 0, 1023)));
      } while (whole_number(w.peek()));
    } else if (w.accept("nomatch")) {
      found.outcome = PowerUpOutcome::no_match;
    } else if (!w.accept("none")) {
      w.fail("expected match, nomatch or none");
    }
    if (w.accept("list")) {
      found.form = ResultForm::list;
    } else {
      w.accept("single");
    }
    r.add(PowerUpAction{std::move(found)});
  }
  static void refuse(Reader& r, Words& w) {
    RefuseAction action;
    action.command = static_cast<uint8_t>(w.number("a command", 0, 255));
    action.refusal.code = static_cast<uint8_t>(w.number("a confirm code", 0, 255));
    if (!w.empty()) action.refusal.times = w.times(kMostPresses);
    r.add(action);
  }

  static void set(Reader& r, Words& w) {
    const int column = w.column();
    const std::string_view name = w.take("a setting");
    const auto rows = setting_rows();
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&](const SettingRow& each) { return each.name == name; });
    if (row == rows.end()) throw Failure{column, "unknown setting " + shown(name)};
    r.add(SetAction{static_cast<size_t>(row - rows.begin()), value(*row, w)});
  }
  static int64_t value(const SettingRow& row, Words& w) {
    switch (row.kind) {
      case ValueKind::choice:
        return choice(row.words, w);
      case ValueKind::number:
        return w.number("a number", row.least, row.most);
      case ValueKind::delay:
        if (w.accept("never")) return -1;
        return w.time();
      case ValueKind::time:
        return w.time();
    }
    return 0;
  }
  static int64_t choice(std::string_view words, Words& w) {
    const std::string all(words);
    for (int64_t place = 0;; ++place) {
      const size_t bar = words.find('|');
      if (w.accept(words.substr(0, bar))) return place;
      if (bar == std::string_view::npos) w.fail("expected one of " + all);
      words.remove_prefix(bar + 1);
    }
  }
};

struct VerbRow {
  std::string_view verb;
  void (*read)(Reader&, Words&);
};

constexpr VerbRow kVerbs[] = {
    {"at", Verbs::at},         {"wait", Verbs::wait},           {"finger", Verbs::finger},
    {"press", Verbs::press},   {"lift", Verbs::lift},           {"plug", Verbs::plug},
    {"unplug", Verbs::unplug}, {"cut-power", Verbs::cut_power}, {"power-cycle", Verbs::power_cycle},
    {"fault", Verbs::fault},   {"powerup", Verbs::power_up},    {"refuse", Verbs::refuse},
    {"set", Verbs::set},
};

void Reader::statement(Words words) {
  const int column = words.column();
  const std::string_view verb = words.take("a verb");
  const auto row = std::find_if(std::begin(kVerbs), std::end(kVerbs),
                                [&](const VerbRow& each) { return each.verb == verb; });
  if (row == std::end(kVerbs)) throw Failure{column, "unknown verb " + shown(verb)};
  row->read(*this, words);
  if (!words.empty()) words.fail("unexpected " + shown(words.peek()));
}

bool is_blank(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// The words of `text`, which begins at `column` of its line.
std::vector<Word> split(std::string_view text, int column) {
  std::vector<Word> words;
  size_t i = 0;
  while (i < text.size()) {
    if (is_blank(text[i])) {
      ++i;
      continue;
    }
    const size_t start = i;
    while (i < text.size() && !is_blank(text[i]))
      ++i;
    words.push_back({text.substr(start, i - start), column + static_cast<int>(start)});
  }
  return words;
}

void read_line(Reader& reader, std::string_view line) {
  line = line.substr(0, line.find('#'));
  for (size_t start = 0; start <= line.size();) {
    const size_t end = std::min(line.find(';', start), line.size());
    auto words = split(line.substr(start, end - start), static_cast<int>(start) + 1);
    if (!words.empty()) reader.statement(Words(std::move(words)));
    start = end + 1;
  }
}

}  // namespace

std::string ScriptError::text() const {
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + message;
}

ParsedScript parse_script(std::string_view text) {
  Reader reader;
  int number = 0;
  for (size_t start = 0; start <= text.size();) {
    ++number;
    const size_t end = std::min(text.find('\n', start), text.size());
    try {
      read_line(reader, text.substr(start, end - start));
    } catch (const Failure& failure) {
      return {{}, ScriptError{number, failure.column, failure.message}};
    }
    start = end + 1;
  }
  return {reader.take(), std::nullopt};
}

}  // namespace wrx_module
