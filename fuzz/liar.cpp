// SPDX-License-Identifier: LGPL-2.1-or-later
// A module that lies at any step of whole operations. The first bytes choose the operation, the
// faults and when the user stops; the rest is what the module says of its own accord.
#include <libbiometric.h>

#include "frame/driver.h"
#include "fuzz/scratch.h"
#include "module/bus.h"
#include "protocol/packet.h"
#include "support/virtual_clock.h"
#include "transport/usb_device.h"

namespace {

constexpr int64_t kStopAfterUs = 40'000'000;  // a stop ends what nothing else ends

wrx_module::Settings settings() {
  wrx_module::Settings settings;
  settings.link.empty_read = wrx_module::EmptyRead::answers_empty;
  return settings;
}

void operate(bio_dev& dev, uint8_t operation) {
  char name[] = "finger";
  switch (operation % 6) {
    case 0:
      dev.ops_enroll(&dev, ACTION_START, 1, -1, name);
      break;
    case 1:
      dev.ops_verify(&dev, ACTION_START, 1, 0);
      break;
    case 2:
      dev.ops_identify(&dev, ACTION_START, -1, 0, -1);
      break;
    case 3:
      bio_sto_free_feature_info_list(dev.ops_search(&dev, ACTION_START, 1, 0, -1));
      break;
    case 4:
      dev.ops_clean(&dev, ACTION_START, 1, 0, -1);
      break;
    default:
      dev.ops_close(&dev);  // a start opens the module by itself
      dev.ops_driver_init(&dev);
      dev.ops_open(&dev);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  wrx_fuzz::enter_scratch_folder();
  bio_host_set_db_path("features.db");
  bio_host_set_hook([](void*, bio_dev*, bio_event, int, const char*) {}, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  wrx_fuzz::Input input(data, size);
  const uint8_t operation = input.byte(), faults = input.byte(), stop = input.byte();
  wrx_test::VirtualClock clock;
  wrx_module::Device device(clock, settings());
  wrx_module::bus().reset();
  wrx_module::bus().set_clock(clock);
  wrx_module::bus().attach(device);
  for (int i = 0; i < faults % 4; ++i) {
    wrx_module::bus().faults().add(
        {input.byte() + 1, static_cast<wrx_module::FaultKind>(input.byte() % 12), input.byte()});
  }
  for (int i = 0; i < 13; ++i)
    device.queue_press({});
  bio_dev dev{};
  ops_configure(&dev, nullptr);
  dev.ops_open(&dev);
  const int64_t stop_us = stop == 0 ? kStopAfterUs : stop * int64_t{50'000};
  clock.at(clock.now_us() + stop_us, [&dev] { dev.ops_stop_by_user(&dev, 3000); });
  while (!input.empty()) {
    const std::string_view said = input.bytes(input.byte());
    device.say_raw({said.begin(), said.end()});
  }
  operate(dev, operation);
  if (bio_get_dev_status(&dev) != DEVS_COMM_IDLE) std::abort();
  dev.ops_close(&dev);
  clock.join();
  g_free(dev.dev_priv);
  wrx_module::bus().reset();
  return 0;
}
