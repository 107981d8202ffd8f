// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Ridges: the cosine of a distance from the core, bent by a slow wave, faded out towards the edge
// of the fingertip.
#include "module/device/image.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace wrx_module {
namespace {

constexpr uint8_t kBareSurface = 235;
constexpr double kRidgePixels = 9.0;

// A number in 0..1 that belongs to the finger and to `salt`.
double trait(const std::string& finger, uint32_t salt) {
  uint64_t hash = 0xcbf29ce484222325ULL ^ salt;
  for (const char c : finger)
    hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001b3ULL;
  hash ^= hash >> 29;
  return static_cast<double>(hash % 1000) / 999.0;
}

}  // namespace

std::vector<uint8_t> finger_image(const std::optional<std::string>& finger) {
  std::vector<uint8_t> image(kImageBytes, kBareSurface);
  if (!finger) return image;
  const double core_x = kImageWidth * (0.4 + 0.2 * trait(*finger, 1));
  const double core_y = kImageHeight * (0.35 + 0.2 * trait(*finger, 2));
  const double turns = std::floor(3.0 * trait(*finger, 3));  // arch, loop, whorl
  const double bend = 6.0 + 8.0 * trait(*finger, 4);
  for (size_t row = 0; row < kImageHeight; ++row) {
    for (size_t column = 0; column < kImageWidth; ++column) {
      const double x = static_cast<double>(column) - core_x;
      const double y = (static_cast<double>(row) - core_y) * 0.8;
      const double distance = std::hypot(x, y) + bend * std::sin(y / 40.0 + x / 70.0);
      const double phase =
          distance * 2.0 * std::numbers::pi / kRidgePixels + turns * std::atan2(y, x);
      // 1 inside the fingertip's ellipse, 0 outside, soft between.
      const double ex = (static_cast<double>(column) - kImageWidth / 2.0) / (kImageWidth * 0.48);
      const double ey = (static_cast<double>(row) - kImageHeight / 2.0) / (kImageHeight * 0.48);
      const double inside = std::clamp((1.0 - std::hypot(ex, ey)) * 8.0, 0.0, 1.0);
      const double grey = kBareSurface - inside * (90.0 + 70.0 * std::cos(phase));
      image[row * kImageWidth + column] = static_cast<uint8_t>(grey);
    }
  }
  return image;
}

}  // namespace wrx_module
