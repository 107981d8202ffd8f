// SPDX-License-Identifier: LGPL-2.1-or-later
// One static page for support: operation, transfer, fault → what the user is told, how long it
// took, the state after, and the trace. A symptom can be looked up backwards.
#pragma once

#include <memory>
#include <string>

#include "sweep/cell.h"

namespace sweep {

class Page {
 public:
  Page();
  ~Page();
  void add(const Cell& cell, const Outcome& outcome);
  /// Writes the page; false when that fails.
  bool write(const std::string& path) const;

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace sweep
