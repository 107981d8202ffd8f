// SPDX-License-Identifier: LGPL-2.1-or-later
//
// One connection to a machine that uses the module over USB/IP. It reads requests, keeps the
// transfers that the module cannot complete yet, takes them back when the machine gives up, and
// ends when the module leaves the bus, when the peer does, or when the peer talks nonsense.
#pragma once

#include <functional>
#include <list>
#include <optional>

#include "module/play/descriptor.h"
#include "module/play/stand.h"
#include "module/usb/transfer.h"
#include "module/usb/usb_control.h"
#include "module/usb/usbip_wire.h"

namespace wrx_module::usbip {

/// The module's place on the bus it pretends to be on.
inline constexpr char kBusId[] = "1-1";

/// What stage 1 tells of the module; none while it is away.
std::optional<ExportedDevice> exported(Device& device);

class Link : public Served {
 public:
  /// Stage 1 on a connected, non-blocking stream socket. `may_import` tells whether the module is
  /// free to be taken.
  Link(Descriptor socket, Stand& stand, std::function<bool()> may_import);
  /// Stage 2 at once, for a machine that knows the module already.
  Link(Descriptor socket, Stand& stand);

  void watch(std::vector<pollfd>& set) override;
  void serve() override;
  int64_t next_event_us() override;
  /// The connection has ended; nothing revives it.
  bool closed() const { return socket_.get() < 0; }
  /// Why it ended, for a log: empty when the module left or the peer closed in good order.
  const std::string& complaint() const { return complaint_; }
  /// The peer uses the module (stage 2).
  bool imported() const { return control_.has_value(); }
  /// The module that the peer imported is still on its bus.
  bool still_there();

 private:
  /// A bulk transfer not yet answered; later ones on its endpoint wait behind it.
  struct Pending {
    Submit submit;
    Bytes data;
    std::optional<BulkTransfer> transfer;  // begun when it is first in its line

    uint8_t address() const {
      return static_cast<uint8_t>(submit.endpoint | (submit.in ? 0x80 : 0));
    }
  };

  void close(std::string complaint = {});
  bool receive();
  bool flush();
  // Takes one message from the input; false when none is complete.
  bool take_message();
  bool take_request();
  bool take_urb();
  void import_device(const std::string& bus_id);
  void begin_import();
  void submit(const Submit& submit, std::span<const uint8_t> data);
  void control(const Submit& submit);
  void unlink(const Unlink& unlink);
  void advance_transfers();
  bool first_on_endpoint(const Pending& pending) const;
  void finish(const Pending& pending, TransferStatus status);
  void put(const Bytes& message);

  Descriptor socket_;
  Stand& stand_;
  std::function<bool()> may_import_;
  std::string complaint_;
  Bytes input_, output_;
  size_t sent_ = 0;  // of output_
  uint32_t enumeration_ = 0, devid_ = 0;
  std::optional<UsbControl> control_;
  std::list<Pending> pending_;
};

}  // namespace wrx_module::usbip
