// SPDX-License-Identifier: LGPL-2.1-or-later
//
// Both ends of the control socket.
#include "module/play/control_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "module/play/script.h"

namespace wrx_module {
namespace {

constexpr int kBacklog = 8;
constexpr size_t kMostAskers = 16;
constexpr size_t kLongestRequest = 1u << 20;

[[noreturn]] void fail(const std::string& what, int error = errno) {
  throw std::system_error(error, std::generic_category(), what);
}

sockaddr_un place_of(const std::string& path) {
  sockaddr_un place{};
  place.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof place.sun_path) fail(path, ENAMETOOLONG);
  std::memcpy(place.sun_path, path.data(), path.size());
  return place;
}

const sockaddr* generic(const sockaddr_un& place) {
  return reinterpret_cast<const sockaddr*>(&place);
}

// A connection to whoever serves `path`; not open when nobody does.
Descriptor reach(const std::string& path) {
  const sockaddr_un place = place_of(path);
  Descriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(peer.get(), generic(place), sizeof place) != 0) peer.reset();
  return peer;
}

}  // namespace

std::string answer_request(Stand& stand, const std::string& request) {
  const size_t end = std::min(request.find('\n'), request.size());
  const std::string verb = request.substr(0, end);
  if (verb == "report") return stand.report() + "\n";
  if (verb != "play") return "error: unknown request\n";
  ParsedScript parsed = parse_script(std::string_view(request).substr(end));
  // The first line is the request's own.
  if (parsed.error) {
    --parsed.error->line;
    return "error: " + parsed.error->text() + "\n";
  }
  stand.play(std::move(parsed.script));
  return "ok\n";
}

ControlSocket::ControlSocket(Stand& stand, const std::string& path) : stand_(stand), path_(path) {
  const sockaddr_un place = place_of(path);
  if (reach(path).get() >= 0) fail(path, EADDRINUSE);
  struct stat left_over {};
  if (lstat(path.c_str(), &left_over) == 0 && S_ISSOCK(left_over.st_mode)) unlink(path.c_str());
  listener_ = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (listener_.get() < 0 || bind(listener_.get(), generic(place), sizeof place) != 0 ||
      listen(listener_.get(), kBacklog) != 0)
    fail(path);
}

ControlSocket::~ControlSocket() {
  unlink(path_.c_str());
}

void ControlSocket::watch(std::vector<pollfd>& set) {
  if (askers_.size() < kMostAskers) set.push_back({listener_.get(), POLLIN, 0});
  for (const Asker& asker : askers_)
    set.push_back({asker.socket.get(), static_cast<short>(asker.answered ? POLLOUT : POLLIN), 0});
}

void ControlSocket::serve() {
  while (askers_.size() < kMostAskers) {
    Descriptor peer(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (peer.get() < 0) break;
    askers_.push_back({std::move(peer), {}, {}, false});
  }
  for (Asker& asker : askers_) {
    if (!asker.answered) hear(asker);
    if (asker.answered) say(asker);
  }
  askers_.remove_if([](const Asker& asker) { return asker.socket.get() < 0; });
}

void ControlSocket::hear(Asker& asker) {
  std::array<char, 4096> chunk;
  const ssize_t got = recv(asker.socket.get(), chunk.data(), chunk.size(), 0);
  if (got < 0) {
    if (errno != EAGAIN && errno != EINTR) asker.socket.reset();
    return;
  }
  asker.request.append(chunk.data(), static_cast<size_t>(got));
  if (asker.request.size() > kLongestRequest) return asker.socket.reset();
  if (got > 0) return;
  asker.answer = answer_request(stand_, asker.request);
  asker.answered = true;
}

void ControlSocket::say(Asker& asker) {
  const ssize_t sent =
      send(asker.socket.get(), asker.answer.data(), asker.answer.size(), MSG_NOSIGNAL);
  if (sent < 0 && errno != EAGAIN && errno != EINTR) return asker.socket.reset();
  if (sent > 0) asker.answer.erase(0, static_cast<size_t>(sent));
  if (asker.answer.empty()) asker.socket.reset();
}

std::string ask(const std::string& path, const std::string& request) {
  const Descriptor peer = reach(path);
  if (peer.get() < 0) fail(path);
  for (size_t sent = 0; sent < request.size();) {
    const ssize_t more =
        send(peer.get(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
    if (more < 0) fail(path);
    sent += static_cast<size_t>(more);
  }
  shutdown(peer.get(), SHUT_WR);
  std::string answer;
  std::array<char, 4096> chunk;
  for (ssize_t got; (got = recv(peer.get(), chunk.data(), chunk.size(), 0)) > 0;)
    answer.append(chunk.data(), static_cast<size_t>(got));
  return answer;
}

}  // namespace wrx_module
