// SPDX-License-Identifier: LGPL-2.1-or-later
// The driver prints its trace on standard output. It goes to a file that only the service's user
// can read: a trace holds user ids, finger names, slots, the serial number and pieces of an image.
#pragma once

#include <string>

namespace wrx::service {

class Trace {
 public:
  /// Turns standard output to `path`, after what is there already. Throws host::Failure.
  explicit Trace(const std::string& path);

  /// Keeps a long trace under another name and begins a new one. Not while the driver works.
  void rotate();

 private:
  void begin();

  std::string path_;
};

}  // namespace wrx::service
