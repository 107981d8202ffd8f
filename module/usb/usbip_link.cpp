// SPDX-License-Identifier: LGPL-2.1-or-later
//
// The connection: bytes in, messages, transfers, bytes out.
#include "module/usb/usbip_link.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace wrx_module::usbip {
namespace {

constexpr size_t kReadBytes = size_t{64} * 1024;
// A peer that does not read its answers gets no further service.
constexpr size_t kMostUnsent = 2 * kLongestTransfer;
constexpr size_t kMostPending = 256;
constexpr uint32_t kBusNumber = 1, kDeviceNumber = 2;
constexpr uint16_t kHighSpeedPacket = 512;

// The error number that the peer's kernel expects for an ending.
int32_t error_of(TransferStatus status) {
  switch (status) {
    case TransferStatus::done:
      return 0;
    case TransferStatus::stalled:
      return -EPIPE;
    case TransferStatus::io_error:
      return -EPROTO;
    case TransferStatus::overflowed:
      return -EOVERFLOW;
    case TransferStatus::gone:
    case TransferStatus::pending:
      break;
  }
  return -ESHUTDOWN;
}

}  // namespace

std::optional<ExportedDevice> exported(Device& device) {
  if (!device.present()) return std::nullopt;
  ExportedDevice shown;
  shown.path = std::string("/sys/devices/wrx-module/usb1/") + kBusId;
  shown.bus_id = kBusId;
  shown.bus_number = kBusNumber;
  shown.device_number = kDeviceNumber;
  shown.speed = device.settings().usb.packet_size >= kHighSpeedPacket ? Speed::high : Speed::full;
  shown.device_descriptor = device.device_descriptor();
  shown.configuration_descriptor = device.configuration_descriptor();
  return shown;
}

Link::Link(Descriptor socket, Stand& stand, std::function<bool()> may_import)
    : socket_(std::move(socket)), stand_(stand), may_import_(std::move(may_import)) {}

Link::Link(Descriptor socket, Stand& stand) : socket_(std::move(socket)), stand_(stand) {
  begin_import();
}

void Link::close(std::string complaint) {
  complaint_ = std::move(complaint);
  pending_.clear();
  socket_.reset();
}

void Link::watch(std::vector<pollfd>& set) {
  if (closed()) return;
  const bool unsent = sent_ < output_.size();
  set.push_back({socket_.get(), static_cast<short>(unsent ? POLLIN | POLLOUT : POLLIN), 0});
}

void Link::serve() {
  if (closed()) return;
  if (imported() && !still_there()) return close();
  const bool peer_there = receive();
  while (!closed() && take_message()) {
  }
  if (closed()) return;
  advance_transfers();
  const bool flushed = flush();
  if (!flushed || !peer_there || (imported() && !still_there())) close();
}

int64_t Link::next_event_us() {
  int64_t next = kNever;
  if (closed()) return next;
  for (Pending& pending : pending_)
    if (pending.transfer) next = std::min(next, pending.transfer->next_event_us());
  return next;
}

bool Link::still_there() {
  const auto presence = stand_.device().present();
  return presence && presence->enumeration == enumeration_;
}

