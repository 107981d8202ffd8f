// SPDX-License-Identifier: LGPL-2.1-or-later
// A sensor's frame as a picture file.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace wrx::client {

inline constexpr int kFrameWidth = 256;
inline constexpr int kFrameHeight = 360;

/// Writes grey bytes, row by row, as PNG, or as PGM when the name ends in ".pgm". The file is its
/// user's alone: it shows a finger. Throws host::Failure.
void write_picture(const std::string& path, std::span<const uint8_t> grey);

}  // namespace wrx::client
