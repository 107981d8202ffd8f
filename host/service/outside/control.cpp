// SPDX-License-Identifier: LGPL-2.1-or-later
// The socket for whoever moves the simulated fingers.

#include "host/service/outside/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/common/outcome.h"

namespace wrx::service {
namespace {

using host::Failure;
using host::Outcome;

constexpr std::size_t kLongestRequest = 65536;

/// All that the asker says; only the service's own user can ask, so it may keep the service
/// waiting, if not for long.
std::string read_request(int peer) {
  const timeval patience = {1, 0};
  setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::string request;
  char chunk[1024];
  for (;;) {
    const ssize_t count = read(peer, chunk, sizeof chunk);
    if (count <= 0 || request.size() > kLongestRequest) return request;
    request.append(chunk, static_cast<std::size_t>(count));
  }
}

}  // namespace

Control::Control(EventLoop& loop, const host::Simulation& simulation, const std::string& path)
    : loop_(loop),
      simulation_(simulation),
      path_(path),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path)
    throw Failure(Outcome::Usage, "the control socket's name is too long: " + path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  struct stat left_over {};
  if (lstat(path.c_str(), &left_over) == 0 && S_ISSOCK(left_over.st_mode)) unlink(path.c_str());
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener_, 8) != 0)
    throw Failure(Outcome::Usage, "the control socket " + path + ": " + std::strerror(errno));
  loop_.watch(listener_, [this] { serve(); });
}

Control::~Control() {
  loop_.unwatch(listener_);
  close(listener_);
  unlink(path_.c_str());
}

void Control::serve() {
  const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (peer < 0) return;
  const std::string text = answer(read_request(peer));
  // An asker that does not wait for its answer has none.
  [[maybe_unused]] const ssize_t sent = send(peer, text.data(), text.size(), MSG_NOSIGNAL);
  close(peer);
}

std::string Control::answer(const std::string& request) const {
  const auto end = request.find('\n');
  const std::string verb = request.substr(0, end);
  if (verb == "report") return simulation_.report() + "\n";
  if (verb != "play" || end == std::string::npos) return "error: unknown request\n";
  try {
    simulation_.play(request.substr(end + 1));
    return "ok\n";
  } catch (const Failure& failure) {
    return std::string("error: ") + failure.what() + "\n";
  }
}

}  // namespace wrx::service
