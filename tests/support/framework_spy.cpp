// SPDX-License-Identifier: LGPL-2.1-or-later
// The framework's functions in front of the stand-in framework: each call becomes a line of the
// trace and is handed on. The driver in the test programs finds these first.
#include <dlfcn.h>
#include <fmt/ranges.h>
#include <libbiometric.h>

#include <array>
#include <cstdarg>
#include <map>
#include <string>
#include <vector>

#include "support/recorder.h"

namespace {

using wrx_test::quoted;

// What the framework calls of itself, or asks the driver, is none of the driver's calls.
thread_local bool quiet = false;

void note(const std::string& text) {
  if (quiet) return;
  if (wrx_test::Recorder* recorder = wrx_test::Recorder::active()) recorder->note(text);
}

/// The stand-in's function of the same name and type.
template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define NEXT(function) next(&(function), #function)

int list_length(const feature_info* list) {
  int length = 0;
  for (; list != nullptr; list = list->next)
    ++length;
  return length;
}

// Connections are numbered in the order they were made.
std::map<const sqlite3*, int> connections;
int connections_made = 0;

std::string selection(int uid, int biotype, const char* driver, int start, int end) {
  return fmt::format(" uid={} biotype={} driver={} {}..{}", uid, biotype, quoted(driver), start,
                     end);
}

std::string formatted(const char* format, va_list arguments) {
  std::array<char, 2048> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  return quoted(text.data());
}

}  // namespace

wrx_test::Unrecorded::Unrecorded() {
  quiet = true;
}
wrx_test::Unrecorded::~Unrecorded() {
  quiet = false;
}

void wrx_test::number_connections_anew() {
  connections_made = 0;
}

extern "C" {

int bio_get_empty_driver_id(void) {
  note("bio_get_empty_driver_id = 7");
  return 7;
}

int bio_dev_is_enable(bio_dev* dev, GKeyFile* conf) {
  const int enabled = NEXT(bio_dev_is_enable)(dev, conf);
  note(fmt::format("bio_dev_is_enable = {}", enabled));
  return enabled;
}

int bio_get_ops_timeout_ms(void) {
  const int timeout = NEXT(bio_get_ops_timeout_ms)();
  note(fmt::format("bio_get_ops_timeout_ms = {}", timeout));
  return timeout;
}

#define SPY_ON_SETTER(setter)                  \
  void setter(bio_dev* dev, int value) {       \
    note(#setter " " + std::to_string(value)); \
    const wrx_test::Unrecorded its_own_calls;  \
    NEXT(setter)(dev, value);                  \
  }
SPY_ON_SETTER(bio_set_dev_status)
SPY_ON_SETTER(bio_set_ops_result)
SPY_ON_SETTER(bio_set_ops_abs_result)
SPY_ON_SETTER(bio_set_notify_mid)
SPY_ON_SETTER(bio_set_notify_abs_mid)

void bio_process_changed(bio_dev* dev, const char* opsname, int percent, const char* message) {
  note(fmt::format("bio_process_changed {} {} {}", quoted(opsname), percent, quoted(message)));
  NEXT(bio_process_changed)(dev, opsname, percent, message);
}

int bio_common_get_empty_index(bio_dev* dev, int uid, int start, int end) {
  int index = -1;
  {
    const wrx_test::Unrecorded its_own_calls;
    index = NEXT(bio_common_get_empty_index)(dev, uid, start, end);
  }
  note(fmt::format("bio_common_get_empty_index uid={} {}..{} = {}", uid, start, end, index));
  return index;
}

sqlite3* bio_sto_connect_db(void) {
  sqlite3* db = NEXT(bio_sto_connect_db)();
  if (db == nullptr) {
    note("bio_sto_connect_db = none");
  } else if (!quiet) {
    connections[db] = ++connections_made;
    note(fmt::format("bio_sto_connect_db = #{}", connections_made));
  }
  return db;
}

void bio_sto_disconnect_db(sqlite3* db) {
  note(db != nullptr ? "bio_sto_disconnect_db #" + std::to_string(connections[db])
                     : std::string("bio_sto_disconnect_db none"));
  connections.erase(db);
  NEXT(bio_sto_disconnect_db)(db);
}

feature_info* bio_sto_get_feature_info(sqlite3* db, int uid, int biotype, const char* driver,
                                       int start, int end) {
  feature_info* list = NEXT(bio_sto_get_feature_info)(db, uid, biotype, driver, start, end);
  note(fmt::format("bio_sto_get_feature_info db={}{} = {}", db != nullptr ? "open" : "none",
                   selection(uid, biotype, driver, start, end), list_length(list)));
  return list;
}

int bio_sto_set_feature_info(sqlite3* db, feature_info* info) {
  const int result = NEXT(bio_sto_set_feature_info)(db, info);
  std::vector<int> slots;
  for (const feature_sample* sample = info->sample; sample != nullptr; sample = sample->next)
    slots.push_back(sample->no);
  note(fmt::format("bio_sto_set_feature_info uid={} index={} name={} no={} = {}", info->uid,
                   info->index, quoted(info->index_name), fmt::join(slots, ","), result));
  return result;
}

int bio_sto_clean_feature_info(sqlite3* db, int uid, int biotype, const char* driver, int start,
                               int end) {
  const int result = NEXT(bio_sto_clean_feature_info)(db, uid, biotype, driver, start, end);
  note(fmt::format("bio_sto_clean_feature_info{} = {}", selection(uid, biotype, driver, start, end),
                   result));
  return result;
}

void bio_sto_free_feature_info_list(feature_info* info) {
  note("bio_sto_free_feature_info_list");
  NEXT(bio_sto_free_feature_info_list)(info);
}

void print_feature_info(feature_info* info) {
  note(fmt::format("print_feature_info {}", list_length(info)));
}

#define SPY_ON_PRINTER(printer)                        \
  void printer(const char* format, ...) {              \
    va_list arguments;                                 \
    va_start(arguments, format);                       \
    note(#printer " " + formatted(format, arguments)); \
    va_end(arguments);                                 \
  }
SPY_ON_PRINTER(bio_print_debug)
SPY_ON_PRINTER(bio_print_info)

}  // extern "C"