// Reads what has come; false when the peer has ended the connection.
bool Link::receive() {
  std::array<uint8_t, kReadBytes> chunk;
  const ssize_t got = recv(socket_.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
  if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  input_.insert(input_.end(), chunk.begin(), chunk.begin() + got);
  return got > 0;
}

bool Link::flush() {
  while (sent_ < output_.size()) {
    const ssize_t sent =
        send(socket_.get(), output_.data() + sent_, output_.size() - sent_, MSG_NOSIGNAL);
    if (sent < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    sent_ += static_cast<size_t>(sent);
  }
  output_.clear();
  sent_ = 0;
  return true;
}

void Link::put(const Bytes& message) {
  output_.insert(output_.end(), message.begin(), message.end());
  if (output_.size() - sent_ > kMostUnsent) close("the peer does not read its answers");
}

bool Link::take_message() {
  return imported() ? take_urb() : take_request();
}

bool Link::take_request() {
  if (input_.size() < kRequestHeadBytes) return false;
  const auto code = read_request(std::span(input_).first(kRequestHeadBytes));
  if (!code) {
    close("not a USB/IP request");
    return false;
  }
  const bool import = *code == RequestCode::import;
  const size_t whole = kRequestHeadBytes + (import ? kBusIdBytes : 0);
  if (input_.size() < whole) return false;
  const std::string bus_id = read_text(std::span(input_).first(whole).subspan(kRequestHeadBytes));
  input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(whole));
  if (import) {
    import_device(bus_id);
  } else {
    const auto device = exported(stand_.device());
    put(device_list_reply(device ? &*device : nullptr));
  }
  return true;
}

void Link::import_device(const std::string& bus_id) {
  const auto device = exported(stand_.device());
  if (!device || bus_id != kBusId) return put(import_reply(ReplyStatus::no_device, {}));
  if (!may_import_()) return put(import_reply(ReplyStatus::busy, {}));
  put(import_reply(ReplyStatus::ok, *device));
  begin_import();
}

void Link::begin_import() {
  const auto device = exported(stand_.device());
  if (!device) return close();
  devid_ = device->devid();
  enumeration_ = stand_.device().present()->enumeration;
  control_.emplace(stand_.device());
}

bool Link::take_urb() {
  if (input_.size() < kUrbHeadBytes) return false;
  const UrbMessage message = read_urb(std::span(input_).first(kUrbHeadBytes));
  if (!message.submit && !message.unlink) {
    close("not a USB/IP command for this module");
    return false;
  }
  const bool brings_data = message.submit && !message.submit->in;
  const size_t whole = kUrbHeadBytes + (brings_data ? message.submit->length : 0);
  if (input_.size() < whole) return false;
  Bytes taken(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(whole));
  input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(whole));
  if (message.submit) {
    submit(*message.submit, std::span(taken).subspan(kUrbHeadBytes));
  } else {
    unlink(*message.unlink);
  }
  return true;
}

void Link::submit(const Submit& submit, std::span<const uint8_t> data) {
  if (submit.devid != devid_) return close("a command for another device");
  if (submit.endpoint == 0) return control(submit);
  if (pending_.size() >= kMostPending) return close("too many transfers at once");
  Pending pending{submit, Bytes(data.begin(), data.end()), {}};
  pending.data.resize(submit.length);
  pending_.push_back(std::move(pending));
  advance_transfers();  // so that what is done now precedes the next message
}

void Link::control(const Submit& submit) {
  const auto answer = control_->answer(Setup::from(submit.setup));
  if (!answer) return put(submit_reply(submit.seqnum, -EPIPE, 0, {}));
  const size_t moved = submit.in ? std::min(answer->size(), submit.length) : submit.length;
  const std::span<const uint8_t> said(*answer);
  put(submit_reply(submit.seqnum, 0, moved, submit.in ? said.first(moved) : said.first(0)));
}

// A transfer taken back is answered by the unlink's answer alone; one that was faster has been
// answered already.
void Link::unlink(const Unlink& unlink) {
  const auto victim = std::find_if(pending_.begin(), pending_.end(), [&](const Pending& pending) {
    return pending.submit.seqnum == unlink.victim;
  });
  const bool found = victim != pending_.end();
  if (found) pending_.erase(victim);
  put(unlink_reply(unlink.seqnum, found ? -ECONNRESET : 0));
}

bool Link::first_on_endpoint(const Pending& pending) const {
  const auto same = [&](const Pending& each) { return each.address() == pending.address(); };
  return &*std::find_if(pending_.begin(), pending_.end(), same) == &pending;
}

void Link::advance_transfers() {
  for (auto at = pending_.begin(); at != pending_.end();) {
    if (!first_on_endpoint(*at)) {
      ++at;
      continue;
    }
    const int64_t now = stand_.clock().now_us();
    if (!at->transfer)
      at->transfer.emplace(stand_.device(), enumeration_, stand_.faults(), at->address(), at->data,
                           now);
    const TransferStatus status = at->transfer->poll(now);
    if (status == TransferStatus::pending) {
      ++at;
      continue;
    }
    const Pending ended = std::move(*at);
    at = pending_.erase(at);
    finish(ended, status);
    if (closed()) return;
  }
}

void Link::finish(const Pending& pending, TransferStatus status) {
  const size_t moved = pending.transfer->moved();
  const std::span<const uint8_t> data(pending.data);
  put(submit_reply(pending.submit.seqnum, error_of(status), moved,
                   data.first(pending.submit.in ? moved : 0)));
}

}  // namespace wrx_module::usbip
