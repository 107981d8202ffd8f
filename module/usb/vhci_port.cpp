// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Attaching through the controller's sysfs files.
#include "module/usb/vhci_port.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace wrx_module::usbip {
namespace {

// The kernel gives a port back on a thread of its own, some milliseconds after the socket closes.
constexpr int64_t kAskAgainUs = 10'000;
constexpr char kFreeState[] = "004";
constexpr char kHighSpeedHub[] = "hs";

std::string read_file(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

std::vector<unsigned> free_ports(std::string_view status) {
  // hub port sta spd dev      sockfd local_busid
  // hs  0000 004 000 00000000 000000 0-0
  std::vector<unsigned> ports;
  std::istringstream lines{std::string(status)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string hub, state;
    unsigned port = 0;
    if (words >> hub >> port >> state && hub == kHighSpeedHub && state == kFreeState)
      ports.push_back(port);
  }
  return ports;
}

VhciPort::VhciPort(Stand& stand, std::string folder, std::optional<unsigned> port)
    : stand_(stand), folder_(std::move(folder)) {
  const std::string status = read_file(folder_ + "/status");
  if (status.empty())
    throw std::runtime_error("no virtual host controller at " + folder_ +
                             "; load the kernel module vhci-hcd");
  const std::vector<unsigned> ports = free_ports(status);
  if (ports.empty()) throw std::runtime_error("every port of the controller is taken");
  port_ = port.value_or(ports.front());
  if (std::find(ports.begin(), ports.end(), port_) == ports.end())
    throw std::runtime_error(fmt::format("port {} of the controller is not free", port_));
}

void VhciPort::watch(std::vector<pollfd>& set) {
  if (link_) link_->watch(set);
}

int64_t VhciPort::next_event_us() {
  const int64_t again = waiting_ ? stand_.clock().now_us() + kAskAgainUs : kNever;
  return link_ ? link_->next_event_us() : again;
}

void VhciPort::serve() {
  if (link_) {
    link_->serve();
    if (!link_->closed()) return;
    if (!link_->complaint().empty()) throw std::runtime_error(link_->complaint());
    if (link_->still_there()) throw std::runtime_error("the machine has detached the module");
    link_.reset();
  }
  const auto device = exported(stand_.device());
  waiting_ = device && !port_is_free();
  if (device && !waiting_) attach(*device);
}

bool VhciPort::port_is_free() const {
  const std::vector<unsigned> ports = free_ports(read_file(folder_ + "/status"));
  return std::find(ports.begin(), ports.end(), port_) != ports.end();
}

void VhciPort::attach(const ExportedDevice& device) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0)
    throw std::runtime_error(std::string("socket pair: ") + std::strerror(errno));
  Descriptor ours(pair[0]);
  const Descriptor kernels(pair[1]);
  // Only this end: the kernel waits on its own.
  fcntl(ours.get(), F_SETFL, O_NONBLOCK);
  const std::string words = fmt::format("{} {} {} {}", port_, kernels.get(), device.devid(),
                                        static_cast<uint32_t>(device.speed));
  const Descriptor file(open((folder_ + "/attach").c_str(), O_WRONLY | O_CLOEXEC));
  if (file.get() < 0 || write(file.get(), words.data(), words.size()) < 0)
    throw std::runtime_error("the controller refuses the module: " +
                             std::string(std::strerror(errno)));
  link_.emplace(std::move(ours), stand_);
}

}  // namespace wrx_module::usbip
