// SPDX-License-Identifier: LGPL-2.1-or-later
// What the tests of the firmware upgrade share: images, and processes of their own. The driver
// spends its upgrade budget once a process, so that a second start needs a second process.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "base/owners.h"
#include "support/rig.h"
#include "upgrade/bootloader.h"
#include "upgrade/upgrade.h"

namespace wrx_test {

/// Scratch folders in memory, where the machine has such a place: saving a budget waits for the
/// disk, which costs these tests more than all the rest.
inline const bool kScratchInMemory =
    access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 0) == 0;

inline constexpr char kExtraConfigFile[] = "etc/biometric-auth/extra.conf.d/vestrel-m6600.conf";

/// An image of `size` bytes in which every block differs from its neighbours.
inline std::string image_of(size_t size) {
  std::string image(size, '\0');
  for (size_t i = 0; i < size; ++i)
    image[i] = static_cast<char>(i * 13 + 1 + i / 128);
  return image;
}

/// Whether the module's flash holds exactly `image` behind a stored checksum that holds.
inline bool holds(const wrx_module::Memory& memory, const std::string& image) {
  return std::string(memory.flash.begin(), memory.flash.end()) == image &&
         wrx_module::bootable(memory) && memory.stored_crc->offset == 0 &&
         memory.stored_crc->length == image.size();
}

/// Takes the module's firmware away, so that power brings up its bootloader.
inline void break_firmware(Rig& rig) {
  rig.device.memory().stored_crc.reset();
  rig.device.power_cycle();
}

/// "UpgradeFlag" as the file below `folder` has it now.
inline int budget_in_file(Rig& rig, const std::string& folder = "") {
  const std::string text = rig.read_file(folder + kExtraConfigFile);
  const size_t at = text.find("UpgradeFlag=");
  return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 12);
}

/// CRC-16/X-25 by the book, a bit at a time.
inline uint16_t crc_by_the_book(const std::string& bytes) {
  unsigned crc = 0xFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 1U) != 0 ? crc >> 1 ^ 0x8408U : crc >> 1;
  }
  return static_cast<uint16_t>(~crc);
}

/// `value` as `count` bytes, least significant first.
inline std::string le(uint64_t value, int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i)
    bytes += static_cast<char>(value >> 8 * i);
  return bytes;
}

/// A bootloader frame with a good check byte, zeros behind it up to `size`.
inline std::string frame(uint8_t type, const std::string& data = "", size_t size = 0) {
  std::string bytes = "\xAA" + le(type, 1) + le(data.size(), 2) + data;
  char check = 0x55;
  for (const char byte : bytes)
    check = static_cast<char>(check ^ byte);
  bytes += check;
  bytes += '\x55';
  bytes.resize(std::max(bytes.size(), size), '\0');
  return bytes;
}

/// Everything a rewrite says to the bootloader.
inline std::string rewrite_of(const std::string& image) {
  std::string wire = frame(0xD3);
  for (size_t at = 0; at < image.size(); at += 240) {
    wire += frame(0xD7, le(at, 4) + image.substr(at, 240), 250);
  }
  const std::string size = le(image.size(), 4);
  wire += frame(0xA6, le(0, 4) + size, 250);
  wire += frame(0xD9, size + le(crc_by_the_book(image), 2) + le(0, 4), 250);
  return wire + frame(0xCC) + frame(0xE3);
}

/// What is said to the bootloader from now on, beside the trace.
class BootWire {
 public:
  explicit BootWire(Rig& rig) {
    wrx_module::bus().set_trace([this, &rig](const wrx_module::TraceRecord& record) {
      rig.trace.usb(record);
      if (record.endpoint == 0x04) said_.append(record.bytes.begin(), record.bytes.end());
    });
  }
  const std::string& said() const { return said_; }

 private:
  std::string said_;
};

/// Runs `body` in a process of its own; what it returned, or how the process died.
inline std::string in_fresh_process(const std::function<std::string()>& body) {
  std::fflush(nullptr);
  const wrx::File file(std::tmpfile());  // which both processes hold
  const pid_t child = fork();
  if (child == 0) {
    const std::string said = body();
    std::fwrite(said.data(), 1, said.size(), file.get());
    _exit(std::fflush(file.get()));
  }
  int status = 0;
  waitpid(child, &status, 0);
  std::rewind(file.get());
  std::string said;
  for (int c = 0; (c = std::fgetc(file.get())) != EOF;)
    said += static_cast<char>(c);
  return status == 0 ? said : said + "process ended with status " + std::to_string(status);
}

}  // namespace wrx_test
