// SPDX-License-Identifier: LGPL-2.1-or-later
// A module that lies at any step of whole operations. The first bytes choose the operation, the
// kind of module and when the user stops; then come the faults of its transfers, what its
// bootloader does wrong, and what it says of its own accord between the driver's waits.
#include <libbiometric.h>

#include <functional>

#include "frame/driver.h"
#include "fuzz/scratch.h"
#include "module/usb/bus.h"
#include "records/driver_info.h"
#include "support/virtual_clock.h"

namespace {

using wrx_fuzz::Input;
using wrx_module::BootQuirk;
using wrx_module::FaultKind;

constexpr char kDatabase[] = "features.db";
constexpr int kUser = 1, kSlot = 20;
constexpr int kFaultKinds = static_cast<int>(FaultKind::death);  // but for the host's own death
constexpr int kPresses = 13;
constexpr uint8_t kBootCommands[] = {0xD3, 0xD7, 0xA6, 0xD9, 0xCC, 0xE3};

std::string good_database;

void make_database() {
  bio_host_set_db_path(kDatabase);
  bio_host_set_hook([](void*, bio_dev*, bio_event, int, const char*) {}, nullptr);
  feature_info* info = bio_sto_new_feature_info(kUser, 0, "wrx5300", 0, "finger");
  info->sample = bio_sto_new_feature_sample(-1, "");
  info->sample->no = kSlot;
  sqlite3* db = bio_sto_connect_db();
  bio_sto_set_feature_info(db, info);
  bio_sto_disconnect_db(db);
  bio_sto_free_feature_info_list(info);
  good_database = wrx_fuzz::read_file(kDatabase);
}

// An upgrade is due whenever the driver starts: the budget is spent once a process.
void carry_image() {
  wrx_fuzz::write_file("etc/wrx6600/extra/trv_fw.conf", "ACM32FP_V101\n");
  wrx_fuzz::write_file("etc/wrx6600/extra/ACM32FP_V101.bin", std::string(600, 'x'));
  wrx_fuzz::write_file("etc/biometric-auth/extra.conf.d/vestrel-m6600.conf",
                       "[BASIC_PARAM]\nUpgradeFlag=9\nUpgradeMode=FORCE_UPGRADE\n");
}

// What the module is and does, by bits.
wrx_module::Settings settings(uint8_t kind) {
  wrx_module::Settings settings;
  if ((kind & 1) == 0) settings.link.empty_read = wrx_module::EmptyRead::answers_empty;
  if ((kind & 2) != 0) settings.procedure.form = wrx_module::ResultForm::single;
  if ((kind & 4) != 0) settings.link.batch = wrx_module::Batch::all_ready;
  if ((kind & 8) != 0) {
    settings.power_up.outcome = wrx_module::PowerUpOutcome::match;
    settings.power_up.slots = {kSlot};
  }
  if ((kind & 0x10) != 0) settings.usb.packet_size = 512;
  return settings;
}

std::vector<BootQuirk> boot_quirks(Input& input, int count) {
  std::vector<BootQuirk> quirks;
  for (int i = 0; i < count; ++i) {
    const uint8_t command = kBootCommands[input.byte() % std::size(kBootCommands)];
    const uint8_t how = input.byte();
    quirks.push_back({command, how >> 4, static_cast<BootQuirk::Kind>(how % 7), input.byte()});
  }
  return quirks;
}

void add_faults(Input& input, int count) {
  for (int i = 0; i < count; ++i) {
    const int at = input.byte() + 1;
    const auto kind = static_cast<FaultKind>(input.byte() % kFaultKinds);
    const int64_t value = input.byte();
    wrx_module::bus().faults().add({at, kind, kind == FaultKind::delay ? value * 10'000 : value});
  }
}

// A lie: its length, with a top bit for a sound packet, its bytes, and how many of the driver's
// waits pass before the next one, which is returned.
int say_next(Input& input, wrx_module::Device& device) {
  const uint8_t length = input.byte();
  const std::string_view said = input.bytes(length & 0x7F);
  const std::vector<uint8_t> bytes(said.begin(), said.end());
  wrx_module::bus().locked(
      [&] { (length & 0x80) != 0 ? device.say(bytes) : device.say_raw(bytes); });
  return input.byte();
}

void start(bio_dev& dev) {
  dev.ops_close(&dev);  // a start opens the module by itself
  dev.ops_driver_init(&dev);
  dev.ops_open(&dev);
}

void operate(bio_dev& dev, uint8_t operation) {
  char name[] = "finger";
  const std::function<void()> operations[] = {
      [&] { dev.ops_enroll(&dev, ACTION_START, kUser, -1, name); },
      [&] { dev.ops_verify(&dev, ACTION_START, kUser, 0); },
      [&] { dev.ops_identify(&dev, ACTION_START, -1, 0, -1); },
      [&] { bio_sto_free_feature_info_list(dev.ops_search(&dev, ACTION_START, kUser, 0, -1)); },
      [&] { dev.ops_clean(&dev, ACTION_START, kUser, 0, -1); },
      [&] {
        wrx::info_of(&dev).config.upgrade_mode = DONT_UPGRADE;
        start(dev);
      },
      [&] { start(dev); },
  };
  operations[operation % std::size(operations)]();
}

// The driver is idle, and a module that is well again can be opened and talked to.
void expect_recovery(bio_dev& dev, wrx_module::Device& device) {
  if (bio_get_dev_status(&dev) != DEVS_COMM_IDLE) std::abort();
  dev.ops_close(&dev);
  wrx_module::bus().faults().clear();
  device.settings().bootloader.quirks.clear();
  device.plug();
  device.power_cycle();
  const auto presence = device.present();
  if (!presence || presence->mode != wrx_module::Mode::application) return;
  if (dev.ops_open(&dev) != 0) std::abort();
  dev.ops_clean(&dev, ACTION_START, kUser, 0, -1);
  if (bio_get_dev_status(&dev) != DEVS_COMM_IDLE) std::abort();
  dev.ops_close(&dev);
  const wrx_module::LiveCounts live = wrx_module::bus().live();
  if (live.handles != 0 || live.device_references != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (good_database.empty()) {
    make_database();
    carry_image();
  }
  Input input(data, size);
  const uint8_t operation = input.byte(), kind = input.byte(), stop = input.byte();
  const uint8_t counts = input.byte();
  wrx_fuzz::write_file(kDatabase, good_database);
  wrx_test::VirtualClock clock;
  wrx_module::Device device(clock, settings(kind));
  device.memory().templates[kSlot] = "thumb";
  wrx_module::bus().reset();
  wrx_module::bus().set_clock(clock);
  wrx_module::bus().attach(device);
  add_faults(input, counts % 4);
  device.settings().bootloader.quirks = boot_quirks(input, counts / 4 % 4);
  for (int i = 0; i < kPresses; ++i)
    device.queue_press({.finger = (counts & 0x80) != 0 ? "thumb" : "index"});

  bio_dev dev{};
  ops_configure(&dev, nullptr);
  dev.ops_open(&dev);
  // Behind the faults are the lies. What nothing else ends, the stop ends.
  const int64_t stop_us = clock.now_us() + (stop + 1) * int64_t{100'000};
  int waits = input.byte();
  bool stopped = false;
  clock.on_sleep = [&](int64_t) {
    if (waits-- <= 0 && !input.empty()) waits = say_next(input, device);
    // A thread that is not there yet costs the clock nothing.
    if (stopped || clock.now_us() < stop_us) return;
    stopped = true;
    clock.at(clock.now_us(), [&] { dev.ops_stop_by_user(&dev, 3000); });
  };
  operate(dev, operation);
  clock.join();
  clock.on_sleep = nullptr;
  expect_recovery(dev, device);
  g_free(dev.dev_priv);
  wrx_module::bus().reset();
  return 0;
}
