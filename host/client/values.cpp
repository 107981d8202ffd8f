// SPDX-License-Identifier: LGPL-2.1-or-later
// Readers of argument values.

#include "values.h"

#include <pwd.h>

#include <charconv>
#include <string>

namespace wrx::client {
namespace {

/// The whole text as a number.
template <class Number>
std::optional<Number> number(std::string_view text) {
  Number value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return value;
}

bool drop_suffix(std::string_view& text, std::string_view suffix) {
  if (!text.ends_with(suffix)) return false;
  text.remove_suffix(suffix.size());
  return true;
}

}  // namespace

std::optional<int> read_user(std::string_view text) {
  if (text == "all") return kEveryUser;
  if (const auto uid = number<int>(text)) return *uid >= kEveryUser ? uid : std::nullopt;
  const passwd* entry = getpwnam(std::string(text).c_str());
  if (entry == nullptr) return std::nullopt;
  return static_cast<int>(entry->pw_uid);
}

std::optional<IndexRange> read_range(std::string_view text) {
  const std::size_t dots = text.find("..");
  const auto first = number<int>(text.substr(0, dots));
  if (!first || *first < 0) return std::nullopt;
  if (dots == std::string_view::npos) return IndexRange{*first, *first};
  const std::string_view rest = text.substr(dots + 2);
  const auto last = rest.empty() ? kNoUpperEnd : number<int>(rest);
  if (!last || (*last != kNoUpperEnd && *last < *first)) return std::nullopt;
  return IndexRange{*first, *last};
}

std::optional<int> read_timeout(std::string_view text) {
  constexpr double kLongestMs = 3'600'000;
  const bool milliseconds = drop_suffix(text, "ms");
  const bool seconds = !milliseconds && drop_suffix(text, "s");
  const auto value = number<double>(text);
  if (!value) return std::nullopt;
  const double ms = seconds ? *value * 1000 : *value;
  if (!(ms >= 1 && ms <= kLongestMs)) return std::nullopt;
  return static_cast<int>(ms);
}

}  // namespace wrx::client
