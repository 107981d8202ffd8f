// SPDX-License-Identifier: LGPL-2.1-or-later
//
// A file descriptor that is closed by its owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace wrx_module {

/// An owned descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() { reset(); }
  int get() const { return fd_; }
  /// Closes it, if it is open.
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

}  // namespace wrx_module
