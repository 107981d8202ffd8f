// SPDX-License-Identifier: LGPL-2.1-or-later
// The doctor's round, and the checks that ask the driver and the module.

#include "doctor.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "commands.h"
#include "fingers.h"
#include "firmware.h"
#include "protocol/procedures.h"
#include "records/fp_device_param.h"
#include "slots.h"
#include "words.h"

namespace wrx::client {
namespace {

using host::Failure;
using host::Outcome;

Finding check_driver(Scene& scene) {
  const bio_dev& device = scene.client.device();
  if (device.enable != 0) return {Health::Ok, tr("{} is loaded and enabled", device.full_name), ""};
  return {Health::Bad, tr("the driver is disabled by its configuration"),
          tr("write Enable=true into the group [{}] of {}", device.device_name,
             scene.client.options().config)};
}

Finding check_identity(Scene& scene) {
  const host::PluginHost& plugin = scene.client.plugin();
  const host::OpenDevice opened(scene.client.plugin());
  plugin.function<decltype(fp_handshake)>("fp_handshake")();
  const auto& state = *plugin.function<FP_DEVICE_PARAM_STRUCT>("fp_device_param");
  const auto version = ask_module(plugin);
  if (state.handshake_state != 1 || !version)
    return {Health::Bad, tr("the module does not answer"),
            tr("pull it out, plug it in again, and type: wrxctl doctor")};
  return {Health::Ok, tr("the module answers; it runs {}", version->text), ""};
}

Finding check_firmware(Scene& scene) {
  FirmwareState state = driver_side(scene.client.plugin());
  state.module = last_heard(scene.client.plugin());
  if (state.module->text.empty()) state.module.reset();
  const FirmwareDecision decision = decide(state);
  const std::string budget =
      tr_n("{} upgrade is allowed", "{} upgrades are allowed",
           static_cast<std::size_t>(std::max(state.budget, 0)), std::max(state.budget, 0));
  if (decision.upgrade)
    return {
        Health::Note,
        tr("{}; the next start rewrites the module's firmware, because {}", budget, decision.why),
        tr("leave the module plugged in, and type: wrxctl init")};
  if (state.budget > 0 && !state.image)
    return {Health::Note, tr("{}, but {}", budget, decision.why), tr("type: wrxctl firmware")};
  return {Health::Ok, tr("{}; the next start rewrites nothing, because {}", budget, decision.why),
          ""};
}

Finding check_database(Scene& scene) {
  const std::string& path = scene.client.options().database;
  const auto records = scene.client.fingers(kEveryUser, 0, kNoUpperEnd);
  const std::string found =
      tr_n("{} record in {}", "{} records in {}", records.size(), records.size(), path);
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && (status.st_mode & 077) != 0)
    return {Health::Note, tr("{}, which others may read or write", found),
            tr("type: chmod 600 {}", path)};
  return {Health::Ok, found, ""};
}

Finding check_slots(Scene& scene) {
  const auto records = scene.client.fingers(kEveryUser, 0, kNoUpperEnd);
  const host::OpenDevice opened(scene.client.plugin());
  const Differences found = compare(read_slots(scene.client.plugin()), records);
  if (found.count() == 0) return {Health::Ok, tr("slots and records agree"), ""};
  return {Health::Bad,
          tr_n("{} difference between slots and records",
               "{} differences between slots and records", found.count(), found.count()),
          tr("type: wrxctl fsck")};
}

struct Row {
  const char* name;  ///< for programs, and the key of the name for people
  Finding (*check)(Scene& scene);
  Outcome outcome;    ///< of a round in which this is the first bad one
  const char* needs;  ///< a row above that must not be bad or skipped; empty: none
};

constexpr Row kRows[] = {
    {N_("driver"), check_driver, Outcome::Refused, ""},
    {N_("bus"), check_bus, Outcome::Absent, ""},
    {N_("rights"), check_rights, Outcome::Absent, "bus"},
    {N_("holder"), check_holder, Outcome::Absent, "rights"},
    {N_("identity"), check_identity, Outcome::Failed, "holder"},
    {N_("power"), check_power, Outcome::Failed, "bus"},
    {N_("framework configuration"), check_framework_config, Outcome::Usage, ""},
    {N_("driver configuration"), check_driver_config, Outcome::Usage, ""},
    {N_("firmware"), check_firmware, Outcome::Failed, ""},
    {N_("database"), check_database, Outcome::Failed, ""},
    {N_("slots"), check_slots, Outcome::NoMatch, "identity"},
};

struct HealthWords {
  const char* name;
  const char* shown;
};
// In the order of Health.
constexpr HealthWords kHealth[] = {
    {"ok", N_("ok")}, {"note", N_("note")}, {"bad", N_("BAD")}, {"skipped", N_("skipped")}};

const HealthWords& words_of(Health health) {
  return kHealth[static_cast<int>(health)];
}

using Findings = std::array<Finding, std::size(kRows)>;

bool passed(const Findings& findings, const char* name) {
  for (std::size_t i = 0; i < findings.size(); ++i)
    if (std::string_view(kRows[i].name) == name)
      return findings[i].health == Health::Ok || findings[i].health == Health::Note;
  return true;
}

Finding look(const Row& row, Scene& scene, const Findings& before) {
  if (!passed(before, row.needs))
    return {Health::Skipped, tr("cannot be looked at before \"{}\" is well", gettext(row.needs)),
            ""};
  // What talks to the module is refused by a driver that is switched off.
  if (std::string_view(row.needs) == "holder" && !passed(before, "driver"))
    return {Health::Skipped, tr("the driver is disabled by its configuration"), ""};
  try {
    return row.check(scene);
  } catch (const Failure& failure) {
    return {Health::Bad, gettext(failure.what()),
            tr("see the trace: {}", scene.client.options().trace), failure.outcome()};
  }
}

Report report_of(const Findings& findings) {
  Report report;
  nlohmann::json checks = nlohmann::json::array();
  std::size_t bad = 0;
  for (std::size_t i = 0; i < findings.size(); ++i) {
    const Finding& finding = findings[i];
    const HealthWords& health = words_of(finding.health);
    checks.push_back({{"check", kRows[i].name},
                      {"health", health.name},
                      {"found", finding.found},
                      {"advice", finding.advice}});
    report.body +=
        fmt::format("{:8} {}: {}\n", gettext(health.shown), gettext(kRows[i].name), finding.found);
    if (!finding.advice.empty()) report.body += fmt::format("{:8} -> {}\n", "", finding.advice);
    if (finding.health == Health::Bad && ++bad == 1)
      report.outcome = finding.outcome.value_or(kRows[i].outcome);
  }
  report.text = bad == 0 ? tr("Nothing is amiss.")
                         : tr_n("{} thing is amiss", "{} things are amiss", bad, bad);
  report.data = {{"checks", checks}, {"bad", bad}};
  return report;
}

}  // namespace

Report doctor(Client& client) {
  Scene scene{client};
  Findings findings;
  client.run([&] {
    for (std::size_t i = 0; i < std::size(kRows) && !client.stopRequested(); ++i)
      findings[i] = look(kRows[i], scene, findings);
  });
  if (client.stopRequested()) throw Failure(Outcome::Stopped, tr("stopped"));
  return report_of(findings);
}

}  // namespace wrx::client
