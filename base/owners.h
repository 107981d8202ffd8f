// SPDX-License-Identifier: LGPL-2.1-or-later
// Owners of what the C libraries hand out: released by scope.
#pragma once

#include <glib.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace wrx {

template <auto release>
struct Releaser {
  template <typename T>
  void operator()(T* resource) const {
    release(resource);
  }
};

using KeyFile = std::unique_ptr<GKeyFile, Releaser<g_key_file_free>>;
using Text = std::unique_ptr<gchar, Releaser<g_free>>;
using File = std::unique_ptr<std::FILE, Releaser<std::fclose>>;
using Bytes = std::unique_ptr<char, Releaser<std::free>>;

/// A GLib error that a call may set: pass `out()`, test with `if (error)`.
class Error {
 public:
  Error() = default;
  Error(const Error&) = delete;
  Error& operator=(const Error&) = delete;
  ~Error() { g_clear_error(&error_); }

  GError** out() { return &error_; }
  explicit operator bool() const { return error_ != nullptr; }
  int code() const { return error_->code; }
  const char* message() const { return error_->message; }

 private:
  GError* error_ = nullptr;
};

}  // namespace wrx
