// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The simulated module as a USB device. It outlives connections and power: what it remembers is
// in its memory, what it is doing is lost with the power. It never blocks and knows nothing of who
// serves it, so the same device stands behind an in-process front end or one on a real bus.
//
//      front end (libusb's names, or a bus) → BulkTransfer + faults → Device
//                                                                     ├─ Application (0x01, 0x81)
//                                                                     └─ Bootloader  (0x04, 0x84)
//
// Not thread-safe: whoever serves it calls it under one lock (Bus::locked).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "module/device/application.h"
#include "module/device/bootloader.h"
#include "module/device/clock.h"
#include "module/device/memory.h"
#include "module/device/sensor.h"
#include "module/device/settings.h"
#include "module/device/wire.h"

namespace wrx_module {

enum class Mode { application, bootloader };

/// The device as the bus sees it now.
struct Presence {
  uint16_t vendor = 0;
  uint16_t product = 0;
  Mode mode = Mode::application;
  uint8_t bus_number = 0;
  uint8_t address = 0;
  /// Counts enumerations: a handle opened under another number is dead.
  uint32_t enumeration = 0;
};

/// Coming to or leaving the bus, reported with the moment it happened.
struct BusEvent {
  int64_t at_us = 0;
  Mode mode = Mode::application;
  bool appears = false;
};

class Device {
 public:
  /// A powered module on the bus from now on, with factory memory unless `memory` is given.
  Device(Clock& clock, const Settings& settings);
  Device(Clock& clock, Settings settings, Memory memory);
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // The bus.

  /// Where the device is on the bus; none while it is away.
  std::optional<Presence> present();
  /// One whole bulk OUT transfer.
  OutResult out(uint8_t endpoint, std::span<const uint8_t> data);
  /// One bulk IN transfer of at most `max` bytes, if there is something to say yet.
  InResult in(uint8_t endpoint, size_t max);
  /// The next moment after now at which the device changes without being spoken to; kNever if
  /// it will not.
  int64_t next_event_us();
  /// Catches up with the clock; every other member does so by itself.
  void advance();
  /// The descriptors of the present identity as the bus carries them: 18 bytes, and the
  /// configuration with its interface and endpoints. Empty while away.
  std::vector<uint8_t> device_descriptor();
  std::vector<uint8_t> configuration_descriptor();

  // The world. `at_us` lets a script act at its own moment; by default it is now.

  /// Gives it power; it appears after its power-up time, as what its flash allows.
  void plug(std::optional<int64_t> at_us = {});
  /// Off the bus and without power, at once.
  void unplug(std::optional<int64_t> at_us = {});
  /// The module loses its power; plug() gives it back.
  void cut_power(std::optional<int64_t> at_us = {});
  /// cut_power() and plug() at the same moment.
  void power_cycle(std::optional<int64_t> at_us = {});
  /// The bus enumerates the device anew: handles die, the module notices nothing.
  void bus_reset();
  /// Puts a finger down, to stay until lift().
  void press(Press press, std::optional<int64_t> at_us = {});
  void lift(std::optional<int64_t> at_us = {});
  /// A press that is made and lifted when the module next waits for a finger.
  void queue_press(Press press);

  // For tests and people.

  Settings& settings() { return settings_; }
  Memory& memory() { return memory_; }
  Sensor& sensor() { return sensor_; }
  /// Every command taken, oldest first; kept over power cuts.
  std::vector<CommandRecord>& commands() { return commands_; }
  /// Every bootloader frame taken, likewise.
  std::vector<CommandRecord>& boot_commands() { return boot_commands_; }
  /// Says `payload` in a packet of `type` (7 = response, 8 = end) of its own accord.
  void say(std::span<const uint8_t> payload, uint8_t type = 7);
  /// Puts raw bytes into the module's answers, well-formed or not.
  void say_raw(std::vector<uint8_t> bytes);
  bool enrolling();
  bool identifying();
  /// Told of every appearance and departure.
  void on_bus_event(std::function<void(const BusEvent&)> told);

 private:
  enum class Move { none, leave, appear };

  int64_t moment(std::optional<int64_t> at_us);
  void advance_to(int64_t now_us);
  void take_requests();
  void schedule(Move move, int64_t at_us, Mode mode);
  void leave(int64_t at_us);
  void appear(int64_t at_us);
  void lose_power(int64_t at_us);
  void start_application();

  Clock& clock_;
  Settings settings_;
  Memory memory_;
  Sensor sensor_;
  std::vector<CommandRecord> commands_;
  std::vector<CommandRecord> boot_commands_;
  std::function<void(const BusEvent&)> told_;

  bool powered_ = false;
  bool on_bus_ = false;
  Mode mode_ = Mode::application;
  uint32_t enumeration_ = 0;
  int64_t last_us_ = 0;  // the device never lives backwards
  // The next coming or going, and as what the device comes back after a leave.
  Move move_ = Move::none;
  int64_t move_at_us_ = kNever;
  Mode next_mode_ = Mode::application;

  std::unique_ptr<Application> application_;
  std::unique_ptr<Bootloader> bootloader_;
};

}  // namespace wrx_module
