// SPDX-License-Identifier: LGPL-2.1-or-later
// wrx-session: hosts the plug-in as a service does, one process for many calls, told what to call
// by lines of standard input. After each call it writes a line with the driver's three words:
//
//   enroll: returned 0 status 0 result 200 notify 200
//
// Verbs: start, discover, open, close, enroll UID INDEX NAME, verify UID INDEX,
// identify UID FIRST LAST, clean UID FIRST LAST, sleep MS. The driver's own output goes to a file.
//
//   wrx-session TRACE DATABASE [SCRIPT WIRE]
#include <fmt/core.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "host/common/folders.h"
#include "host/common/plugin_host.h"
#include "session.h"

namespace wrx::system_test {
namespace {

/// A call with up to two numbers and a name behind the user.
struct Call {
  int uid = 0, first = 0, last = -1;
  std::string name;
};

int make(const std::string& verb, host::PluginHost& host, Call& call) {
  bio_dev* device = &host.device();
  if (verb == "discover") return host.discover();
  if (verb == "open") return device->ops_open(device);
  if (verb == "enroll")
    return device->ops_enroll(device, ACTION_START, call.uid, call.first, call.name.data());
  if (verb == "verify") return device->ops_verify(device, ACTION_START, call.uid, call.first);
  if (verb == "identify")
    return device->ops_identify(device, ACTION_START, call.uid, call.first, call.last);
  if (verb == "clean")
    return device->ops_clean(device, ACTION_START, call.uid, call.first, call.last);
  if (verb == "start") {
    host.initialise();
  } else if (verb == "close") {
    device->ops_close(device);
  } else if (verb == "sleep") {
    std::this_thread::sleep_for(std::chrono::milliseconds(call.uid));
  } else {
    throw std::invalid_argument("no verb \"" + verb + "\"");
  }
  return 0;
}

void obey(host::PluginHost& host, const std::string& line, std::FILE* answers) {
  std::istringstream words(line);
  std::string verb, text;
  Call call;
  words >> verb >> call.uid >> call.first >> text;
  if (verb == "enroll") {
    call.name = text;
  } else if (!text.empty()) {
    call.last = std::stoi(text);
  }
  const int returned = make(verb, host, call);
  bio_dev* device = &host.device();
  fmt::print(answers, "{}: returned {} status {} result {} notify {}\n", verb, returned,
             bio_get_dev_status(device), bio_get_ops_result(device), bio_get_notify_mid(device));
  std::fflush(answers);
}

int run(int argc, char** argv) {
  if (argc != 3 && argc != 5) {
    fmt::print(stderr, "usage: wrx-session TRACE DATABASE [SCRIPT WIRE]\n");
    return 2;
  }
  const bool folders = host::make_folder_of(argv[1]) && host::make_folder_of(argv[2]);
  std::FILE* answers = fdopen(dup(STDOUT_FILENO), "w");
  const bool placed = place_module(argc == 5 ? argv[3] : "", argc == 5 ? argv[4] : "");
  if (!folders || answers == nullptr || !placed || std::freopen(argv[1], "a", stdout) == nullptr)
    return 2;
  bio_host_set_db_path(argv[2]);
  host::PluginHost host(host::default_plugin(), host::default_config());
  for (std::string line; std::getline(std::cin, line);)
    obey(host, line, answers);
  return 0;
}

}  // namespace
}  // namespace wrx::system_test

int main(int argc, char** argv) {
  try {
    return wrx::system_test::run(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "wrx-session: {}\n", error.what());
    return 1;
  }
}
