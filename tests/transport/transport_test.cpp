// SPDX-License-Identifier: LGPL-2.1-or-later
// The bulk channel's exchanges and failures, the module's place on the bus, and its power files.
#include <gtest/gtest.h>
#include <unistd.h>

#include "frame/driver.h"
#include "protocol/packet.h"
#include "support/lower_rooms.h"
#include "transport/usb_device.h"

namespace wrx_test {
namespace {

using wrx_module::bus;
using wrx_module::FaultKind;
using Call = std::function<int()>;

class Transport : public testing::Test {
 protected:
  Transport() {
    usb_dev_module_init();
    rig.dev.usb_info.id_table = wrx7700_id_table;
  }
  int open() { return usb_dev_open(&rig.dev); }
  /// The next transfers' faults: the first of them is number 1.
  void faults(const std::vector<wrx_module::Fault>& plan) {
    bus().faults().clear();
    for (const wrx_module::Fault& fault : plan)
      bus().faults().add(fault);
  }
  void expect_trace(const char* golden) {
    EXPECT_EQ(golden_difference(golden, rig.trace.lines()), "");
  }

  Rig rig;
  uint8_t buffer[256] = {};
  int32_t moved = -7;
  const Call send = [this] { return usb_send_data(buffer, 12, &moved); };
  const Call read = [this] { return usb_read_data(buffer, 64, &moved); };
};

TEST_F(Transport, ExchangesAndTheirFailuresAsATrace) {
  const Call test = [] { return usb_test(); };
  const struct {
    const char* what;
    Call call;
    std::vector<wrx_module::Fault> faults;
  } failures[] = {
      {"send: no block", send, {{1, FaultKind::timeout}}},
      {"send: no payload", send, {{2, FaultKind::stall}}},
      {"send: no acknowledgement", send, {{3, FaultKind::timeout}}},
      {"send: empty acknowledgement", send, {{3, FaultKind::empty_ack}}},
      {"send: wrong acknowledgement", send, {{3, FaultKind::wrong_ack}}},
      {"read: no block", read, {{1, FaultKind::no_device}}},
      {"read: no payload", read, {{2, FaultKind::timeout}}},
      {"read: too long a payload", read, {{2, FaultKind::overflow}}},
      {"read: no acknowledgement", read, {{3, FaultKind::stall}}},
      {"read: empty acknowledgement", read, {{3, FaultKind::empty_ack}}},
      {"read: wrong acknowledgement", read, {{3, FaultKind::wrong_ack}}},
      {"test", test, {}},
      {"test: fails once", test, {{2, FaultKind::stall}}},
      {"test: fails three times",
       test,
       {{3, FaultKind::empty_ack}, {6, FaultKind::empty_ack}, {9, FaultKind::empty_ack}}},
  };
  rig.trace.clear();
  rig.step("read: closed", read);
  rig.step("close: closed", usb_dev_close);
  open();
  for (const auto& row : failures) {
    faults(row.faults);
    rig.step(row.what, row.call);
    EXPECT_NE(usb_get_dev_handle(), nullptr);
  }
  EXPECT_EQ(moved, -7);
  const Bytes handshake = packet({53}, 1);
  std::copy(handshake.begin(), handshake.end(), buffer);
  EXPECT_EQ(rig.step("send", send), 0);
  EXPECT_EQ(moved, 12);
  EXPECT_EQ(rig.step("read", read), 0);
  EXPECT_EQ(moved, 12) << "of 64: a short read is no error";
  EXPECT_EQ(Bytes(buffer, buffer + 12), packet({0}));
  rig.step("close", usb_dev_close);
  EXPECT_EQ(bus().live().handles, 0);
  expect_trace("transport-exchanges");
}

TEST_F(Transport, BadArgumentsAreRefusedAndNothingIsSent) {
  open();
  bus().faults().clear();
  const Call calls[] = {[&] { return usb_send_data(nullptr, 5, &moved); },
                        [&] { return usb_send_data(buffer, 0, &moved); },
                        [&] { return usb_read_data(nullptr, 5, &moved); },
                        [&] { return usb_read_data(buffer, -1, &moved); },
                        [] { return usb_prepare_send(0); },
                        [] { return usb_prepare_read(-5); },
                        [] { return usb_dev_ioctl(nullptr); },
                        [&] { return usb_check_bulk_io_ack(buffer, 3); },
                        [&] { return usb_check_bulk_io_ack(buffer, 5); },
                        [] { return usb_check_bulk_io_ack(nullptr, 4); }};
  for (const Call& call : calls)
    EXPECT_EQ(call(), -1);
  EXPECT_EQ(rig.trace.count("error!!!\\r"), 10);
  EXPECT_EQ(bus().faults().count(), 0);
}

TEST_F(Transport, ABlockSignsDirectionAnd24BitsOfLength) {
  open();
  struct {
    int32_t (*announce)(int32_t);
    int32_t length;
    const char* block;
  } rows[] = {{usb_prepare_send, 1, "5553424300010000"},
              {usb_prepare_send, 12, "55534243000c0000"},
              {usb_prepare_send, 16777217, "5553424300010000"},
              {usb_prepare_read, 0x123456, "5553424380563412"}};
  for (const auto& row : rows) {
    rig.trace.clear();
    EXPECT_EQ(row.announce(row.length), 0);
    EXPECT_EQ(transfers(rig, "out"), std::vector<std::string>{row.block});
  }
}

TEST_F(Transport, OneByteInItsPlaceIsAnAcknowledgement) {
  for (unsigned match = 0; match < 16; ++match) {
    uint8_t ack[] = {'U', 'S', 'B', 'S'};
    for (unsigned i = 0; i < 4; ++i) {
      if ((match >> i & 1) == 0) ack[i] = static_cast<uint8_t>(ack[i] ^ 0x20);
    }
    EXPECT_EQ(usb_check_bulk_io_ack(ack, 4), match == 0 ? -1 : 0) << match;
  }
  const uint8_t displaced[] = {'S', 'U', 'S', 'B'};
  EXPECT_EQ(usb_check_bulk_io_ack(displaced, 4), -1);
}

TEST_F(Transport, AForgottenHandleIsNotClosedNorKeptByAnOpenThatFindsNothing) {
  for (const bool forgets : {true, false}) {
    open();
    libusb_device_handle* handle = usb_get_dev_handle();
    if (!forgets) rig.device.unplug();
    EXPECT_EQ(forgets ? usb_dev_set_null() : open(), forgets ? 0 : -1);
    EXPECT_EQ(usb_get_dev_handle(), nullptr);
    EXPECT_EQ(bus().live().handles, 1);
    libusb_close(handle);
  }
}

TEST(TransportStart, AContextThatFailedIsTriedAgainAtTheOpen) {
  Rig rig;
  bus().refuse(wrx_module::Call::init, LIBUSB_ERROR_OTHER, 2);
  rig.dev.usb_info.id_table = wrx7700_id_table;
  EXPECT_EQ(usb_dev_module_init(), -1);
  EXPECT_EQ(usb_dev_open(&rig.dev), -1);
  EXPECT_EQ(usb_dev_open(&rig.dev), 0);
  EXPECT_EQ(bus().live().contexts, 1);
}

// ---- place on the bus

TEST_F(Transport, PlacesOnTheBusAndPowerFilesAsATrace) {
  const std::string power = "sys/bus/usb/devices/3-2/power/";
  const char* const files[] = {"control", "autosuspend", "autosuspend_delay_ms"};
  rig.device.settings().usb.bus_number = 3;
  rig.trace.clear();
  constexpr usb_id kEmpty[] = {{0, 0, nullptr}, {0x4d2e, 0x5300, "behind the end"}};
  rig.dev.usb_info.id_table = kEmpty;
  rig.step("open: an empty table", [&] { return open(); });
  rig.dev.usb_info.id_table = wrx7700_id_table;
  for (const auto& [vendor, product] :
       {std::pair{0x1234, 0xabcd}, {0x4d2e, 0x5301}, {0x4d2e, 0x5300}}) {
    rig.device.settings().usb.vendor = static_cast<uint16_t>(vendor);
    rig.device.settings().usb.product = static_cast<uint16_t>(product);
    const bool opened = rig.step("open", [&] { return open(); }) == 0;
    EXPECT_EQ(usb_get_dev_handle() != nullptr, opened);
    rig.step("close", usb_dev_close);
  }
  const std::vector<uint8_t> places[] = {
      {}, {1, 2}, {1, 255, 254, 253, 252, 251, 9}, {255, 254, 253, 252, 251, 250, 9}, {2}};
  for (const auto& ports : places) {
    rig.device.settings().usb.ports = ports;
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
  for (const uint8_t flag : Bytes{0, 2, 1}) {
    usb_set_autosuspend_flag(flag);
    rig.step("enable: switched " + std::to_string(flag), usb_dev_enable_autosuspend);
    for (const char* name : files)
      rig.show_file(power + name);
  }
  usb_set_autosuspend_flag(0);
  rig.step("disable: whatever the switch", usb_dev_disable_autosuspend);
  EXPECT_EQ(free_descriptor(), free_before);
  rig.show_file(power + "control");
  rig.device.settings().usb.product = 0x5100;
  rig.step("path: another model", usb_dev_get_port_path);
  EXPECT_EQ(usb_dev_param.dev_port_path[0], '\0');
  rig.step("enable: no path", usb_dev_enable_autosuspend);
  rig.step("disable: no path", usb_dev_disable_autosuspend);
  bus().refuse(wrx_module::Call::device_list, LIBUSB_ERROR_NO_MEM);
  rig.step("path: no list", usb_dev_get_port_path);
  expect_trace("transport-places");
}

TEST_F(Transport, OfSeveralModulesTheLastInTheListIsTaken) {
  std::vector<std::unique_ptr<wrx_module::Device>> more;
  for (const auto& [product, port] : {std::pair<uint16_t, uint8_t>{0x5300, 7}, {0x5100, 8}}) {
    wrx_module::Settings settings = Rig::instant();
    settings.usb.product = product;
    settings.usb.ports = {port};
    more.push_back(std::make_unique<wrx_module::Device>(rig.clock, settings));
    bus().attach(*more.back());
  }
  EXPECT_EQ(usb_dev_get_port_path(), 0);
  EXPECT_EQ(std::string(usb_dev_param.dev_port_path).substr(1), "/sys/bus/usb/devices/1-7");
  EXPECT_EQ(bus().live().lists + bus().live().device_references, 0);
  // A descriptor that cannot be read ends the walk.
  bus().refuse(wrx_module::Call::device_descriptor, LIBUSB_ERROR_IO);
  testing::internal::CaptureStderr();
  EXPECT_EQ(usb_dev_get_port_path(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "failed to get device descriptor");
  EXPECT_EQ(bus().live().lists, 0);
  bus().reset();
}

}  // namespace
}  // namespace wrx_test
