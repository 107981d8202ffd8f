// SPDX-License-Identifier: LGPL-2.1-or-later
// The USB/IP front end's socket: network input. The first byte says whether the peer has imported
// the module already.
#include <fcntl.h>
#include <sys/socket.h>

#include "fuzz/scratch.h"
#include "module/usb/usbip_link.h"
#include "support/virtual_clock.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace usbip = wrx_module::usbip;
  wrx_fuzz::Input input(data, size);
  const bool imported = (input.byte() & 1) != 0;
  wrx_test::VirtualClock clock;
  wrx_module::Stand stand(clock, {}, wrx_module::factory_memory(100));
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) std::abort();
  const wrx_module::Descriptor peer(ends[0]);
  {
    wrx_module::Descriptor own(ends[1]);
    usbip::Link link = imported ? usbip::Link(std::move(own), stand)
                                : usbip::Link(std::move(own), stand, [] { return true; });
    while (!input.empty() && !link.closed()) {
      const std::string_view part = input.bytes(512);
      if (send(peer.get(), part.data(), part.size(), MSG_NOSIGNAL) < 0) break;
      link.serve();
      clock.sleep_us(1000);
      stand.advance();
      char answer[4096];
      while (recv(peer.get(), answer, sizeof answer, 0) > 0) {
      }
    }
  }
  return 0;
}
