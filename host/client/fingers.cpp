// SPDX-License-Identifier: LGPL-2.1-or-later
// Fingerprints in words.

#include "fingers.h"

#include <pwd.h>

#include "words.h"

namespace wrx::client {

std::string user_words(int uid) {
  if (uid == kEveryUser) return tr("any user");
  const passwd* entry = getpwuid(static_cast<uid_t>(uid));
  return entry != nullptr ? tr("user {} ({})", uid, entry->pw_name) : tr("user {}", uid);
}

std::string words(const Finger& finger) {
  return tr("finger {} (\"{}\") of {}, module slot {}", finger.index, finger.name,
            user_words(finger.uid), fmt::format("{}", fmt::join(finger.slots, ", ")));
}

std::string lines(const std::vector<Finger>& fingers) {
  std::string text;
  for (const Finger& finger : fingers)
    text += "  " + words(finger) + "\n";
  return text;
}

nlohmann::json object(const Finger& finger) {
  return {
      {"uid", finger.uid}, {"index", finger.index}, {"name", finger.name}, {"slots", finger.slots}};
}

nlohmann::json array(const std::vector<Finger>& fingers) {
  nlohmann::json all = nlohmann::json::array();
  for (const Finger& finger : fingers)
    all.push_back(object(finger));
  return all;
}

}  // namespace wrx::client
