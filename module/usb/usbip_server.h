// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module exported over TCP, for `usbip attach` on this machine or another one.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "module/usb/usbip_link.h"

namespace wrx_module::usbip {

inline constexpr uint16_t kPort = 3240;

class Server : public Served {
 public:
  /// Listens on an IPv4 address. Throws std::system_error when that cannot be done. Port 0 lets
  /// the system choose.
  Server(Stand& stand, const std::string& address, uint16_t port);

  void watch(std::vector<pollfd>& set) override;
  void serve() override;
  int64_t next_event_us() override;
  uint16_t port() const { return port_; }

 private:
  bool free() const;

  Stand& stand_;
  Descriptor listener_;
  uint16_t port_ = 0;
  std::list<Link> links_;
};

}  // namespace wrx_module::usbip
