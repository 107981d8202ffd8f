// SPDX-License-Identifier: LGPL-2.1-or-later
// The simulated module's library, loaded at run time so that a program without --simulate has
// nothing of it.

#include "simulation.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstring>

#include "folders.h"
#include "module/usb/simulate.h"
#include "outcome.h"

namespace wrx::host {
namespace {

template <class Function>
Function* function(void* library, const char* name) {
  void* address = dlsym(library, name);
  if (address == nullptr)
    throw Failure(Outcome::Failed, std::string("the simulated module has no function ") + name);
  return reinterpret_cast<Function*>(address);
}

}  // namespace

Simulation::Simulation(const std::string& script, const std::string& templates)
    : library_(dlopen(module_library().c_str(), RTLD_NOW | RTLD_GLOBAL)) {
  if (library_ == nullptr)
    throw Failure(Outcome::Failed,
                  std::string("the simulated module cannot be loaded: ") + dlerror());
  if (!make_folder_of(templates))
    throw Failure(Outcome::Usage,
                  "the folder of " + templates + " cannot be made: " + std::strerror(errno));
  char error[512] = "";
  const auto start = function<decltype(wrx_simulate_start)>(library_, "wrx_simulate_start");
  if (start(script.c_str(), templates.c_str(), error, sizeof error) != 0)
    throw Failure(Outcome::Usage, std::string("the simulated module: ") + error);
  running_ = true;
}

Simulation::~Simulation() {
  try {
    finish();
  } catch (const Failure&) {
  }
}

std::string Simulation::report() const {
  const auto ask = function<decltype(wrx_simulate_report)>(library_, "wrx_simulate_report");
  std::string text(4096, '\0');
  int length = ask(text.data(), text.size());
  if (length >= static_cast<int>(text.size())) {
    text.resize(static_cast<std::size_t>(length) + 1);
    length = ask(text.data(), text.size());
  }
  text.resize(std::strlen(text.c_str()));
  return length < 0 ? "" : text;
}

void Simulation::play(const std::string& script) const {
  char error[512] = "";
  const auto play = function<decltype(wrx_simulate_play)>(library_, "wrx_simulate_play");
  if (play(script.c_str(), error, sizeof error) != 0)
    throw Failure(Outcome::Usage, std::string("the simulated module: ") + error);
}

void Simulation::finish() {
  if (!running_) return;
  running_ = false;
  char error[512] = "";
  const auto end = function<decltype(wrx_simulate_finish)>(library_, "wrx_simulate_finish");
  if (end(error, sizeof error) != 0)
    throw Failure(Outcome::Failed, std::string("the simulated module: ") + error);
}

}  // namespace wrx::host
