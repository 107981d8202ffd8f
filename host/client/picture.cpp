// SPDX-License-Identifier: LGPL-2.1-or-later
// Picture files.

#include "picture.h"

#include <fcntl.h>
#include <unistd.h>
#ifdef WRX_WITH_PNG
#include <spng.h>
#endif

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "host/common/folders.h"
#include "host/common/outcome.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

#ifdef WRX_WITH_PNG

void require(int result) {
  if (result != 0)
    throw Failure(Outcome::Failed, tr("the picture cannot be made: {}", spng_strerror(result)));
}

std::string png(std::span<const uint8_t> grey) {
  const std::unique_ptr<spng_ctx, decltype(&spng_ctx_free)> context(spng_ctx_new(SPNG_CTX_ENCODER),
                                                                    &spng_ctx_free);
  spng_ihdr head{};
  head.width = kFrameWidth;
  head.height = kFrameHeight;
  head.bit_depth = 8;
  head.color_type = SPNG_COLOR_TYPE_GRAYSCALE;
  require(spng_set_option(context.get(), SPNG_ENCODE_TO_BUFFER, 1));
  require(spng_set_ihdr(context.get(), &head));
  require(spng_encode_image(context.get(), grey.data(), grey.size(), SPNG_FMT_PNG,
                            SPNG_ENCODE_FINALIZE));
  std::size_t size = 0;
  int result = 0;
  const std::unique_ptr<void, decltype(&std::free)> bytes(
      spng_get_png_buffer(context.get(), &size, &result), &std::free);
  require(result);
  return {static_cast<const char*>(bytes.get()), size};
}

#else

std::string png(std::span<const uint8_t>) {
  throw Failure(Outcome::Usage, tr("this build writes no PNG; name a file that ends in .pgm"));
}

#endif

std::string pgm(std::span<const uint8_t> grey) {
  std::string text = fmt::format("P5\n{} {}\n255\n", kFrameWidth, kFrameHeight);
  text.append(reinterpret_cast<const char*>(grey.data()), grey.size());
  return text;
}

bool write_all(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(file, bytes.data(), bytes.size());
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

void write_picture(const std::string& path, std::span<const uint8_t> grey) {
  const std::string bytes = path.ends_with(".pgm") ? pgm(grey) : png(grey);
  const int file = host::open_private(path, O_TRUNC);
  const bool written = file >= 0 && write_all(file, bytes);
  const int error = errno;
  const bool closed = file >= 0 && close(file) == 0;
  if (!written || !closed)
    throw Failure(Outcome::Usage,
                  tr("{} cannot be written: {}", path, std::strerror(written ? errno : error)));
}

}  // namespace wrx::client
