// SPDX-License-Identifier: LGPL-2.1-or-later
// The bulk channel's exchanges and failures, the module's place on the bus, and its power files.
#include <gtest/gtest.h>
#include <unistd.h>

#include "frame/driver.h"
#include "support/lower_rooms.h"
#include "transport/usb_device.h"

namespace wrx_test {
namespace {

using wrx_module::bus;
using wrx_module::FaultKind;
using Call = std::function<int()>;

class Transport : public testing::Test {
 protected:
  Transport() { rig.dev.usb_info.id_table = wrx7700_id_table; }
  int open() { return usb_dev_open(&rig.dev); }
  Rig rig;
};

TEST_F(Transport, ExchangesAndTheirFailuresAsATrace) {
  Bytes buffer(64);
  int32_t moved = -7;
  const Call send = [&] { return usb_send_data(buffer.data(), 12, &moved); };
  const Call read = [&] { return usb_read_data(buffer.data(), 64, &moved); };
  const struct {
    const char* what;
    Call call;
    std::vector<wrx_module::Fault> faults = {};  // the first transfer's number is 1
  } failures[] = {
      {"send: no block", send, {{1, FaultKind::timeout}}},
      {"send: no payload", send, {{2, FaultKind::stall}}},
      {"send: no acknowledgement", send, {{3, FaultKind::timeout}}},
      {"send: empty acknowledgement", send, {{3, FaultKind::empty_ack}}},
      {"read: no block", read, {{1, FaultKind::no_device}}},
      {"read: no payload", read, {{2, FaultKind::timeout}}},
      {"read: too long a payload", read, {{2, FaultKind::overflow}}},
      {"read: no acknowledgement", read, {{3, FaultKind::stall}}},
      {"read: wrong acknowledgement", read, {{3, FaultKind::wrong_ack}}},
      {"test", usb_test},
      {"test: fails once", usb_test, {{2, FaultKind::stall}}},
      {"test: fails three times",
       usb_test,
       {{3, FaultKind::empty_ack}, {6, FaultKind::empty_ack}, {9, FaultKind::empty_ack}}},
      {"announced: one byte", [] { return usb_prepare_send(1); }},
      {"announced: more than 24 bits", [] { return usb_prepare_send(16777217); }},
      {"announced: each byte", [] { return usb_prepare_read(0x123456); }},
  };
  // A context that cannot be had is asked for again at the next open.
  bus().refuse(wrx_module::Call::init, LIBUSB_ERROR_OTHER, 3);
  rig.step("bench: no context", [] { return main_test(0, nullptr); });
  rig.step("init: no context", usb_dev_module_init);
  rig.step("open: no context", [&] { return open(); });
  rig.step("read: closed", read);
  rig.step("close: closed", usb_dev_close);
  rig.step("open", [&] { return open(); });
  for (const auto& row : failures) {
    bus().faults().clear();
    for (const wrx_module::Fault& fault : row.faults)
      bus().faults().add(fault);
    rig.step(row.what, row.call);
    EXPECT_NE(usb_get_dev_handle(), nullptr);
  }
  EXPECT_EQ(moved, -7);
  bus().faults().clear();
  const Bytes handshake = packet({53}, 1);
  std::copy(handshake.begin(), handshake.end(), buffer.begin());
  EXPECT_EQ(rig.step("send", send), 0);
  EXPECT_EQ(moved, 12);
  EXPECT_EQ(rig.step("read", read), 0);
  EXPECT_EQ(moved, 12) << "of 64: a short read is no error";
  rig.step("close", usb_dev_close);
  EXPECT_EQ(bus().live().handles, 0);
  EXPECT_EQ(golden_difference("transport-exchanges", rig.trace.lines()), "");
}

TEST_F(Transport, PlacesOnTheBusAndPowerFilesAsATrace) {
  const std::string power = "sys/bus/usb/devices/3-2/power/";
  const char* const files[] = {"control", "autosuspend", "autosuspend_delay_ms"};
  auto& usb = rig.device.settings().usb;
  usb.bus_number = 3;
  constexpr usb_id kEmpty[] = {{0, 0, nullptr}, {0x4d2e, 0x5300, "behind the end"}};
  rig.dev.usb_info.id_table = kEmpty;
  rig.step("open: an empty table", [&] { return open(); });
  rig.dev.usb_info.id_table = wrx7700_id_table;
  for (const auto& [vendor, product] :
       {std::pair{0x1234, 0xabcd}, {0x4d2e, 0x5301}, {0x4d2e, 0x5300}}) {
    usb.vendor = static_cast<uint16_t>(vendor);
    usb.product = static_cast<uint16_t>(product);
    const bool opened = rig.step("open", [&] { return open(); }) == 0;
    EXPECT_EQ(usb_get_dev_handle() != nullptr, opened);
    rig.step("close", usb_dev_close);
  }
  const std::vector<uint8_t> places[] = {
      {}, {1, 2}, {1, 255, 254, 253, 252, 251, 9}, {255, 254, 253, 252, 251, 250, 9}, {2}};
  for (const auto& ports : places) {
    usb.ports = ports;
    rig.step("path", usb_dev_get_port_path);
    EXPECT_EQ(usb_dev_get_port_path_valid_flag(), 1);
  }
  const auto free_descriptor = [] {
    const int fd = dup(0);
    close(fd);
    return fd;
  };
  const int free_before = free_descriptor();
  usb_set_autosuspend_flag(1);
  rig.step("enable: no such files", usb_dev_enable_autosuspend);
  for (const char* name : files)
    rig.write_file(power + name, "before\n");
  for (const uint8_t flag : Bytes{2, 1}) {
    usb_set_autosuspend_flag(flag);
    rig.step("enable: switched " + std::to_string(flag), usb_dev_enable_autosuspend);
    for (const char* name : files)
      rig.show_file(power + name);
  }
  usb_set_autosuspend_flag(0);
  rig.step("disable: whatever the switch", usb_dev_disable_autosuspend);
  EXPECT_EQ(free_descriptor(), free_before);
  rig.show_file(power + "control");
  // Of several modules the last in the list is taken; a descriptor that cannot be read ends the
  // walk, and so does a list that is none.
  std::vector<std::unique_ptr<wrx_module::Device>> more;
  for (const uint16_t product : {uint16_t{0x5300}, uint16_t{0x5100}}) {
    wrx_module::Settings settings = Rig::instant();
    settings.usb.product = product;
    settings.usb.ports = {7};
    more.push_back(std::make_unique<wrx_module::Device>(rig.clock, settings));
    bus().attach(*more.back());
  }
  rig.step("path: of several", usb_dev_get_port_path);
  bus().refuse(wrx_module::Call::device_descriptor, LIBUSB_ERROR_IO);
  rig.step("path: no descriptor", usb_dev_get_port_path);
  EXPECT_EQ(usb_dev_param.dev_port_path[0], '\0');
  bus().refuse(wrx_module::Call::device_list, LIBUSB_ERROR_NO_MEM);
  rig.step("path: no list", usb_dev_get_port_path);
  rig.step("enable: no path", usb_dev_enable_autosuspend);
  rig.step("disable: no path", usb_dev_disable_autosuspend);
  EXPECT_EQ(bus().live().lists + bus().live().device_references, 0);
  EXPECT_EQ(golden_difference("transport-places", rig.trace.lines()), "");
  bus().reset();
}

}  // namespace
}  // namespace wrx_test
