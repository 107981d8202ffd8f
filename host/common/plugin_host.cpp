// SPDX-License-Identifier: LGPL-2.1-or-later
// Loading a driver plug-in and walking it through its life.

#include "plugin_host.h"

#include <dlfcn.h>

#include <memory>
#include <vector>

#include "outcome.h"
#include "protocol/packet.h"
#include "records/prot_codes.h"

namespace wrx::host {
namespace {

struct KeyFileCloser {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileCloser>;

KeyFile load_config(const std::string& path) {
  KeyFile config(g_key_file_new());
  if (path.empty()) return config;
  const auto keep =
      static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  GError* error = nullptr;
  if (g_key_file_load_from_file(config.get(), path.c_str(), keep, &error)) return config;
  const std::string why = "configuration " + path + ": " + error->message;
  g_error_free(error);
  throw Failure(Outcome::Usage, why);
}

/// A zeroed device record that lives as long as the process.
bio_dev* new_record() {
  static auto& records = *new std::vector<bio_dev*>;
  records.push_back(new bio_dev{});
  return records.back();
}

void* load(const std::string& plugin) {
  void* handle = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr)
    throw Failure(Outcome::Failed, std::string("the driver cannot be loaded: ") + dlerror());
  return handle;
}

}  // namespace

PluginHost::PluginHost(const std::string& plugin, const std::string& config)
    : device_(new_record()), plugin_(plugin) {
  const KeyFile conf = load_config(config);
  device_->plugin_handle = load(plugin);
  const auto configure = function<int(bio_dev*, GKeyFile*)>("ops_configure");
  if (configure(device_, conf.get()) != 0)
    throw Failure(Outcome::Failed, plugin + ": the driver cannot be configured");
}

PluginHost::~PluginHost() {
  if (open_) close();
  if (device_->ops_free != nullptr) device_->ops_free(device_);
}

void PluginHost::initialise() {
  if (device_->ops_driver_init(device_) != 0)
    throw Failure(Outcome::Failed, "the driver's start-up failed");
}

int PluginHost::discover() {
  device_->dev_num = device_->ops_discover(device_);
  return device_->dev_num;
}

void PluginHost::open() {
  open_ = device_->ops_open(device_) == 0;
  if (open_) return;
  if (device_->enable == 0)
    throw Failure(Outcome::Refused, "the driver is disabled by its configuration");
  throw Failure(Outcome::Absent, "the module cannot be opened");
}

void PluginHost::close() {
  device_->ops_close(device_);
  open_ = false;
}

void PluginHost::stop() {
  constexpr int kLongestWaitMs = 3000;
  if (bio_get_dev_status(device_) != DEVS_COMM_IDLE)
    device_->ops_stop_by_user(device_, kLongestWaitMs);
}

bool PluginHost::unanswered() const {
  const auto last = reinterpret_cast<decltype(&fp_resp_type_get)>(
      dlsym(device_->plugin_handle, "fp_resp_type_get"));
  return last != nullptr && last() == kNoAnswer;
}

void* PluginHost::symbol(const char* name) const {
  void* address = dlsym(device_->plugin_handle, name);
  if (address == nullptr)
    throw Failure(Outcome::Failed, plugin_ + ": the plug-in has no function " + name);
  return address;
}

}  // namespace wrx::host
