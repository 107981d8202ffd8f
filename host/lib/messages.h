// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's own texts for the numbers of the three words.
#pragma once

namespace wrx::framework {

enum class Word { Status, Result, Notify };

/// The text of `number` in the user's language. Never null; a number without a text of its own
/// gives one that names it, which is valid until the thread asks for another.
const char* message(Word word, int number);

}  // namespace wrx::framework
