// SPDX-License-Identifier: LGPL-2.1-or-later
// Keeps the program's own standard output apart from the driver's. The driver prints its trace on
// descriptor 1; before it is loaded, that descriptor is turned to a file, and the program goes on
// with a copy of its own.
#pragma once

#include <cstdio>
#include <string>

namespace wrx::client {

class Streams {
 public:
  /// Turns standard output to `trace`. A trace file that nobody named and that cannot be made is
  /// done without. Throws host::Failure when a named one cannot be made.
  Streams(const std::string& trace, bool named);
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;
  ~Streams();

  /// The program's own standard output.
  FILE* own() { return own_; }
  bool terminal() const { return terminal_; }

 private:
  FILE* own_;
  bool terminal_;
};

}  // namespace wrx::client
