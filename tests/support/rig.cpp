// SPDX-License-Identifier: LGPL-2.1-or-later
// The rig: setting up and taking down the world around the driver.
#include "support/rig.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "base/log.h"
#include "base/paths.h"
#include "frame/driver.h"
#include "module/play/script.h"
#include "protocol/packet.h"
#include "support/records.h"
#include "transport/usb_device.h"

namespace wrx_test {

namespace fs = std::filesystem;

namespace {

constexpr char kExtraConfig[] = "etc/biometric-auth/extra.conf.d/vestrel-m6600.conf";
constexpr char kHostConfig[] = "etc/biometric-auth/biometric-drivers.conf";

// Says failures on standard error: standard output belongs to the recorder while a rig lives.
class FailureSpeaker : public testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult& part) override {
    if (part.passed()) return;
    std::fprintf(stderr, "%s:%d: %s\n", part.file_name() != nullptr ? part.file_name() : "?",
                 part.line_number(), part.message());
  }
};

void speak_of_failures() {
  static testing::TestEventListener* speaker = nullptr;
  if (speaker != nullptr) return;
  speaker = new FailureSpeaker;
  testing::UnitTest::GetInstance()->listeners().Append(speaker);  // which owns it from now on
}

// A new folder that becomes the working directory, and with it the root of the driver's paths.
std::string enter_scratch_folder() {
  std::string folder = (fs::temp_directory_path() / "wrx-test-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr || chdir(folder.c_str()) != 0) std::abort();
  for (const char* path : {"etc/biometric-auth/extra.conf.d", "etc/wrx6600/extra", "sys"}) {
    fs::create_directories(path);
  }
  return folder;
}

// A list of the framework's in few words; it is freed.
std::vector<Stored> take(feature_info* list) {
  const Unrecorded bench;
  std::vector<Stored> result;
  for (const feature_info* info = list; info != nullptr; info = info->next) {
    result.push_back({info->uid, info->index, {}});
    for (const feature_sample* s = info->sample; s != nullptr; s = s->next)
      result.back().slots.push_back(s->no);
  }
  bio_sto_free_feature_info_list(list);
  return result;
}

}  // namespace

wrx_module::Settings Rig::instant() {
  wrx_module::Settings settings;
  settings.link.empty_read = wrx_module::EmptyRead::answers_empty;
  return settings;
}

namespace {
Rig* active_rig = nullptr;
}  // namespace

// Calls of fp_set_ctrlFlag come here first. Of a stop it is told how the handshake stands by then.
extern "C" int32_t __real_fp_set_ctrlFlag(int32_t flag);
extern "C" int32_t __wrap_fp_set_ctrlFlag(int32_t flag) {
  if (active_rig != nullptr && active_rig->dev.dev_priv != nullptr &&
      flag == FP_CONTROL_FLAG_STOPPED) {
    active_rig->trace.note(
        fmt::format("fp_set_ctrlFlag {}, handshake {}", flag, active_rig->info().ctrlFlag));
  }
  return __real_fp_set_ctrlFlag(flag);
}

Rig::Rig(const wrx_module::Settings& settings)
    : device(clock, settings), scratch_(enter_scratch_folder()) {
  speak_of_failures();
  active_rig = this;
  wrx_module::bus().reset();
  wrx_module::bus().set_clock(clock);
  wrx_module::bus().set_trace([this](const wrx_module::TraceRecord& record) { trace.usb(record); });
  wrx_module::bus().attach(device);
  bio_host_set_db_path("feature.db");
  bio_host_set_ops_timeout_ms(5000);
  extra_config("");
  host_config("");
  clock.on_sleep = [this](int64_t us) { trace.note(fmt::format("sleep {}", us / 1000)); };
}

Rig::~Rig() {
  clock.join();
  active_rig = nullptr;
  if (usb_get_dev_handle() != nullptr) usb_dev_close();
  for (libusb_device_handle* handle : lost_)
    libusb_close(handle);
  enable_printf_log(0);
  g_free(dev.dev_priv);
  wrx_module::bus().reset();
  std::error_code ignored;
  fs::current_path(fs::temp_directory_path(), ignored);
  fs::remove_all(scratch_, ignored);
}

