// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The bench: one process-wide USB bus with the devices attached to it, the clock they live by, the
// fault plan, the trace and the scripts. The in-process front end serves it under libusb's names;
// tests set it up and look at it.
//
// One lock guards all of it and is released while anybody waits or sleeps. Code outside that
// touches an attached device while the driver may be using it does so inside locked().
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "module/device/clock.h"
#include "module/device/device.h"
#include "module/play/faults.h"
#include "module/play/player.h"
#include "module/play/script.h"
#include "module/usb/trace.h"
#include "module/usb/transfer.h"

namespace wrx_module {

/// What the host side holds and must give back.
struct LiveCounts {
  int contexts = 0;  ///< libusb_init without libusb_exit
  int lists = 0;
  int device_references = 0;  ///< each listed device is one, and one more for each handle of it
  int handles = 0;
  int configurations = 0;
};

/// Calls that can be made to fail.
enum class Call {
  init,
  device_list,
  device_descriptor,
  configuration_descriptor,
  open,
  port_numbers,
  claim,
  detach,
  count_,
};

/// One bulk transfer as a host asks for it.
struct BulkRequest {
  Device* device = nullptr;
  uint32_t enumeration = 0;
  uint8_t endpoint = 0;
  std::span<uint8_t> data;
  uint32_t timeout_ms = 0;  ///< 0 = no limit
};
enum class BulkStatus { done, timed_out, stalled, io_error, gone, overflowed };
struct BulkOutcome {
  BulkStatus status = BulkStatus::done;
  size_t moved = 0;
};

class Bus {
 public:
  /// An empty bench on the machine's clock: devices, scripts, faults, trace and counts are gone.
  void reset();

  /// The clock of everything here, which must outlive its use.
  void set_clock(Clock& clock);
  Clock& clock();
  /// Puts a device on the bus, behind those already there. It must stay until detach or reset.
  void attach(Device& device);
  /// Takes it off; transfers that wait for it end as gone.
  void detach(Device& device);
  std::vector<Device*> devices();
  /// Runs a script on an attached device from now on.
  void play(Device& device, Script script);
  FaultPlan& faults() { return faults_; }
  /// Who hears of every transfer and event from now on; empty: nobody.
  void set_trace(TraceSink sink);
  /// Lets the next `times` calls of the kind fail with libusb's `rc` (negative times: all).
  void refuse(Call call, int rc, int times = 1);
  /// What the host holds now.
  LiveCounts live();

  /// When a device or script will do something by itself; kNever if none will. A virtual clock
  /// that steps through these moments, calling advance at each, lets them happen on time.
  int64_t next_event_us();
  /// Lets everything due happen, and traces it.
  void advance();

  /// Runs `change` on the bench alone, then wakes whoever waits.
  void locked(const std::function<void()>& change);
  /// Runs `look` on the bench alone; nobody is woken.
  void look(const std::function<void()>& look);

  // For front ends.

  /// Shows every attached device, in order, under the lock.
  void each(const std::function<void(Device&)>& show);

  /// One bulk transfer, waiting on the clock as long as it takes; not to be called under the lock.
  BulkOutcome transfer(const BulkRequest& request);
  /// The result with which a call of the kind must fail now; 0 when it must not.
  int refusal(Call call);
  /// Changes the counts under the lock.
  void count(const std::function<void(LiveCounts&)>& change);
  /// Whether anybody looks at the trace, so that records need their bytes.
  bool traced();
  /// Stamps the record with the time and hands it to the sink.
  void trace(TraceRecord record);
  /// The number of the next handle, from 1.
  int next_handle();

 private:
  struct Refused {
    int rc = 0;
    int times = 0;
  };
  struct Attached {
    Device* device;
    std::list<Player> players;
  };

  bool is_attached(const Device* device) const;
  void advance_locked();
  void flush_events(std::unique_lock<std::mutex>& lock);
  int64_t next_event_locked();
  BulkOutcome wait_for(BulkTransfer& transfer, const BulkRequest& request,
                       std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  RealClock real_clock_;
  Clock* clock_ = &real_clock_;
  std::list<Attached> attached_;
  FaultPlan faults_;
  TraceSink sink_;
  std::vector<TraceRecord> events_;  // bus events not yet traced
  LiveCounts live_;
  std::array<Refused, static_cast<size_t>(Call::count_)> refused_{};
  int handles_ = 0;
};

/// The one bench of this process.
Bus& bus();

}  // namespace wrx_module
