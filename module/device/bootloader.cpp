// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The bootloader's frames and commands.
#include "module/device/bootloader.h"

#include <algorithm>
#include <array>

#include "module/device/clock.h"

namespace wrx_module {
namespace {

constexpr uint8_t kHead = 0xAA, kEnd = 0x55;
constexpr size_t kFrameBytes = 6;  // around the data

constexpr uint8_t kErase = 0xD3, kWrite = 0xD7, kReadCrc = 0xA6, kStoreCrc = 0xD9, kSecurity = 0xCC,
                  kRun = 0xE3, kRead = 0xD0, kSerial = 0xA0;

uint8_t xor_of(std::span<const uint8_t> bytes) {
  uint8_t check = 0;
  for (const uint8_t byte : bytes)
    check ^= byte;
  return check;
}

uint32_t number(std::span<const uint8_t> bytes, size_t at, size_t count) {
  uint32_t value = 0;
  for (size_t i = count; i-- > 0;)
    value = value << 8 | bytes[at + i];
  return value;
}

}  // namespace

/// The handlers: each returns its status, or answers with data by itself and returns nothing.
struct BootCommandSet {
  using Boot = Bootloader;
  using Data = std::span<const uint8_t>;
  using Status = std::optional<BootStatus>;

  static bool inside(const Boot& boot, uint32_t offset, uint64_t length) {
    return offset + length <= boot.settings_.bootloader.flash_size;
  }

