// SPDX-License-Identifier: LGPL-2.1-or-later
// Stored fingerprints in words for people and in JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client.h"

namespace wrx::client {

/// "user 1000 (ann)", or "any user" for kEveryUser.
std::string user_words(int uid);

/// "finger 3 ("thumb") of user 1000 (ann), module slot 20".
std::string words(const Finger& finger);
/// A line a finger.
std::string lines(const std::vector<Finger>& fingers);

nlohmann::json object(const Finger& finger);
nlohmann::json array(const std::vector<Finger>& fingers);

}  // namespace wrx::client