void Rig::write_file(const std::string& path, const std::string& content) {
  if (fs::path(path).has_parent_path()) fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string Rig::read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool Rig::file_exists(const std::string& path) {
  return fs::exists(path);
}

void Rig::show_file(const std::string& path) {
  trace.note("file /" + path);
  std::istringstream text(read_file(path));
  for (std::string line; std::getline(text, line);)
    trace.note("  | " + quoted((line + "\n").c_str()));
}

void Rig::extra_config(const std::string& keys) {
  write_file(kExtraConfig, "[BASIC_PARAM]\n" + keys);
}

void Rig::host_config(const std::string& keys) {
  write_file(kHostConfig, "[wrx5300]\n" + keys);
}

void Rig::install_firmware(const std::string& name, const std::string& image) {
  write_file("etc/wrx6600/extra/trv_fw.conf", name + "\n");
  write_file("etc/wrx6600/extra/" + name + ".bin", image);
}

int Rig::store(const Stored& feature, const char* name) {
  const Unrecorded bench;
  feature_info* info =
      bio_sto_new_feature_info(feature.uid, BioT_FingerPrint, "wrx5300", feature.index, name);
  feature_sample** tail = &info->sample;
  for (const int slot : feature.slots) {
    *tail = bio_sto_new_feature_sample(-1, "");
    (*tail)->no = slot;
    tail = &(*tail)->next;
  }
  sqlite3* db = bio_sto_connect_db();
  const int result = bio_sto_set_feature_info(db, info);
  bio_sto_disconnect_db(db);
  bio_sto_free_feature_info_list(info);
  return result;
}

std::vector<Stored> Rig::stored(int uid, int start, int end) {
  const Unrecorded bench;
  sqlite3* db = bio_sto_connect_db();
  feature_info* list = bio_sto_get_feature_info(db, uid, BioT_FingerPrint, "wrx5300", start, end);
  bio_sto_disconnect_db(db);
  return take(list);
}

void Rig::play(const std::string& script) {
  wrx_module::ParsedScript parsed = wrx_module::parse_script(script);
  ASSERT_FALSE(parsed.error) << parsed.error->text();
  wrx_module::bus().play(device, std::move(parsed.script));
}

void Rig::lose_handle_at(int transfer) {
  wrx_module::bus().faults().on_death = [this] {
    lost_.push_back(usb_get_dev_handle());
    usb_dev_set_null();
  };
  play("fault at " + std::to_string(transfer) + " death");
}

std::vector<int> Rig::slots() {
  std::vector<int> slots;
  for (const auto& [slot, finger] : device.memory().templates)
    slots.push_back(slot);
  return slots;
}

std::vector<int> Rig::asked() {
  std::vector<int> codes;
  for (const wrx_module::CommandRecord& command : device.commands())
    codes.push_back(command.code);
  return codes;
}

void Rig::stop_at(int64_t at_ms, int waiting_ms) {
  clock.at(clock.now_us() + at_ms * 1000, [this, waiting_ms] {
    // No step(): the records are the operation's, on the other thread.
    trace.note(fmt::format("begin ops_stop_by_user {}", waiting_ms));
    const int result = dev.ops_stop_by_user(&dev, waiting_ms);
    trace.note(fmt::format("step ops_stop_by_user result={}", result));
  });
}

int Rig::step(const std::string& name, const std::function<int()>& call) {
  trace.note("begin " + name);
  const auto before = record_contents();
  const int result = call();
  for (const std::string& line : record_changes(before))
    trace.note(line);
  trace.note(fmt::format("step {} result={}", name.substr(0, name.find(' ')), result));
  return result;
}

int Rig::configure() {
  host_conf_.reset(g_key_file_new());
  g_key_file_load_from_file(host_conf_.get(), kHostConfig, G_KEY_FILE_KEEP_COMMENTS, nullptr);
  g_free(dev.dev_priv);
  dev.dev_priv = nullptr;
  return step("ops_configure", [&] { return ops_configure(&dev, host_conf_.get()); });
}

int Rig::driver_init() {
  return step("ops_driver_init", [&] { return dev.ops_driver_init(&dev); });
}

void Rig::start() {
  configure();
  driver_init();
}

void Rig::ready() {
  start();
  open();
  trace.clear();
  device.commands().clear();
}

int Rig::discover() {
  return step("ops_discover", [&] { return dev.ops_discover(&dev); });
}

int Rig::open() {
  return step("ops_open", [&] { return dev.ops_open(&dev); });
}

void Rig::close() {
  trace.note("begin ops_close");
  dev.ops_close(&dev);
  trace.note("step ops_close result=-");
}

int Rig::enroll(int uid, int index, const char* name) {
  std::string finger = name != nullptr ? name : "";
  return step(fmt::format("ops_enroll {} {} {}", uid, index, finger), [&] {
    return dev.ops_enroll(&dev, ACTION_START, uid, index,
                          name != nullptr ? finger.data() : nullptr);
  });
}

int Rig::verify(int uid, int index) {
  return step(fmt::format("ops_verify {} {}", uid, index),
              [&] { return dev.ops_verify(&dev, ACTION_START, uid, index); });
}

int Rig::identify(int uid, int start, int end) {
  return step(fmt::format("ops_identify {} {}..{}", uid, start, end),
              [&] { return dev.ops_identify(&dev, ACTION_START, uid, start, end); });
}

int Rig::clean(int uid, int start, int end) {
  return step(fmt::format("ops_clean {} {}..{}", uid, start, end),
              [&] { return dev.ops_clean(&dev, ACTION_START, uid, start, end); });
}

std::vector<Stored> Rig::search(int uid, int start, int end) {
  return listed("ops_search", dev.ops_search, uid, start, end);
}

std::vector<Stored> Rig::list(int uid, int start, int end) {
  return listed("ops_get_feature_list", dev.ops_get_feature_list, uid, start, end);
}

std::vector<Stored> Rig::listed(const char* name, Lister call, int uid, int start, int end) {
  std::vector<Stored> found;
  step(fmt::format("{} {} {}..{}", name, uid, start, end), [&] {
    found = take(call(&dev, ACTION_START, uid, start, end));
    return static_cast<int>(found.size());
  });
  return found;
}

int64_t Rig::time_of(const std::function<void()>& call) {
  const int64_t before = clock.now_us();
  call();
  return (clock.now_us() - before) / 1000;
}

}  // namespace wrx_test
