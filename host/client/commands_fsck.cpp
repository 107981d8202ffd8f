// SPDX-License-Identifier: LGPL-2.1-or-later
// `wrxctl fsck`: brings the module's slots and the stored records back to agreement, or says what
// it would do.

#include "commands.h"
#include "fingers.h"
#include "operations/module_procedures.h"
#include "slots.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

Differences look(Client& client) {
  return compare(read_slots(client.plugin()), client.fingers(kEveryUser, 0, kNoUpperEnd));
}

/// A record whose template is gone can match nothing, and keeps its index and a place of ten.
void remove_records(Client& client, const std::vector<Finger>& records) {
  const bio_dev& device = client.device();
  sqlite3* db = bio_sto_connect_db();
  if (db == nullptr) throw Failure(Outcome::Failed, client.monitor().storeError());
  bool removed = true;
  for (const Finger& record : records)
    removed =
        removed && bio_sto_clean_feature_info(db, record.uid, device.bioinfo.biotype,
                                              device.device_name, record.index, record.index) == 0;
  bio_sto_disconnect_db(db);
  if (!removed) throw Failure(Outcome::Failed, client.monitor().storeError());
}

void erase_templates(const host::PluginHost& plugin, const std::vector<int>& slots) {
  const auto erase = plugin.function<decltype(fp_delete_template)>("fp_delete_template");
  for (const int slot : slots)
    if (erase(static_cast<uint16_t>(slot), 1) != 0)
      throw Failure(Outcome::Failed, tr("the module does not erase slot {}", slot));
}

/// Records first: the other slots of a removed record are orphans then.
Differences repair(Client& client, const Differences& found) {
  if (!found.lost.empty()) remove_records(client, found.lost);
  erase_templates(client.plugin(), look(client).orphans);
  return look(client);
}

std::string verdict(const Options& options, const Differences& found, const Differences& left) {
  if (found.count() == 0) return tr("The module's slots and the records agree.");
  if (!options.repair)
    return tr_n("{} difference; \"wrxctl fsck --repair\" removes what has no other side.",
                "{} differences; \"wrxctl fsck --repair\" removes what has no other side.",
                found.count(), found.count());
  if (left.count() == 0)
    return tr_n("{} difference repaired.", "{} differences repaired.", found.count(),
                found.count());
  return tr_n("{} difference is left, which you must decide.",
              "{} differences are left, which you must decide.", left.count(), left.count());
}

}  // namespace

Report fsck(Client& client) {
  const Options& options = client.options();
  Differences found, left;
  client.run([&] {
    const host::OpenDevice opened(client.plugin());
    found = left = look(client);
    if (options.repair && found.count() != 0) left = repair(client, found);
  });
  nlohmann::json data = object(found);
  data["differences"] = found.count();
  data["left"] = left.count();
  data["repaired"] = options.repair;
  return {left.count() == 0 ? Outcome::Success : Outcome::NoMatch, verdict(options, found, left),
          lines(found), data};
}

}  // namespace wrx::client
