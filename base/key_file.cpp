// SPDX-License-Identifier: LGPL-2.1-or-later
#include "base/key_file.h"

#include <libintl.h>

namespace wrx {

void log_error(const Error& error, CallSite site) {
  WRX_LOG(site, gettext("Error[%d]: %s\n"), error.code(), error.message());
}

KeyFile load_key_file(const char* path, CallSite site) {
  KeyFile file(g_key_file_new());
  Error error;
  constexpr auto kKeep =
      static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  g_key_file_load_from_file(file.get(), path, kKeep, error.out());
  if (!error) return file;
  log_error(error, site);
  return nullptr;
}

bool read_integer(GKeyFile* file, const char* group, const char* key, int32_t& value,
                  CallSite site) {
  Error error;
  value = g_key_file_get_integer(file, group, key, error.out());
  if (!error) return true;
  log_error(error, site);
  value = 0;
  return false;
}

int32_t integer_or_0(GKeyFile* file, const char* group, const char* key, CallSite site) {
  int32_t value = 0;
  read_integer(file, group, key, value, site);
  return value;
}

bool can_be_written(GKeyFile* file, Error& error) {
  const Text text(g_key_file_to_data(file, nullptr, error.out()));
  return !error;
}

}  // namespace wrx
