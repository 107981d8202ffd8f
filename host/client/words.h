// SPDX-License-Identifier: LGPL-2.1-or-later
// The program's sentences in the user's language. Texts are written in English in the sources and
// found in the message catalogue by that text.
#pragma once

#include <fmt/format.h>
#include <libintl.h>

#include <string>

namespace wrx::client {

/// Marks a text of a table for the catalogue, which is asked when the text is used.
constexpr const char* N_(const char* text) {
  return text;
}

/// Fills `translated`, or `text` when a translator's placeholders do not fit the arguments.
template <class... Arguments>
std::string filled(const char* translated, const char* text, const Arguments&... arguments) {
  try {
    return fmt::vformat(translated, fmt::make_format_args(arguments...));
  } catch (const fmt::format_error&) {
    return fmt::vformat(text, fmt::make_format_args(arguments...));
  }
}

/// `text` in the user's language, with its {} filled; `text` is not empty.
template <class... Arguments>
std::string tr(const char* text, const Arguments&... arguments) {
  return filled(gettext(text), text, arguments...);
}

/// As tr, by number: `count` chooses between one and many.
template <class... Arguments>
std::string tr_n(const char* one, const char* many, std::size_t count,
                 const Arguments&... arguments) {
  return filled(ngettext(one, many, count), count == 1 ? one : many, arguments...);
}

}  // namespace wrx::client
