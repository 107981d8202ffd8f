// SPDX-License-Identifier: LGPL-2.1-or-later
// Finding packets in the byte stream: splits, garbage, lengths, sums, images, and the fast path
// against the byte-wise machine.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

#include "base/log.h"
#include "protocol/packet.h"
#include "records/fp_device_param.h"
#include "support/lower_rooms.h"

namespace wrx_test {
namespace {

const Bytes kSystem = {0, 0, 2, 1, 0x2C, 0, 5, 0xFF, 0xFF, 0xFF, 0xFF};

class Parser : public testing::Test {
 protected:
  Parser() { expect(PROT_CMD_READSYSPARA); }
  /// Begins anew, awaiting the answer to `code`.
  void expect(uint8_t code) {
    fp_module_init();
    fp_resp_init(code);
    rig.trace.clear();
  }
  static int32_t parse(const Bytes& bytes) {
    return fp_parse_prot(bytes.data(), static_cast<int32_t>(bytes.size()));
  }
  static bool decoded() { return fp_device_param.sys_param.fp_database_size == 0x012C; }

  Rig rig;
};

TEST_F(Parser, APacketSplitAnywhereOverTwoReadsIsCompletedByTheSecond) {
  const Bytes whole = packet(kSystem);
  for (auto cut = whole.begin() + 1; cut != whole.end(); ++cut) {
    expect(PROT_CMD_READSYSPARA);
    EXPECT_EQ(parse(Bytes(whole.begin(), cut)), -1);
    EXPECT_FALSE(decoded());
    EXPECT_EQ(parse(Bytes(cut, whole.end()) + Bytes(30, 0)), 0) << cut - whole.begin();
    EXPECT_TRUE(decoded());
  }
}

TEST_F(Parser, OnlyABrokenHeadHidesThePacketBehindIt) {
  struct {
    Bytes garbage;
    int32_t result;
  } rows[] = {{{0, 0, 0}, 0}, {{0xEF, 0x02}, 0}, {{0xEF, 0, 0xEF, 0xEF}, 0}, {{0xEF}, -1}};
  for (const auto& row : rows) {
    expect(PROT_CMD_READSYSPARA);
    EXPECT_EQ(parse(row.garbage + packet(kSystem)), row.result) << hex(row.garbage);
    EXPECT_EQ(decoded(), row.result == 0);
    EXPECT_EQ(parse(packet(kSystem)), 0);
    EXPECT_TRUE(decoded());
  }
}

TEST_F(Parser, ALengthBelow2DropsThePacketAnd2GoesStraightToTheSum) {
  for (const int length : {0, 1, 2}) {
    expect(PROT_CMD_READSYSPARA);
    const Bytes bytes = packet({}, 7, length);
    EXPECT_EQ(parse(Bytes(bytes.begin(), bytes.begin() + 9)), -1);
    EXPECT_EQ(prot_packet_usb.prot_state, length == 2 ? 10 : 0);
    EXPECT_EQ(parse(Bytes(bytes.begin() + 9, bytes.end())), length == 2 ? 0 : -1);
    EXPECT_EQ(rig.trace.count("[app_fp256_360:#:fp_parse_prot_response] the param is error!!!\\r"),
              length == 2 ? 1 : 0);
    EXPECT_EQ(fp_resp_type_get(), 0xFF);
  }
}

TEST_F(Parser, AWrongSumDropsThePacketAndSaysBoth) {
  Bytes bytes = packet(kSystem);
  bytes[21] ^= 1;
  EXPECT_EQ(parse(bytes), -1);
  EXPECT_TRUE(rig.trace.saw("p->prot_checksum = 0x0445, checksum = 0x0444, not equal!!!\\r"));
  EXPECT_FALSE(decoded());
  EXPECT_EQ(parse(packet(kSystem)), 0);
  EXPECT_TRUE(decoded());
}

TEST_F(Parser, EveryPacketOfAReadIsDispatchedByItsType) {
  EXPECT_EQ(parse(packet({3}, 1) + packet({4}, 2) + packet({5}, 9) + packet({6}) + packet(kSystem) +
                  packet({7}, 8)),
            0);
  EXPECT_TRUE(decoded());
  EXPECT_EQ(fp_resp_type_get(), 0);
  EXPECT_EQ(rig.trace.count("Recv data from device: "), 6);
  EXPECT_EQ(rig.trace.count("fp_parse_prot_head] p->prot_type = 0x09 is error!!!\\r"), 1);
  EXPECT_EQ(rig.trace.count("not find the current_cmd_code 0x0f, error!!!\\r"), 1);
  EXPECT_EQ(rig.trace.count("received PROT_CMD_READSYSPARA response.\\r"), 2);
}

TEST_F(Parser, BadArgumentsAreRefused) {
  uint8_t byte = 0;
  for (const auto parse : {fp_parse_prot, fp_parse_prot_data_end, fp_parse_prot_response}) {
    EXPECT_EQ(parse(nullptr, 1), -1);
    EXPECT_EQ(parse(&byte, 0), -1);
  }
  EXPECT_EQ(fp_read_and_parse_prot(0), -1);
  EXPECT_EQ(fp_read_and_parse_prot(93172), -1);
  EXPECT_EQ(fp_parse_prot_head(&byte, sizeof prot_packet_usb), -1);
  EXPECT_EQ(fp_parse_prot_head(reinterpret_cast<uint8_t*>(&prot_packet_usb), 4), -1);
  EXPECT_EQ(rig.trace.count("] the param is error!!!\\r"), 10);
}

TEST_F(Parser, DumpsOnConsoleAndInTheLogAsATrace) {
  enable_printf_log(1);
  rig.trace.clear();
  for (const size_t payload : {2U, 21U, 30U, 53U, 300U}) {
    rig.write_file(kLogFile, "");
    rig.step("packet of " + std::to_string(payload), [&] {
      fp_resp_init(PROT_CMD_HANDSHAKE);
      return parse(packet(Bytes(payload, 0xAB)));
    });
    rig.show_file(kLogFile);
  }
  for (const size_t size : {100U, 128U, 130U}) {
    rig.write_file(kLogFile, "");
    rig.step("page of " + std::to_string(size), [&] {
      fp_resp_init(PROT_CMD_READINFOPAGE);
      return parse(packet(Bytes(size, 0x42), 8));
    });
    rig.show_file(kLogFile);
  }
  rig.step("short image", [&] {
    fp_resp_init(PORT_CMD_ACQUIRE_IMAGEDATA);
    return parse(packet({1, 2, 3}, 8));
  });
  EXPECT_EQ(golden_difference("dumps", rig.trace.lines()), "");
}

TEST_F(Parser, A64KPacketPassesItsSumButIsNotDispatched) {
  for (const size_t payload : {65524U, 65525U}) {
    expect(PROT_CMD_HANDSHAKE);
    EXPECT_EQ(parse(packet(Bytes(payload, 1))), 0);
    EXPECT_EQ(fp_device_param.handshake_state, payload == 65524 ? 1 : 0);
    EXPECT_EQ(rig.trace.count("Recv data from device: 65535"), payload == 65524 ? 1 : 0);
  }
}

Bytes image_packet(uint16_t sum) {
  Bytes image(92160);
  for (size_t i = 0; i < image.size(); ++i)
    image[i] = static_cast<uint8_t>(i * 7);
  Bytes bytes = packet(image, 8, 0xFFFF);
  bytes[bytes.size() - 2] = static_cast<uint8_t>(sum >> 8);
  bytes[bytes.size() - 1] = static_cast<uint8_t>(sum);
  return bytes;
}

TEST_F(Parser, AnImageIsTakenByItsMarkerOrTheSumOfItsFirst26624Bytes) {
  unsigned sum = 8 + 0xFF + 0xFF;
  for (unsigned i = 0; i < 26624; ++i)
    sum += i * 7 % 256;
  const auto good = static_cast<uint16_t>(sum);
  for (const uint16_t check : {uint16_t{0x55AA}, good, static_cast<uint16_t>(good + 1)}) {
    expect(PORT_CMD_ACQUIRE_IMAGEDATA);
    const bool taken = check != good + 1;
    const Bytes bytes = image_packet(check);
    EXPECT_EQ(parse(bytes), taken ? 0 : -1);
    EXPECT_EQ(std::memcmp(fp_device_param.img_data, bytes.data() + 9, 92160) == 0, taken);
    EXPECT_EQ(rig.trace.count("Recv data from device: 26635"), taken ? 1 : 0);  // 92171 - 65536
    EXPECT_FALSE(rig.trace.saw("len = "));
  }
}

TEST_F(Parser, TheImagesLengthMeans65533BytesToAnyOtherCommand) {
  const Bytes bytes = image_packet(0x55AA);
  EXPECT_EQ(parse(Bytes(bytes.begin(), bytes.begin() + 9 + 65532)), -1);
  EXPECT_EQ(prot_packet_usb.prot_state, 9);
  EXPECT_EQ(parse({1}), -1);
  EXPECT_EQ(prot_packet_usb.prot_state, 10);
  EXPECT_EQ(parse({0x55, 0xAA}), -1);  // and the marker means nothing to it
}

TEST_F(Parser, AShortImageIsStoredAtTheStartAndTooLongAPageNotAtAll) {
  expect(PORT_CMD_ACQUIRE_IMAGEDATA);
  std::memset(fp_device_param.img_data, 9, 8);
  EXPECT_EQ(parse(packet({1, 2, 3}, 8)), 0);
  EXPECT_EQ(std::memcmp(fp_device_param.img_data, "\1\2\3\x9\x9", 5), 0);
  for (const size_t size : {100U, 128U, 130U}) {
    expect(PROT_CMD_READINFOPAGE);
    EXPECT_EQ(parse(packet(Bytes(size, 0x42), 8)), 0);
    const auto& page = fp_device_param.flash_info_page;
    EXPECT_EQ(std::count(std::begin(page), std::end(page), 0x42), size == 130 ? 0 : size);
  }
}

TEST_F(Parser, AShortReadIsParsedAsIfZerosFollowed) {
  rig.configure();
  rig.open();
  expect(PROT_CMD_READSYSPARA);
  const Bytes whole = packet(kSystem);
  rig.device.say_raw(Bytes(whole.begin(), whole.begin() + 12));
  EXPECT_EQ(fp_read_and_parse_prot(16), -1);
  EXPECT_EQ(prot_packet_usb.prot_data_cnt, 7U);  // three bytes that came and four zeros
  EXPECT_EQ(fp_read_and_parse_prot(6), -1);      // the rest of the payload and a wrong sum
  rig.device.say(kSystem);
  EXPECT_EQ(fp_read_and_parse_prot(64), 0);
}

TEST_F(Parser, ADrainThrowsAwayUnparsedAndEndsWithTheFirstFailure) {
  rig.configure();
  rig.open();
  expect(PROT_CMD_READSYSPARA);
  rig.device.say(kSystem);
  EXPECT_EQ(fp_read_invalid_pkg(3), 0);
  EXPECT_FALSE(decoded());
  EXPECT_EQ(rig.trace.count("want=64"), 3);
  rig.play("fault at 5 stall");
  EXPECT_EQ(fp_read_invalid_pkg(3), -1);
  EXPECT_EQ(rig.trace.count("want=64"), 5);
}

// ---- the fast path against one byte at a time

using Random = std::mt19937;

Bytes noise(Random& random, size_t size) {
  Bytes bytes(size);
  for (uint8_t& byte : bytes)
    byte = static_cast<uint8_t>(random());
  return bytes;
}

// One piece of a hostile stream: noise, a packet that is cut, flipped, behind garbage, of another
// length than it says, or whole, and now and then one of the longest.
Bytes piece(Random& random) {
  constexpr uint8_t kTypes[] = {1, 2, 7, 7, 7, 8, 8, 9};
  constexpr int kLengths[] = {0, 1, 2, 3, 4, 40, 130, 65527, 0xFFFF};
  const uint8_t type = kTypes[random() % 8];
  Bytes bytes = packet(noise(random, random() % (random() % 9 == 0 ? 300 : 40)), type);
  const auto kind = random() % 120;
  if (kind == 0) return packet(noise(random, 65525), type);
  if (kind == 1) return image_packet(0x55AA);
  if (kind < 10) return noise(random, random() % 50);
  if (kind < 20) return Bytes(bytes.data(), bytes.data() + random() % bytes.size());
  if (kind < 30) bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1U << random() % 8);
  if (kind < 40) return Bytes(random() % 4, 0xEF) + bytes;
  if (kind < 50) return packet(noise(random, random() % 60), type, kLengths[random() % 9]);
  return bytes;
}

/// All that parsing can change.
struct World {
  PROT_PACKET packet = prot_packet_usb;
  FP_DEVICE_PARAM_STRUCT state = fp_device_param;
  Bytes copy = Bytes(usb_recv_data, usb_recv_data + sizeof usb_recv_data);
  uint16_t count = usb_recv_cnt;
};

std::unique_ptr<World> feed(Rig& rig, const std::vector<Bytes>& reads, const Bytes& codes,
                            bool bytewise, std::vector<int32_t>& results) {
  fp_module_init();
  std::memset(usb_recv_data, 0, sizeof usb_recv_data);
  usb_recv_cnt = 0;
  rig.trace.clear();
  prot_packet_usb.current_sub_cmd_code = PROT_SUBCMD_READ_FW;
  for (size_t i = 0; i < reads.size(); ++i) {
    fp_resp_init(codes[i]);
    int32_t result = -1;
    if (!bytewise) result = fp_parse_prot(reads[i].data(), static_cast<int32_t>(reads[i].size()));
    for (size_t k = 0; bytewise && k < reads[i].size(); ++k)
      result = std::max(result, fp_deal_usb_data(reads[i][k]));
    results.push_back(result);
  }
  return std::make_unique<World>();
}

TEST_F(Parser, InRunsItDoesExactlyWhatItDoesByteByByte) {
  constexpr uint8_t kCodes[] = {0, 4, 15, 22, 31, 49, 50, 52, 53, 175, 240, 240};
  for (unsigned seed = 1; seed <= 60; ++seed) {
    Random random(seed);
    Bytes stream;
    for (int i = 0; i < 60; ++i)
      stream = stream + piece(random);
    std::vector<Bytes> reads;
    Bytes codes;
    for (auto at = stream.begin(); at != stream.end();) {
      const auto left = static_cast<size_t>(stream.end() - at);
      const size_t size = std::min<size_t>(left, 1 + random() % (random() % 8 == 0 ? 93171 : 100));
      reads.emplace_back(at, at + static_cast<std::ptrdiff_t>(size));
      codes.push_back(kCodes[random() % sizeof kCodes]);
      at += static_cast<std::ptrdiff_t>(size);
    }
    reads.push_back(image_packet(0x55AA));  // all of it at once
    codes.push_back(PORT_CMD_ACQUIRE_IMAGEDATA);
    std::vector<int32_t> fast_results, slow_results;
    const auto fast = feed(rig, reads, codes, false, fast_results);
    const std::vector<std::string> fast_lines = rig.trace.driver_lines();
    const auto slow = feed(rig, reads, codes, true, slow_results);
    ASSERT_EQ(fast_results, slow_results) << "seed " << seed;
    ASSERT_EQ(fast_lines, rig.trace.driver_lines()) << "seed " << seed;
    ASSERT_TRUE(same_bytes(fast->packet, slow->packet)) << "seed " << seed;
    ASSERT_TRUE(same_bytes(fast->state, slow->state)) << "seed " << seed;
    ASSERT_EQ(fast->copy, slow->copy) << "seed " << seed;
    ASSERT_EQ(fast->count, slow->count) << "seed " << seed;
  }
}

}  // namespace
}  // namespace wrx_test