  static Status erase(Boot& boot, Data) {
    boot.memory_.flash.clear();
    boot.memory_.stored_crc.reset();
    boot.memory_.new_image = true;
    boot.security_ = false;
    return BootStatus::ok;
  }
  static Status write(Boot& boot, Data data) {
    const uint32_t offset = number(data, 0, 4);
    const Data block = data.subspan(4);
    if (block.empty()) return BootStatus::bad_length;
    if (!inside(boot, offset, block.size())) return BootStatus::out_of_range;
    std::vector<uint8_t>& flash = boot.memory_.flash;
    const size_t end = offset + block.size();
    for (size_t i = offset; i < std::min(end, flash.size()); ++i) {
      if (flash[i] != 0xFF) return BootStatus::not_erased;
    }
    if (flash.size() < end) flash.resize(end, 0xFF);
    std::copy(block.begin(), block.end(), flash.begin() + offset);
    return BootStatus::ok;
  }
  static Status read_crc(Boot& boot, Data data) {
    const uint32_t offset = number(data, 0, 4), length = number(data, 4, 4);
    if (!inside(boot, offset, length)) return BootStatus::out_of_range;
    uint16_t crc = flash_crc(boot.memory_, offset, length);
    if (boot.quirk_ && boot.quirk_->kind == BootQuirk::Kind::wrong_crc) crc ^= 1;
    const std::array answer = {static_cast<uint8_t>(crc), static_cast<uint8_t>(crc >> 8)};
    boot.answer(boot.now_us_ + boot.settings_.bootloader.crc_us, kReadCrc, answer);
    return {};
  }
  static Status store_crc(Boot& boot, Data data) {
    const StoredCrc stored = {number(data, 6, 4), number(data, 0, 4),
                              static_cast<uint16_t>(number(data, 4, 2))};
    if (stored.length == 0) return BootStatus::bad_length;
    if (!inside(boot, stored.offset, stored.length)) return BootStatus::out_of_range;
    boot.memory_.stored_crc = stored;
    return BootStatus::ok;
  }
  static Status security(Boot& boot, Data) {
    if (!bootable(boot.memory_)) return BootStatus::crc_mismatch;
    boot.security_ = true;
    return BootStatus::ok;
  }
  static Status run(Boot& boot, Data) {
    if (!boot.security_) return BootStatus::not_allowed;
    if (!bootable(boot.memory_)) return BootStatus::crc_mismatch;
    boot.run_asked_us_ = boot.now_us_;
    return BootStatus::ok;
  }
  static Status read(Boot& boot, Data data) {
    const uint32_t offset = number(data, 0, 4), length = data[4];
    if (!inside(boot, offset, length)) return BootStatus::out_of_range;
    std::vector<uint8_t> bytes;
    for (size_t i = offset; i < size_t{offset} + length; ++i) {
      bytes.push_back(i < boot.memory_.flash.size() ? boot.memory_.flash[i] : uint8_t{0xFF});
    }
    boot.answer(boot.now_us_ + boot.settings_.bootloader.answer_us, kRead, bytes);
    return {};
  }
  static Status serial(Boot& boot, Data) {
    boot.answer(boot.now_us_ + boot.settings_.bootloader.answer_us, kSerial,
                boot.settings_.identity.serial);
    return {};
  }
};

namespace {

struct Row {
  uint8_t type;
  size_t data;  // exactly so many bytes, except a write, which has more
  std::optional<BootStatus> (*handler)(Bootloader&, std::span<const uint8_t>);
  int64_t BootloaderSettings::*time;
};

constexpr Row kBootCommands[] = {
    {kSerial, 0, BootCommandSet::serial, &BootloaderSettings::answer_us},
    {kReadCrc, 8, BootCommandSet::read_crc, &BootloaderSettings::crc_us},
    {kSecurity, 0, BootCommandSet::security, &BootloaderSettings::answer_us},
    {kRead, 5, BootCommandSet::read, &BootloaderSettings::answer_us},
    {kErase, 0, BootCommandSet::erase, &BootloaderSettings::erase_us},
    {kWrite, 4, BootCommandSet::write, &BootloaderSettings::write_us},
    {kStoreCrc, 10, BootCommandSet::store_crc, &BootloaderSettings::answer_us},
    {kRun, 0, BootCommandSet::run, &BootloaderSettings::answer_us},
};

}  // namespace

OutResult Bootloader::out(int64_t now_us, std::span<const uint8_t> data) {
  now_us_ = now_us;
  quirk_ = nullptr;
  // Without a head there is nobody to answer.
  if (data.size() < 4 || data[0] != kHead) return {OutStatus::accepted};
  const uint8_t type = data[1];
  const size_t n = number(data, 2, 2);
  commands_.push_back({now_us, type, {}, 0xFF});
  answers_.clear();  // an answer nobody fetched is not given to the next request
  if (data.size() < n + kFrameBytes) {
    say_status(now_us, type, BootStatus::bad_length);
  } else if (xor_of(data.first(n + kFrameBytes)) != 0 || data[n + kFrameBytes - 1] != kEnd) {
    say_status(now_us, type, BootStatus::bad_check);
  } else {
    commands_.back().params.assign(data.begin() + 4,
                                   data.begin() + static_cast<std::ptrdiff_t>(4 + n));
    execute(now_us, type, data.subspan(4, n));
  }
  return {OutStatus::accepted};
}

void Bootloader::execute(int64_t now_us, uint8_t type, std::span<const uint8_t> data) {
  ++seen_[type];
  quirk_ = quirk(type);
  if (quirk_ && quirk_->kind == BootQuirk::Kind::status) {
    return answer(now_us, type, std::array{quirk_->value});
  }
  const auto row = std::find_if(std::begin(kBootCommands), std::end(kBootCommands),
                                [type](const Row& r) { return r.type == type; });
  if (row == std::end(kBootCommands)) return say_status(now_us, type, BootStatus::unknown);
  if (type == kWrite ? data.size() < row->data : data.size() != row->data) {
    return say_status(now_us, type, BootStatus::bad_length);
  }
  const auto status = row->handler(*this, data);
  if (!status) return;
  const int64_t time = *status == BootStatus::ok ? settings_.bootloader.*row->time : 0;
  say_status(now_us + time, type, *status);
}

void Bootloader::say_status(int64_t now_us, uint8_t type, BootStatus status) {
  answer(now_us, type, std::array{static_cast<uint8_t>(status)});
}

void Bootloader::answer(int64_t ready_us, uint8_t type, std::span<const uint8_t> data) {
  using Kind = BootQuirk::Kind;
  const auto is = [this](Kind kind) { return quirk_ && quirk_->kind == kind; };
  commands_.back().answer = data.empty() ? uint8_t{0} : data[0];
  if (is(Kind::silent)) return;
  std::vector<uint8_t> body(data.begin(), data.end());
  if (is(Kind::two_bytes)) body.push_back(0);
  const uint8_t said = is(Kind::wrong_type) ? quirk_->value : type;
  std::vector<uint8_t> frame = {kHead, said, static_cast<uint8_t>(body.size()),
                                static_cast<uint8_t>(body.size() >> 8)};
  frame.insert(frame.end(), body.begin(), body.end());
  frame.insert(frame.end(), {0, kEnd});
  frame[frame.size() - 2] = xor_of(frame);
  if (is(Kind::cut_short)) frame.resize(frame.size() - 2);
  if (is(Kind::garbage_first)) frame.insert(frame.begin(), {0x00, 0x55, 0x13});
  answers_.push_back({ready_us, std::move(frame)});
}

const BootQuirk* Bootloader::quirk(uint8_t type) {
  for (const BootQuirk& candidate : settings_.bootloader.quirks) {
    const bool now = candidate.nth == 0 || candidate.nth == seen_[type];
    if (candidate.command == type && now) return &candidate;
  }
  return nullptr;
}

InResult Bootloader::in(int64_t now_us, size_t max) {
  if (answers_.empty() || answers_.front().ready_us > now_us) return {InStatus::nak, {}};
  std::vector<uint8_t> bytes = std::move(answers_.front().bytes);
  answers_.pop_front();
  if (bytes.size() > max) return {InStatus::overflow, {}};
  return {InStatus::data, std::move(bytes)};
}

int64_t Bootloader::next_event_us(int64_t now_us) const {
  const bool waits = !answers_.empty() && answers_.front().ready_us > now_us;
  return waits ? answers_.front().ready_us : kNever;
}

}  // namespace wrx_module
