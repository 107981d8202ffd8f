// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The picture a capture shows: 256 × 360 grey pixels, ridges around a core whose place and turn
// belong to the finger, or the bare surface.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace wrx_module {

inline constexpr size_t kImageWidth = 256;
inline constexpr size_t kImageHeight = 360;
inline constexpr size_t kImageBytes = kImageWidth * kImageHeight;

std::vector<uint8_t> finger_image(const std::optional<std::string>& finger);

}  // namespace wrx_module
