// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The module on this machine's own bus: one end of a socket pair is handed to the kernel's virtual
// host controller (module vhci-hcd), the other served here. When the module leaves its bus the
// socket is closed, which the kernel takes for an unplugged device; when it appears again, perhaps
// as its bootloader, it is attached anew to the same port.
#pragma once

#include <optional>
#include <string>

#include "module/usb/usbip_link.h"

namespace wrx_module::usbip {

inline constexpr char kVhciFolder[] = "/sys/devices/platform/vhci_hcd.0";

/// The ports of the controller's status text that a full- or high-speed device may take now.
std::vector<unsigned> free_ports(std::string_view status);

class VhciPort : public Served {
 public:
  /// Takes `port`, or the first free one. Throws std::runtime_error when the controller is not
  /// there or has no such port free.
  VhciPort(Stand& stand, std::string folder, std::optional<unsigned> port);

  void watch(std::vector<pollfd>& set) override;
  /// Throws std::runtime_error when the machine detaches the module or refuses it.
  void serve() override;
  int64_t next_event_us() override;
  unsigned port() const { return port_; }

 private:
  void attach(const ExportedDevice& device);
  bool port_is_free() const;

  Stand& stand_;
  std::string folder_;
  unsigned port_ = 0;
  std::optional<Link> link_;
  bool waiting_ = false;  // for the kernel to let go of the port
};

}  // namespace wrx_module::usbip
