// SPDX-License-Identifier: LGPL-2.1-or-later
// The bulk channel's exchanges and failures, the module's place on the bus, and its power files.
#include <gtest/gtest.h>

#include <cstring>

#include "frame/driver.h"
#include "lower_rooms.h"
#include "protocol/packet.h"
#include "transport/usb_device.h"

namespace wrx_test {
namespace {

using wrx_module::bus;
using wrx_module::FaultKind;

class Transport : public testing::Test {
 protected:
  explicit Transport(const wrx_module::Settings& settings = Rig::instant()) : rig(settings) {
    usb_dev_module_init();
    rig.dev.usb_info.id_table = wrx7700_id_table;
  }
  void open() {
    EXPECT_EQ(usb_dev_open(&rig.dev), 0);
    rig.trace.clear();
  }
  /// The next transfers' faults: the first of them is number 1.
  void faults(std::vector<wrx_module::Fault> plan) {
    bus().faults().clear();
    for (const wrx_module::Fault& fault : plan)
      bus().faults().add(fault);
    rig.trace.clear();
  }
  int32_t send() { return usb_send_data(buffer, 12, &moved); }
  int32_t read() { return usb_read_data(buffer, 64, &moved); }

  Rig rig;
  uint8_t buffer[256] = {};
  int32_t moved = -7;
};

TEST_F(Transport, ABlockSignsDirectionAnd24BitsOfLength) {
  open();
  struct {
    int32_t (*announce)(int32_t);
    int32_t length;
    const char* block;
  } rows[] = {{usb_prepare_send, 12, "55534243000c0000"},
              {usb_prepare_send, 16777217, "5553424300010000"},
              {usb_prepare_read, 0x123456, "5553424380563412"},
              {usb_prepare_read, 1, "5553424380010000"}};
  for (const auto& row : rows) {
    rig.trace.clear();
    EXPECT_EQ(row.announce(row.length), 0);
    EXPECT_EQ(transfers(rig, "out"), std::vector<std::string>{row.block});
    EXPECT_EQ(said(rig),
              row.announce == usb_prepare_read
                  ? ""
                  : "usb_prepare_send: msg_len = " + std::to_string(row.length) + "\\r\n");
  }
}

TEST_F(Transport, AnExchangeIsBlockPayloadAcknowledgement) {
  open();
  const Bytes handshake = packet({53}, 1);
  std::copy(handshake.begin(), handshake.end(), buffer);
  EXPECT_EQ(send(), 0);
  EXPECT_EQ(moved, 12);
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(moved, 12);  // of 64: a short read is no error
  EXPECT_EQ(Bytes(buffer, buffer + 12), packet({0}));
  EXPECT_EQ(usb_dev_param.bulk_io_ack_state, 1);
  std::vector<std::string> wire = rig.trace.lines();
  std::erase_if(wire, [](const std::string& line) { return line[0] != '@'; });
  const std::vector<std::string> expected = {
      "@ t=0 usb-out ep=0x01 len=8 timeout=1000 moved=8 rc=0 55534243000c0000",
      "@ t=0 usb-out ep=0x01 len=12 timeout=0 moved=12 rc=0 ef01ffffffff010003350039",
      "@ t=0 usb-in ep=0x81 want=4 timeout=1000 got=4 rc=0 55534253",
      "@ t=0 usb-out ep=0x01 len=8 timeout=1000 moved=8 rc=0 5553424380400000",
      "@ t=0 usb-in ep=0x81 want=64 timeout=1000 got=12 rc=0 ef01ffffffff07000300000a",
      "@ t=0 usb-in ep=0x81 want=4 timeout=1000 got=4 rc=0 55534253"};
  EXPECT_EQ(wire, expected);
}

TEST_F(Transport, OneByteInItsPlaceIsAnAcknowledgement) {
  for (unsigned match = 0; match < 16; ++match) {
    uint8_t ack[] = {'U', 'S', 'B', 'S'};
    for (unsigned i = 0; i < 4; ++i) {
      if ((match >> i & 1) == 0) ack[i] = static_cast<uint8_t>(ack[i] ^ 0x20);
    }
    EXPECT_EQ(usb_check_bulk_io_ack(ack, 4), match == 0 ? -1 : 0) << match;
  }
  const uint8_t displaced[] = {'S', 'U', 'S', 'B', 'S'};
  EXPECT_EQ(usb_check_bulk_io_ack(displaced, 4), -1);
  EXPECT_EQ(rig.trace.driver_lines().size(), 0U);
  for (const auto& [ack, length] : {std::pair{displaced, 3}, {displaced, 5}, {nullptr, 4}})
    EXPECT_EQ(usb_check_bulk_io_ack(ack, length), -1);
  EXPECT_EQ(rig.trace.count("usb_device:#:usb_check_bulk_io_ack: the param is error!!!\\r"), 3);
}

TEST_F(Transport, EachFailureSaysWhereItHappened) {
  using std::string;
  const string announced = "usb_prepare_send: msg_len = 12\\r\n";
  const string waits = ":usb_send_data: usb_read_bulk_io_ack.\\r\n";
  const string write_failed = ":usb_dev_ioctl: libusb_bulk_transfer write failed!!!\\r\n";
  const string read_failed = ":usb_dev_ioctl: libusb_bulk_transfer read failed!!!\\r\n";
  const string no_payload = read_failed + ":usb_read_data: usb_dev_ioctl return error!!!\\r\n";
  const string ack_unread =
      read_failed + ":usb_read_bulk_io_ack: usb_dev_ioctl return error!!!\\r\n";
  const string ack_empty = ":usb_read_bulk_io_ack: not received data!!!\\r\n";
  const string ack_wrong = ":usb_read_bulk_io_ack: not received BULK_IO_ACK!!!\\r\n";
  const string unsent = ":usb_send_data: not received BULK_IO_ACK!!!\\r\n";
  const string unread = ":usb_read_data: not received BULK_IO_ACK!!!\\r\n";
  open();
  struct Row {
    bool sends;
    wrx_module::Fault fault;
    string lines;
  };
  // clang-format off
  const Row rows[] = {
      {true, {1, FaultKind::timeout},
       announced + write_failed + "usb_prepare_send: send failed!!!\\r\n"
       ":usb_send_data: usb_prepare_send return error!!!\\r\n"},
      {true, {2, FaultKind::stall},
       announced + write_failed + ":usb_send_data: usb_dev_ioctl return error!!!\\r\n"},
      {true, {3, FaultKind::timeout}, announced + waits + ack_unread + unsent},
      {true, {3, FaultKind::empty_ack}, announced + waits + ack_empty + unsent},
      {true, {3, FaultKind::wrong_ack}, announced + waits + ack_wrong + unsent},
      {false, {1, FaultKind::no_device}, write_failed + "usb_prepare_read: send failed!!!\\r\n"
       ":usb_read_data: usb_prepare_read return error!!!\\r\n"},
      {false, {2, FaultKind::timeout}, no_payload},
      {false, {2, FaultKind::overflow}, no_payload},
      {false, {3, FaultKind::stall}, ack_unread + unread},
      {false, {3, FaultKind::empty_ack}, ack_empty + unread},
      {false, {3, FaultKind::wrong_ack}, ack_wrong + unread},
  };
  // clang-format on
  for (const auto& row : rows) {
    faults({row.fault});
    moved = -7;
    const int64_t ms = rig.time_of([&] { EXPECT_EQ(row.sends ? send() : read(), -1); });
    EXPECT_EQ(said(rig), row.lines);
    EXPECT_EQ(ms, row.fault.kind == FaultKind::timeout ? 1000 : 0);
    EXPECT_EQ(moved, -7);
  }
}

TEST_F(Transport, AfterAnyFailureTheHandleStaysAndTheNextExchangeWorks) {
  open();
  for (const auto kind :
       {FaultKind::timeout, FaultKind::stall, FaultKind::io_error, FaultKind::no_device}) {
    for (int at = 1; at <= 6; ++at) {
      faults({{at, kind}});
      EXPECT_NE(send() + read(), 0) << at;
      EXPECT_EQ(bus().faults().struck().size(), 1U);
      EXPECT_NE(usb_get_dev_handle(), nullptr);
      read();  // an answer or acknowledgement left behind
      EXPECT_EQ(send() + read(), 0) << at;
    }
  }
  rig.device.unplug();
  EXPECT_EQ(send() + read(), -2);
  EXPECT_NE(usb_get_dev_handle(), nullptr);
}

TEST_F(Transport, AnAcknowledgementDamagedInPartIsTaken) {
  open();
  for (int byte = 0; byte < 4; ++byte) {
    faults({{3, FaultKind::corrupt, byte}});
    EXPECT_EQ(send(), 0);
  }
  faults({{3, FaultKind::short_read, 1}});
  EXPECT_EQ(read(), 0);
}

TEST_F(Transport, BadArgumentsAreRefusedAndNothingIsSent) {
  open();
  EXPECT_EQ(usb_send_data(nullptr, 5, &moved), -1);
  EXPECT_EQ(usb_send_data(buffer, 0, &moved), -1);
  EXPECT_EQ(usb_read_data(nullptr, 5, &moved), -1);
  EXPECT_EQ(usb_read_data(buffer, -1, &moved), -1);
  EXPECT_EQ(usb_prepare_send(0), -1);
  EXPECT_EQ(usb_prepare_read(-5), -1);
  EXPECT_EQ(usb_dev_ioctl(nullptr), -1);
  EXPECT_EQ(said(rig),
            ":usb_send_data: the param is error!!!\\r\n:usb_send_data: the param is error!!!\\r\n"
            ":usb_read_data: the param is error!!!\\r\n:usb_read_data: the param is error!!!\\r\n"
            "usb_prepare_send: input param msg_len = 0, error!!!\\r\n"
            "usb_prepare_read: input param msg_len = -5, error!!!\\r\n"
            "usb_dev_ioctl: the point dev_cmd is null, error!!!\\r\n");
  EXPECT_EQ(bus().faults().count(), 0);
}

TEST_F(Transport, ClosedItSaysSoByTheChannelsName) {
  EXPECT_EQ(read(), -1);
  EXPECT_EQ(said(rig),
            "usb_dev_ioctl: /dev/fp256_360_usb_drv not open, error!!!\\r\n"
            "usb_prepare_read: send failed!!!\\r\n"
            ":usb_read_data: usb_prepare_read return error!!!\\r\n");
  open();
  EXPECT_EQ(usb_dev_close(), 0);
  EXPECT_EQ(usb_get_dev_handle(), nullptr);
  EXPECT_EQ(bus().live().handles, 0);
  rig.trace.clear();
  EXPECT_EQ(usb_dev_close(), -1);
  EXPECT_EQ(said(rig), "usb_dev_close: /dev/fp256_360_usb_drv not open!!!\\r\n");
}

TEST_F(Transport, OpeningWalksTheTableToItsFirstDevice) {
  constexpr usb_id kEmpty[] = {{0, 0, nullptr}, {0x4d2e, 0x5300, "behind the end"}};
  struct {
    uint16_t vendor, product;
    const usb_id* table;
    std::vector<std::string> opens;
  } rows[] = {
      {0x1234, 0xabcd, wrx7700_id_table, {"1234:abcd #"}},
      {0x4d2e, 0x5100, wrx7700_id_table, {"1234:abcd none", "4d2e:5100 #"}},
      {0x4d2e, 0x5300, wrx7700_id_table, {"1234:abcd none", "4d2e:5100 none", "4d2e:5300 #"}},
      {0x4d2e, 0x5301, wrx7700_id_table, {"1234:abcd none", "4d2e:5100 none", "4d2e:5300 none"}},
      {0x4d2e, 0x5300, kEmpty, {}}};
  for (const auto& row : rows) {
    rig.device.settings().usb.vendor = row.vendor;
    rig.device.settings().usb.product = row.product;
    rig.dev.usb_info.id_table = row.table;
    rig.trace.clear();
    const bool found = !row.opens.empty() && row.opens.back().back() == '#';
    EXPECT_EQ(usb_dev_open(&rig.dev), found ? 0 : -1);
    EXPECT_EQ(usb_get_dev_handle() != nullptr, found);
    const std::vector<std::string> lines = rig.trace.lines();
    ASSERT_EQ(lines.size(), row.opens.size() + (found ? 0 : 1));
    for (size_t i = 0; i < row.opens.size(); ++i)
      EXPECT_NE(lines[i].find("usb-open " + row.opens[i]), std::string::npos) << lines[i];
    if (!found) {
      EXPECT_EQ(said(rig), "[usb_dev_open] device open failed!!!\\r\n");
    }
    if (found) usb_dev_close();
  }
}

TEST_F(Transport, AForgottenHandleIsNotClosedNorKeptByAnOpenThatFindsNothing) {
  for (const bool forgets : {true, false}) {
    open();
    libusb_device_handle* handle = usb_get_dev_handle();
    if (!forgets) rig.device.unplug();
    EXPECT_EQ(forgets ? usb_dev_set_null() : usb_dev_open(&rig.dev), forgets ? 0 : -1);
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

TEST_F(Transport, TheDiagnosticTriesThreeTimes) {
  open();
  struct {
    std::vector<wrx_module::Fault> plan;
    int64_t ms;
    std::string lines;
  } rows[] = {{{}, 0, ":usb_test: usb_test_handle successfully.\\r\n"},
              {{{2, FaultKind::stall}},
               50,
               ":usb_dev_ioctl: libusb_bulk_transfer read failed!!!\\r\n"
               ":usb_test_handle: usb_dev_ioctl return error!!!\\r\n"
               ":usb_test: usb_test_handle successfully.\\r\n"},
              {{{3, FaultKind::empty_ack}, {6, FaultKind::empty_ack}, {9, FaultKind::empty_ack}},
               150,
               ":usb_read_bulk_io_ack: not received data!!!\\r\n"
               ":usb_test_handle: not received BULK_IO_ACK!!!\\r\n"
               ":usb_read_bulk_io_ack: not received data!!!\\r\n"
               ":usb_test_handle: not received BULK_IO_ACK!!!\\r\n"
               ":usb_read_bulk_io_ack: not received data!!!\\r\n"
               ":usb_test_handle: not received BULK_IO_ACK!!!\\r\n"}};
  for (const auto& row : rows) {
    faults(row.plan);
    EXPECT_EQ(rig.time_of([] { EXPECT_EQ(usb_test(), 0); }), row.ms);
    EXPECT_EQ(said(rig), row.lines);
    EXPECT_EQ(transfers(rig, "out")[0], "5553424380800000");
  }
}

// ---- place on the bus

TEST_F(Transport, ThePathIsBusAndPortChain) {
  struct {
    std::vector<uint8_t> ports;
    std::string printed, path;
  } rows[] = {{{2}, " path: 2", "2"},
              {{1, 2}, " path: 1.2", "1.2"},
              {{}, "", ""},
              {{255, 254, 253, 252, 251, 250, 9},
               " path: 255.254.253.252.251.250.9",
               "255.254.253.252.251"}};
  rig.device.settings().usb.bus_number = 3;
  for (const auto& row : rows) {
    rig.device.settings().usb.ports = row.ports;
    rig.trace.clear();
    EXPECT_EQ(usb_dev_get_port_path(), 0);
    EXPECT_EQ(said(rig), "[usb_dev_get_port_path] 4d2e:5300 (bus 3, device 5)" + row.printed +
                             "\n[usb_dev_get_port_path] usb dev port path: "
                             "/sys/bus/usb/devices/3-" +
                             row.path + "\n");
    EXPECT_EQ(usb_dev_get_port_path_valid_flag(), 1);
  }
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
  EXPECT_EQ(bus().live().lists, 0);
  EXPECT_EQ(bus().live().device_references, 0);
  // A descriptor that cannot be read ends the walk.
  bus().refuse(wrx_module::Call::device_descriptor, LIBUSB_ERROR_IO);
  testing::internal::CaptureStderr();
  EXPECT_EQ(usb_dev_get_port_path(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "failed to get device descriptor");
  EXPECT_EQ(bus().live().lists, 0);
  bus().reset();
}

TEST_F(Transport, WithoutTheOneModelThereIsNoPathAndNoAutosuspend) {
  usb_dev_get_port_path();
  usb_set_autosuspend_flag(1);
  rig.device.settings().usb.product = 0x5100;
  for (const bool list_fails : {false, true}) {
    if (list_fails) bus().refuse(wrx_module::Call::device_list, LIBUSB_ERROR_NO_MEM);
    rig.trace.clear();
    EXPECT_EQ(usb_dev_get_port_path(), -1);
    EXPECT_EQ(usb_dev_param.dev_port_path[0], '\0');
    EXPECT_EQ(usb_dev_enable_autosuspend(), -1);
    EXPECT_EQ(usb_dev_disable_autosuspend(), -1);
    EXPECT_EQ(said(rig),
              "[usb_dev_enable_autosuspend] not get dev_port_path!\\r\n"
              "[usb_dev_disable_autosuspend] not get dev_port_path!\\r\n");
  }
}

TEST_F(Transport, AutosuspendWritesThePowerFilesWhenItIsSwitchedOn) {
  const std::string power = "sys/bus/usb/devices/1-2/power/";
  const auto files = [&] {
    return rig.read_file(power + "control") + rig.read_file(power + "autosuspend") +
           rig.read_file(power + "autosuspend_delay_ms");
  };
  usb_dev_get_port_path();
  usb_set_autosuspend_flag(1);
  EXPECT_EQ(usb_dev_enable_autosuspend(), 0);  // no such files: unnoticed
  for (const char* name : {"control", "autosuspend", "autosuspend_delay_ms"})
    rig.write_file(power + name, "before\n");
  for (const uint8_t flag : Bytes{0, 2, 1}) {
    usb_set_autosuspend_flag(flag);
    rig.trace.clear();
    EXPECT_EQ(usb_dev_enable_autosuspend(), 0);
    EXPECT_EQ(files(), flag == 1 ? "auto\n2\n2000\n" : "before\nbefore\nbefore\n");
  }
  EXPECT_EQ(said(rig),
            "[usb_dev_enable_autosuspend] echo \"auto\" > /sys/bus/usb/devices/1-2/power/control\n"
            "[usb_dev_enable_autosuspend] echo 2 > /sys/bus/usb/devices/1-2/power/autosuspend\n"
            "[usb_dev_enable_autosuspend] echo 2000 > "
            "/sys/bus/usb/devices/1-2/power/autosuspend_delay_ms\n");
  usb_set_autosuspend_flag(0);
  rig.trace.clear();
  EXPECT_EQ(usb_dev_disable_autosuspend(), 0);
  EXPECT_EQ(files(), "on\n2\n2000\n");
  EXPECT_EQ(said(rig),
            "[usb_dev_disable_autosuspend] echo \"on\" > "
            "/sys/bus/usb/devices/1-2/power/control\n");
}

}  // namespace
}  // namespace wrx_test
