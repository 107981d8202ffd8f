// SPDX-License-Identifier: LGPL-2.1-or-later
// The module's front end for a real bus, as the other machine sees it: bytes over a socket pair,
// written out by hand here.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>

#include "module/device/memory.h"
#include "module/play/control_socket.h"
#include "module/usb/usbip_server.h"
#include "module/usb/vhci_port.h"
#include "support/bytes.h"
#include "support/virtual_clock.h"

namespace wrx_test {
namespace {

using namespace wrx_module;

Bytes be(uint32_t value) {
  return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
          static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

const Bytes kBlockOut = {'U', 'S', 'B', 'C', 0x00, 12, 0, 0};
const Bytes kBlockIn = {'U', 'S', 'B', 'C', 0x80, 64, 0, 0};
// Command 0x30, the serial number's neighbour: any command that answers will do.
const Bytes kCommand = {0xEF, 1, 0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 3, 0x30, 0, 0x34};
const Bytes kAck = {'U', 'S', 'B', 'S'};

class Usbip : public testing::Test {
 protected:
  Usbip() { connect(false); }

  void connect(bool imported) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    peer = Descriptor(pair[1]);
    if (imported)
      link.emplace(Descriptor(pair[0]), stand);
    else
      link.emplace(Descriptor(pair[0]), stand, [] { return true; });
  }
  /// Sends, lets the link work, and returns all that came back.
  Bytes say(const Bytes& bytes) {
    EXPECT_EQ(write(peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return hear();
  }
  Bytes hear() {
    stand.advance();
    link->serve();
    Bytes got(1 << 16);
    const ssize_t count = read(peer.get(), got.data(), got.size());
    got.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return got;
  }
  Bytes urb(bool in, uint32_t endpoint, uint32_t length, const Bytes& setup = Bytes(8)) {
    return be(1) + be(++seqnum) + be(0x10002) + be(in) + be(endpoint) + be(0) + be(length) + be(0) +
           be(0) + be(0) + setup;
  }
  Bytes out(const Bytes& data, uint32_t endpoint = 1) {
    return urb(false, endpoint, static_cast<uint32_t>(data.size())) + data;
  }
  Bytes unlink(uint32_t victim) {
    return be(2) + be(++seqnum) + be(0x10002) + be(1) + be(1) + be(victim) + Bytes(24);
  }
  static Bytes done(uint32_t number, int32_t status, size_t moved, const Bytes& data = {}) {
    return be(3) + be(number) + Bytes(12) + be(static_cast<uint32_t>(status)) +
           be(static_cast<uint32_t>(moved)) + be(0) + be(0xFFFFFFFF) + be(0) + Bytes(8) + data;
  }
  static Bytes unlinked(uint32_t number, int32_t status) {
    return be(4) + be(number) + Bytes(12) + be(static_cast<uint32_t>(status)) + Bytes(24);
  }
  void play(const std::string& text) { ASSERT_EQ(answer_request(stand, "play\n" + text), "ok\n"); }

  wrx_test::VirtualClock clock;
  Stand stand{clock, Settings{}, factory_memory(100)};
  std::optional<usbip::Link> link;
  Descriptor peer;
  uint32_t seqnum = 0;
};

constexpr uint32_t kListRequest = 0x01118005, kImportRequest = 0x01118003;

Bytes bus_id(std::string text) {
  text.resize(32);
  return {text.begin(), text.end()};
}

TEST_F(Usbip, AMachineIsShownTheModuleWithItsInterfaceAndMayImportIt) {
  const Bytes list = say(be(kListRequest) + be(0));
  ASSERT_EQ(list.size(), 12u + 312 + 4);
  EXPECT_EQ(Bytes(list.begin(), list.begin() + 12), be(0x01110005) + be(0) + be(1));
  EXPECT_EQ(Bytes(list.begin() + 268, list.begin() + 300), bus_id("1-1"));
  // bus 1, device 2, full speed, ids, release 1.00, class 0, not configured, 1 and 1
  const Bytes facts = {0x4d, 0x2e, 0x53, 0x00, 1, 0, 0, 0, 0, 0, 1, 1, 0xFF, 0, 0, 0};
  EXPECT_EQ(Bytes(list.begin() + 300, list.end()), be(1) + be(2) + be(2) + facts);
  EXPECT_EQ(say(be(kImportRequest) + be(0) + bus_id("1-2")), be(0x01110003) + be(4));
  EXPECT_EQ(say(be(kImportRequest) + be(0) + bus_id("1-1")).size(), 8u + 312);
  EXPECT_TRUE(link->imported());
  EXPECT_EQ(say(out(kBlockOut)), done(1, 0, 8));
  connect(false);
  play("unplug");
  EXPECT_EQ(say(be(kListRequest) + be(0)), be(0x01110005) + be(0) + be(0));
}

TEST_F(Usbip, AnExchangeCarriesBlockPayloadAndAcknowledgement) {
  connect(true);
  const Bytes block_out = out(kBlockOut);  // byte by byte
  for (size_t i = 0; i + 1 < block_out.size(); ++i)
    ASSERT_TRUE(say({block_out[i]}).empty()) << "after byte " << i;
  EXPECT_EQ(say({block_out.back()}), done(1, 0, 8));
  EXPECT_EQ(say(out(kCommand)), done(2, 0, 12));
  EXPECT_EQ(say(urb(true, 1, 4)), done(3, 0, 4, kAck));
  say(out(kBlockIn));
  const Bytes answer = say(urb(true, 1, 64));
  ASSERT_GT(answer.size(), 48u + 9);
  EXPECT_EQ(Bytes(answer.begin() + 48, answer.begin() + 50), (Bytes{0xEF, 1}));
}

TEST_F(Usbip, APendingReadIsAnsweredOnceByTheModuleOrByTakingItBack) {
  connect(true);
  say(out(kBlockIn));
  EXPECT_TRUE(say(urb(true, 1, 64)).empty());
  EXPECT_EQ(say(unlink(2)), unlinked(3, -ECONNRESET));
  EXPECT_EQ(say(unlink(1)), unlinked(4, 0)) << "it had its answer already";
  say(out(kBlockIn));
  EXPECT_TRUE(say(urb(true, 1, 64)).empty());
  stand.device().say(Bytes{0x01, 0x00});
  const Bytes answer = hear();
  EXPECT_EQ(answer, done(6, 0, 13, Bytes(answer.end() - 13, answer.end())));
}

TEST_F(Usbip, FaultsBecomeTheKernelsErrorNumbers) {
  connect(true);
  const std::pair<const char*, int32_t> rows[] = {
      {"stall", -EPIPE}, {"io", -EPROTO}, {"nodev", -ESHUTDOWN}};
  for (const auto& [fault, status] : rows) {
    play(std::string("fault at 1 ") + fault);
    const Bytes request = out(kBlockOut);
    EXPECT_EQ(say(request), done(seqnum, status, 0)) << fault;
  }
  const Bytes stray = urb(true, 7, 64);
  EXPECT_EQ(say(stray), done(seqnum, -EPIPE, 0)) << "no such endpoint";
}

TEST_F(Usbip, ControlRequestsAnswerOrStall) {
  connect(true);
  const Bytes device = stand.device().device_descriptor();
  const std::pair<Bytes, std::optional<Bytes>> rows[] = {
      {{0x80, 6, 0, 1, 0, 0, 8, 0}, Bytes(device.begin(), device.begin() + 8)},
      {{0x80, 6, 0, 2, 0, 0, 0xFF, 0}, stand.device().configuration_descriptor()},
      {{0x80, 6, 0, 3, 0, 0, 0xFF, 0}, {}},  // strings
      {{0x01, 11, 0, 0, 0, 0, 0, 0}, {}},    // no alternate setting before the configuration
      {{0x00, 9, 1, 0, 0, 0, 0, 0}, Bytes{}},
      {{0x80, 8, 0, 0, 0, 0, 1, 0}, Bytes{1}},
      {{0x01, 11, 0, 0, 0, 0, 0, 0}, Bytes{}},
      {{0x00, 9, 2, 0, 0, 0, 0, 0}, {}},
      {{0x82, 0, 0, 0, 0x81, 0, 2, 0}, Bytes{0, 0}},
      {{0x02, 1, 0, 0, 0x81, 0, 0, 0}, Bytes{}},
      {{0xC0, 1, 0, 0, 0, 0, 8, 0}, {}},  // a vendor's own
  };
  for (const auto& [setup, answer] : rows) {
    const bool in = (setup[0] & 0x80) != 0;
    const Bytes got = say(urb(in, 0, in ? setup[6] : 0, setup));
    EXPECT_EQ(got, answer ? done(seqnum, 0, answer->size(), *answer) : done(seqnum, -EPIPE, 0))
        << "request " << seqnum;
  }
}

TEST_F(Usbip, NonsenseClosesTheConnectionAndNothingElse) {
  const Bytes good = urb(true, 1, 64);
  const std::pair<size_t, uint32_t> changes[] = {
      {0, 5},   {0, 0},           {8, 0x10003}, {12, 2},
      {16, 16}, {24, 0xFFFFFFFF}, {32, 3},      {24, (1u << 20) + 1}};
  for (const auto& [at, value] : changes) {
    Bytes changed = good;
    std::ranges::copy(be(value), changed.begin() + static_cast<ptrdiff_t>(at));
    connect(true);
    EXPECT_TRUE(say(changed).empty());
    EXPECT_TRUE(link->closed() && !link->complaint().empty()) << "at " << at;
  }
  for (const Bytes& bytes : {be(0x01108005) + be(0), be(0x01118004) + be(0), good}) {
    connect(false);
    EXPECT_TRUE(say(bytes).empty());
    EXPECT_TRUE(link->closed());
  }
  connect(true);
  EXPECT_EQ(say(out(kBlockOut)).size(), 48u);
  for (int i = 0; i < 300 && !link->closed(); ++i)
    say(urb(true, 1, 64));  // a flood of reads
  EXPECT_TRUE(link->closed());
  connect(true);
  peer.reset();
  link->serve();
  EXPECT_TRUE(link->closed() && link->complaint().empty()) << "a hang-up is no nonsense";
}

TEST_F(Usbip, TheConnectionEndsWithTheEnumeration) {
  connect(true);
  say(out(kBlockIn));
  say(urb(true, 1, 64));
  play("unplug; at 1ms; plug");
  clock.sleep_us(2000);
  EXPECT_TRUE(hear().empty());
  EXPECT_TRUE(link->closed() && link->complaint().empty());
  EXPECT_EQ(link->next_event_us(), kNever);
}

TEST(UsbipServer, TwoMachinesCannotHaveTheModuleAtOnce) {
  RealClock clock;
  Stand stand(clock, Settings{}, factory_memory(100));
  usbip::Server server(stand, "127.0.0.1", 0);
  EXPECT_THROW(usbip::Server(stand, "127.0.0.1", server.port()), std::system_error);
  EXPECT_THROW(usbip::Server(stand, "no address", 0), std::system_error);
  const Bytes request = be(kImportRequest) + be(0) + bus_id("1-1");
  sockaddr_in place{AF_INET, htons(server.port()), {htonl(INADDR_LOOPBACK)}, {}};
  Descriptor machines[3];
  const auto import = [&](Descriptor& machine) {
    machine = Descriptor(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(connect(machine.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
    EXPECT_EQ(send(machine.get(), request.data(), request.size(), 0), 40);
    Bytes head(8, 0xFF);
    for (int i = 0; i < 2000 && recv(machine.get(), head.data(), 8, MSG_DONTWAIT) != 8; ++i) {
      server.serve();
      usleep(1000);
    }
    return head[7];
  };
  EXPECT_EQ(import(machines[0]), 0);
  EXPECT_EQ(import(machines[1]), 2) << "busy";
  machines[0].reset();
  EXPECT_EQ(import(machines[2]), 0) << "given back";
  EXPECT_EQ(server.next_event_us(), kNever);
}

TEST(VhciStatus, OnlyFreePortsOfTheSlowerHubCount) {
  EXPECT_EQ(usbip::free_ports("hub port sta spd dev      sockfd local_busid\n"
                              "hs  0000 006 002 00010002 000003 1-1\n"
                              "hs  0001 004 000 00000000 000000 0-0\n"
                              "hs  0002 004 000 00000000 000000 0-0\n"
                              "ss  0008 004 000 00000000 000000 0-0\n"),
            (std::vector<unsigned>{1, 2}));
  EXPECT_TRUE(usbip::free_ports("").empty());
}

TEST_F(Usbip, ARunningModuleIsToldAndReports) {
  const std::string path = "steer.sock";
  ControlSocket control(stand, path);
  EXPECT_THROW(ControlSocket(stand, path), std::system_error) << "it is served already";
  const auto asked = [&](const std::string& request) {
    auto answer = std::async(std::launch::async, [&] { return ask(path, request); });
    while (answer.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
      control.serve();
    return answer.get();
  };
  EXPECT_EQ(asked("play\npress thumb x3"), "ok\n");
  EXPECT_NE(asked("report\n").find("\"presses_left\":3"), std::string::npos);
  EXPECT_EQ(asked("play\nfly"), "error: line 1, column 1: unknown verb 'fly'\n");
  EXPECT_EQ(asked("dance\n"), "error: unknown request\n");
}

}  // namespace
}  // namespace wrx_test
