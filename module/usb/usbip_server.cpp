// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Listening, and the list of connections.
#include "module/usb/usbip_server.h"

#include <arpa/inet.h>
#include <fmt/core.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace wrx_module::usbip {
namespace {

constexpr int kBacklog = 4;
constexpr size_t kMostLinks = 16;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr* generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

Server::Server(Stand& stand, const std::string& address, uint16_t port) : stand_(stand) {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(port);
  errno = EINVAL;
  if (inet_pton(AF_INET, address.c_str(), &place.sin_addr) != 1) fail(address);
  listener_ = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  socklen_t size = sizeof place;
  if (listener_.get() < 0 ||
      setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(listener_.get(), generic(place), size) != 0 || listen(listener_.get(), kBacklog) != 0 ||
      getsockname(listener_.get(), generic(place), &size) != 0)
    fail(address + " port " + std::to_string(port));
  port_ = ntohs(place.sin_port);
}

void Server::watch(std::vector<pollfd>& set) {
  // A full house stays deaf rather than spinning on connections that it cannot take.
  if (links_.size() < kMostLinks) set.push_back({listener_.get(), POLLIN, 0});
  for (Link& link : links_)
    link.watch(set);
}

void Server::serve() {
  while (links_.size() < kMostLinks) {
    Descriptor peer(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (peer.get() < 0) break;
    const int on = 1;
    setsockopt(peer.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    links_.emplace_back(std::move(peer), stand_, [this] { return free(); });
  }
  for (Link& link : links_) {
    link.serve();
    if (link.closed() && !link.complaint().empty())
      fmt::print(stderr, "wrx-module: connection closed: {}\n", link.complaint());
  }
  links_.remove_if([](const Link& link) { return link.closed(); });
}

int64_t Server::next_event_us() {
  int64_t next = kNever;
  for (Link& link : links_)
    next = std::min(next, link.next_event_us());
  return next;
}

bool Server::free() const {
  return std::none_of(links_.begin(), links_.end(),
                      [](const Link& link) { return link.imported() && !link.closed(); });
}

}  // namespace wrx_module::usbip
