// SPDX-License-Identifier: LGPL-2.1-or-later
// Argument values as people write them, read into numbers. Each reader returns nothing for a text
// that it does not know.
#pragma once

#include <optional>
#include <string_view>

namespace wrx::client {

inline constexpr int kEveryUser = -1;
inline constexpr int kNoUpperEnd = -1;

/// Feature indexes first..last; last may be kNoUpperEnd.
struct IndexRange {
  int first = 0;
  int last = kNoUpperEnd;
};

/// "1000", a log-in name, or "all" or "-1" (kEveryUser).
std::optional<int> read_user(std::string_view text);

/// "3..7", "3.." (no upper end), "3..-1" (the same), "3" (that one).
std::optional<IndexRange> read_range(std::string_view text);

/// "1500", "1500ms", "1.5s": milliseconds, 1 to an hour.
std::optional<int> read_timeout(std::string_view text);

}  // namespace wrx::client
