// SPDX-License-Identifier: LGPL-2.1-or-later
// The table of operations.
#include "sweep/operations.h"

#include <map>

#include "operations/module_procedures.h"
#include "protocol/packet.h"
#include "protocol/procedures.h"
#include "upgrade/upgrade_support.h"

namespace sweep {
namespace {

using wrx_module::Settings;
using wrx_test::Rig;

// ---- time: sums of the waits

constexpr Waits operator+(const Waits& one, const Waits& other) {
  return {one.ms + other.ms, one.reads + other.reads, one.fingers + other.fingers};
}
constexpr Waits operator*(int64_t times, const Waits& waits) {
  return {times * waits.ms, times * waits.reads, times * waits.fingers};
}
// An exchange whose answer never comes: a first wait, then attempts with a pause behind each.
constexpr Waits exchange(int64_t wait, int64_t attempts, int64_t pause) {
  return {wait + attempts * pause, attempts};
}
constexpr Waits kDrain = {0, 1};  // the first read that fails ends it
constexpr Waits kCancel = exchange(20, 5, 20) + kDrain;
constexpr Waits kFinger = {20, 1, 1};
constexpr Waits kIdentifying = exchange(20, 3, 20) + kFinger + kCancel;
constexpr Waits kMatching = kDrain + kIdentifying;
constexpr Waits kReports = {(13 * 3 + 3) * 30};
constexpr Waits kPresses = kReports + Waits{30, 1, 1} + kCancel;
constexpr Waits kReadingPause = {2000};
constexpr Waits kEnrolling =
    kMatching + 2 * exchange(20, 10, 20) + exchange(20, 3, 20) + kPresses + kReadingPause;
// One template to erase before, one press of a finger that the user has.
constexpr Waits kLongEnrolling = exchange(20, 5, 20) + kIdentifying + kEnrolling;
constexpr Waits kCleaning = 2 * exchange(20, 5, 20);
constexpr Waits kPowerUp = kDrain + exchange(20, 3, 20) + Waits{5 * 20, 5} + kCancel;
constexpr Waits kStarting = kPowerUp + exchange(20, 10, 20) + Waits{5 * 20, 5};
// Ten attempts, a second apart, each of which may have to restart the module first. A rewrite is
// eight frames with a pause of four behind each.
constexpr Waits kRestart = exchange(70, 1, 0) + Waits{1000}, kRewrite = {8 * 4 + 1000};
constexpr Waits kUpgrading = kStarting + kRestart + 10 * (kRestart + kRewrite) + Waits{1000};
constexpr Waits kCommand = exchange(100, 10, 20) + kCancel;

// ---- words

constexpr Words kUntouched[] = {{0, 0}};
constexpr Words kOpened[] = {{100, 100}};
constexpr Words kMayOpen[] = {{100, 100}, {101, 101}};
// 9 is a text of the driver's own: no room.
constexpr Words kEnroll[] = {{200, 200}, {201, 201}, {201, 9}, {202, 202}, {204, 204}, {3, 3}};
constexpr Words kVerify[] = {{300, 300}, {301, 301}, {302, 302}, {304, 304}, {3, 3}};
constexpr Words kIdentify[] = {{400, 400}, {401, 401}, {402, 402}, {3, 3}};
constexpr Words kSearch[] = {{600, 600}, {601, 601}, {602, 602}, {604, 604}, {3, 3}};
constexpr Words kClean[] = {{700, 700}, {701, 701}};
constexpr Words kList[] = {{800, 100}};  // no notification of its own: that of the opening stays

// Transfers that may still follow a stop which a report overtook: of the read in progress, of the
// exchange before it, of the cancel.
constexpr int kToEnd = 3 + 3 * (1 + 5 + 3), kWhole = 3 * 5 + 3 * (1 + 3) + kToEnd;

constexpr Family kStarts = {kUntouched, Stop::unheard, kStarting};
constexpr Family kUpgrades = {kUntouched, Stop::unheard, kUpgrading};
constexpr Family kRecoveries = {kUntouched, Stop::unheard, kRewrite};
constexpr Family kDiscoveries = {kUntouched, Stop::unheard, {}};
constexpr Family kOpenings = {kMayOpen, Stop::unheard, {}};
constexpr Family kEnrolments = {kEnroll, Stop::ends, kEnrolling, kToEnd};
constexpr Family kLongEnrolments = {kEnroll, Stop::ends, kLongEnrolling, kToEnd};
constexpr Family kVerifications = {kVerify, Stop::ends, kMatching, kWhole};
constexpr Family kIdentifications = {kIdentify, Stop::only_end, kMatching, kWhole};
constexpr Family kHeldResults = {kIdentify, Stop::ends, kMatching, kWhole};
constexpr Family kSearches = {kSearch, Stop::ends, kMatching, kWhole};
constexpr Family kCleanings = {kClean, Stop::unheard, kCleaning};
constexpr Family kLists = {kList, Stop::unheard, {}};
constexpr Family kCommands = {kOpened, Stop::unheard, kCommand};

// ---- worlds

constexpr auto configured = [](Rig& rig) { rig.configure(); };
void opened(Rig& rig) {
  rig.configure();
  rig.info().timeoutMS = kFingerMs;
  rig.open();
}
constexpr auto pressed = [](Rig& rig) { opened(rig), rig.play("press thumb x2"); };
constexpr auto new_finger = [](Rig& rig) { opened(rig), rig.play("press ring x13"); };
constexpr auto ten_fingers = [](Rig& rig) { stock(rig, 10), new_finger(rig); };
constexpr auto held_result = [](Rig& rig) { rig.start(), rig.open(); };
void picture_taken(Rig& rig) {
  opened(rig);
  rig.play("at 0ms; press thumb");
  fp_get_fprint_img();
}
// Another user has the finger already, and the module stores no finger twice. Before that there is
// a template to erase, and a finger that the user has.
void strangers_finger(Rig& rig) {
  rig.store({Rig::kUser + 1, 0, {30}});
  rig.device.memory().templates[30] = "ring";
  rig.device.memory().templates[31] = "nobody's";
  opened(rig);
  rig.play("press thumb; press ring x13");
}
void upgrade_due(Rig& rig) {
  rig.extra_config("UpgradeMode=AUTO_UPGRADE\nUpgradeFlag=5\n");
  rig.install_firmware("ACM32FP_V101", wrx_test::image_of(481));
  rig.configure();
}
constexpr auto torn_upgrade = [](Rig& rig) { wrx_test::break_firmware(rig), upgrade_due(rig); };

constexpr auto whole_steps = [](Settings& settings) {
  settings.link.batch = wrx_module::Batch::one_step;
};
constexpr auto stores_nothing_twice = [](Settings& settings) {
  whole_steps(settings);
  settings.procedure.refuse_duplicates = true;
};
constexpr auto new_image = [](Settings& settings) {
  settings.bootloader.version_of_image = [](auto) { return 101U; };
};
constexpr auto powered_by_finger = [](Settings& settings) {
  settings.power_up = {.outcome = wrx_module::PowerUpOutcome::match, .slots = {20}};
};
constexpr auto told_with_version = [](Settings& settings) {
  powered_by_finger(settings);
  settings.power_up.form = wrx_module::ResultForm::list;
  settings.power_up.answers_identify = false;
};

// ---- calls

constexpr auto start = [](Rig& rig) { return rig.driver_init(); };
constexpr auto discover = [](Rig& rig) { return rig.discover(); };
constexpr auto reopen = [](Rig& rig) { return rig.close(), rig.open(); };
constexpr auto enroll = [](Rig& rig) { return rig.enroll(Rig::kUser, 3, "ring"); };
constexpr auto verify = [](Rig& rig) { return rig.verify(); };
constexpr auto identify = [](Rig& rig) { return rig.identify(); };
constexpr auto search = [](Rig& rig) { return static_cast<int>(rig.search().size()); };
constexpr auto clean = [](Rig& rig) { return rig.clean(Rig::kUser, 1, 2); };
constexpr auto list = [](Rig& rig) { return static_cast<int>(rig.list().size()); };
constexpr auto set_mode = [](Rig&) { return fp_set_mode("TEST", 4); };
template <auto procedure, auto... arguments>
int call(Rig&) {
  return procedure(arguments...);
}

constexpr Leaves kStart = {.needs_start = true};
constexpr Leaves kPower = {.needs_power = true};
constexpr Leaves kErases = {.erases = true};
#define WRX_COMMAND(function, ...)                                                         \
  {                                                                                        \
#function, nullptr, opened, call < function __VA_OPT__(, ) __VA_ARGS__>, kCommands, {} \
  }

constexpr Operation kOperations[] = {
    {"start", nullptr, configured, start, kStarts, {}},
    {"start-powerup", powered_by_finger, configured, start, kStarts, {}},
    {"start-version", told_with_version, configured, start, kStarts, {}},
    {"upgrade", new_image, upgrade_due, start, kUpgrades, kStart},
    {"recover", new_image, torn_upgrade, start, kRecoveries, kStart},
    {"discover", nullptr, configured, discover, kDiscoveries, {}},
    {"open", nullptr, opened, reopen, kOpenings, {}},
    {"enroll", whole_steps, new_finger, enroll, kEnrolments, {}},
    {"enroll-unstored", stores_nothing_twice, strangers_finger, enroll, kLongEnrolments, {}},
    {"enroll-full", whole_steps, ten_fingers, enroll, kEnrolments, {}},
    {"verify", nullptr, pressed, verify, kVerifications, {}},
    {"identify", nullptr, pressed, identify, kIdentifications, {}},
    {"identify-held", powered_by_finger, held_result, identify, kHeldResults, {}},
    {"search", nullptr, pressed, search, kSearches, {}},
    {"clean", nullptr, opened, clean, kCleanings, {}},
    {"list", nullptr, opened, list, kLists, {}},
    {"fp_get_fprint_img", nullptr, pressed, call<fp_get_fprint_img>, kCommands, {}},
    {"fp_upload_fprint_img", nullptr, picture_taken, call<fp_upload_fprint_img>, kCommands, {}},
    {"fp_set_mode", nullptr, opened, set_mode, kCommands, {}},
    {"fp_sleep", nullptr, opened, call<fp_sleep>, kCommands, kPower},
    {"fp_reboot", nullptr, opened, call<fp_reboot>, kCommands, kPower},
    {"fp_empty_template", nullptr, opened, call<fp_empty_template>, kCommands, kErases},
    WRX_COMMAND(fp_get_firmware_version),
    WRX_COMMAND(fp_force_get_fprint_img),
    WRX_COMMAND(fp_read_sys_param),
    WRX_COMMAND(fp_set_chip_addr, 0x01020304U),
    WRX_COMMAND(fp_read_flash_info_page),
    WRX_COMMAND(fp_read_index_table, 0),
    WRX_COMMAND(fp_get_chip_serial_num),
    WRX_COMMAND(fp_handshake),
    WRX_COMMAND(fp_cancel),
    WRX_COMMAND(fp_get_valid_template_num),
    WRX_COMMAND(fp_get_bright),
    WRX_COMMAND(fp_set_pc_state, 1),
    WRX_COMMAND(fp_get_empty_enroll_id),
    WRX_COMMAND(fp_delete_template, 200, 1),
};

}  // namespace

std::string finger_of(int index) {
  static const char* const kNames[] = {"thumb", "index", "middle", "ring"};
  return index < 4 ? kNames[index] : "finger " + std::to_string(index);
}

void stock(Rig& rig, int fingers) {
  // Made once and copied: a database is asked more often than made.
  static std::map<int, std::string> databases;
  for (int i = 0; i < fingers; ++i)
    rig.device.memory().templates[static_cast<uint16_t>(kFirstSlot + i)] = finger_of(i);
  std::string& database = databases[fingers];
  if (!database.empty()) return rig.write_file("feature.db", database);
  for (int i = 0; i < fingers; ++i)
    rig.store({Rig::kUser, i, {kFirstSlot + i}});
  database = rig.read_file("feature.db");
}

std::span<const Operation> operations() {
  return kOperations;
}

const Operation* operation_named(std::string_view name) {
  for (const Operation& row : kOperations) {
    if (row.name == name) return &row;
  }
  return nullptr;
}

}  // namespace sweep
