// SPDX-License-Identifier: LGPL-2.1-or-later
// The steps that commands share.

#include "client.h"

#include "doctor.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

constexpr std::chrono::milliseconds kTick{100};

}  // namespace

std::string no_module() {
  return tr("no module was found; is it plugged in, and may you use it? (see \"wrxctl doctor\")");
}

std::vector<Finger> taken(feature_info* list) {
  std::vector<Finger> fingers;
  for (const feature_info* info = list; info != nullptr; info = info->next) {
    Finger finger{info->uid, info->index, info->index_name, {}};
    for (const feature_sample* sample = info->sample; sample != nullptr; sample = sample->next)
      finger.slots.push_back(sample->no);
    fingers.push_back(std::move(finger));
  }
  bio_sto_free_feature_info_list(list);
  return fingers;
}

Client::Client(const Options& options, Output& output)
    : options_(options),
      output_(output),
      monitor_(output),
      worker_([this] { plugin_->stop(); }, [this] { watch(); }, kTick) {
  bio_host_set_db_path(options.database.c_str());
  if (options.timeout_ms) bio_host_set_ops_timeout_ms(*options.timeout_ms);
  if (options.simulate)
    simulation_ = std::make_unique<host::Simulation>(options.script, options.templates);
  // The doctor wants to say more of a damaged configuration than that it is damaged.
  const bool done_without = options.command == Command::Doctor && !readable_config(options.config);
  plugin_ = std::make_unique<host::PluginHost>(options.plugin, done_without ? "" : options.config);
}

Client::~Client() = default;

void Client::run(const std::function<void()>& task) {
  worker_.run(task);
}

void Client::setDeadline(std::optional<int> timeout_ms) {
  deadline_ =
      timeout_ms ? Clock::now() + std::chrono::milliseconds(*timeout_ms) : Clock::time_point::max();
}

void Client::watch() {
  if (Clock::now() >= deadline_.load()) {
    setDeadline({});
    timed_out_ = true;
    worker_.requestStop();
  }
  if (tick_) tick_();
}

host::Outcome Client::operate(const std::string& prompt,
                              const std::function<void(bio_dev&)>& operation) {
  requireDatabase();
  run([this] {
    plugin_->initialise();
    if (plugin_->discover() < 1) throw Failure(Outcome::Absent, no_module());
  });
  run([&] {
    const host::OpenDevice opened(*plugin_);
    if (stopRequested()) throw Failure(Outcome::Stopped, tr("stopped before the operation began"));
    if (!prompt.empty()) output_.note(prompt);
    operation(device());
  });
  const Outcome ended = outcome();
  const bool silent = ended == Outcome::TimedOut || ended == Outcome::Failed || monitor_.full() ||
                      monitor_.silent();
  return silent && moduleIsGone() ? Outcome::Absent : ended;
}

bool Client::moduleIsGone() {
  // To the driver, a module that was pulled out is one that stays silent. The worker runs nothing
  // any more when the time was up.
  if (stopRequested() && !timed_out_) return false;
  return plugin_->discover() < 1;
}

host::Outcome Client::consult(const std::function<void(bio_dev&)>& operation) {
  requireDatabase();
  run([this, &operation] { operation(device()); });
  return outcome();
}

host::Outcome Client::outcome() {
  if (const std::string error = monitor_.storeError(); !error.empty())
    throw Failure(Outcome::Failed, error);
  const Outcome ended =
      host::outcome_of_result(bio_get_ops_result(&device()), device().enable != 0);
  return ended == Outcome::Stopped && timed_out_ ? Outcome::TimedOut : ended;
}

void Client::requireDatabase() {
  // The driver takes a database that cannot be read for an empty one, and would then erase the
  // module's templates as nobody's. So it is not begun with one.
  sqlite3* db = bio_sto_connect_db();
  if (db == nullptr) throw Failure(Outcome::Failed, monitor_.storeError());
  bio_sto_disconnect_db(db);
}

std::vector<Finger> Client::fingers(int uid, int first, int last) {
  requireDatabase();
  sqlite3* db = bio_sto_connect_db();
  feature_info* list = nullptr;
  const int code = bio_host_read_features(db, uid, device().bioinfo.biotype, device().device_name,
                                          first, last, &list);
  bio_sto_disconnect_db(db);
  if (code != 0) throw Failure(Outcome::Failed, monitor_.storeError());
  return taken(list);
}

std::string Client::simulatedState() const {
  return simulation_ ? simulation_->report() : std::string();
}

void Client::finish() {
  if (simulation_) simulation_->finish();
}

}  // namespace wrx::client
