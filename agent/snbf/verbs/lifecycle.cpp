// SPDX-License-Identifier: GPL-2.0-only
// snbf start, stop and detach.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "boot_files.h"
#include "command.h"
#include "driver.h"
#include "failure.h"
#include "output.h"
#include "snaps.h"
#include "start.h"
#include "values.h"

namespace snbf {

namespace {

constexpr auto kRetry = std::chrono::milliseconds(200);
constexpr int kProbes = 10;  // so often may udev be what holds it

struct Options {
  std::string node;
  bool all = false;
  bool wait = false;
  double wait_limit_s = 60;
  bool no_resume = false;
  bool yes = false;
  bool forget = false;
  bool dry_run = false;
};

Failure busy(const snbf_info& node, const std::string& doing) {
  std::string who = joined(holders_of(device_of(node_path(node))));
  if (who.empty()) who = "held from somewhere that cannot be seen from here";
  return {kBusy, fmt::format("{} {}: it is in use: {}", doing, node.name, who),
          "close or unmount it, or wait for that with --wait", -EBUSY};
}

// udev looks into a node for a moment when it has been started.
bool is_probed(const snbf_info& node) {
  const auto holders = holders_of(device_of(node_path(node)));
  return std::all_of(holders.begin(), holders.end(), [](const std::string& holder) {
    return holder.rfind("open in (udev-worker)", 0) == 0 ||
           holder.rfind("open in systemd-udevd", 0) == 0;
  });
}

// Runs `step` until it is no longer refused as busy, as long as --wait allows.
void end_with(const Options& options, const snbf_info& node, const std::string& doing,
              int (*step)(libsnbf*, uint32_t), const Driver& driver) {
  const auto give_up = std::chrono::steady_clock::now() + milliseconds_of(options.wait_limit_s);
  int rc;
  bool told = false;
  for (int probes = 0; (rc = step(driver.get(), node.minor)) == -EBUSY; ++probes) {
    if (probes == kProbes || !is_probed(node)) break;
    std::this_thread::sleep_for(kRetry);
  }
  while (rc == -EBUSY && (rc = step(driver.get(), node.minor)) == -EBUSY) {
    if (!options.wait || std::chrono::steady_clock::now() >= give_up) throw busy(node, doing);
    if (!told) note(fmt::format("waiting: {}", busy(node, doing).what()));
    told = true;
    std::this_thread::sleep_for(kRetry);
  }
  must(rc, fmt::format("{} {}", doing, node.name));
}

int rehearse_start(const Driver& driver, const snbf_info& node, const Options& options) {
  if (node.started) must(-EALREADY, fmt::format("starting {}", node.name));
  std::vector<std::string> resumed;
  std::vector<std::string> lost;
  for (const Snap& snap : snaps_of(driver, node)) {
    if (snap.record.temporary) continue;
    const bool comes_back = snap.state() == "resumable" && !options.no_resume;
    (comes_back ? resumed : lost).push_back(snap.name());
  }
  note(fmt::format("would start {}{}", node.name,
                   resumed.empty() ? "" : ", and resume its snaps: " + joined(resumed)));
  if (!lost.empty()) note("these snaps would be of no use any more: " + joined(lost));
  return kDone;
}

int start(const Options& options) {
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  if (options.dry_run) {
    return rehearse_start(driver, node, options);
  }
  return start_node(driver, node, !options.no_resume);
}

// What ends a node: its words, and the library's function.
struct Ending {
  const char* verb;
  const char* doing;
  const char* done;
  bool takes_snaps;
  int (*step)(libsnbf*, uint32_t);
};

void refuse_to_take(const Driver& driver, const snbf_info& node) {
  std::vector<std::string> names;
  for (const Snap& snap : snaps_of(driver, node)) {
    if (snap.node && !snap.record.temporary) names.push_back(snap.name());
  }
  if (names.empty()) return;
  throw Failure(kUnsafe,
                fmt::format("detaching {} would delete its snaps: {}", node.name, joined(names)),
                "`snbf stop` keeps them, to be resumed; --yes deletes them");
}

void end_one(const Options& options, const snbf_info& node, const Ending& ending,
             const Driver& driver) {
  if (ending.takes_snaps && !options.yes) refuse_to_take(driver, node);
  if (options.dry_run) {
    if (node.use_cnt > 0 && !options.wait) throw busy(node, ending.doing);
    note(fmt::format("would {}{} {}{}", node.use_cnt > 0 ? "wait, and then " : "", ending.verb,
                     node.name,
                     node.snap_cnt ? fmt::format(" and its {} snaps", node.snap_cnt) : ""));
    return;
  }
  end_with(options, node, ending.doing, ending.step, driver);
  note(fmt::format("{} is {}; its bitmaps are saved in {}", node.name, ending.done,
                   bmp_dir_of(node)));
}

// One that is refused does not keep the others from a clean end; the last refusal is the answer.
int end_all(const Options& options, const Ending& ending, const Driver& driver) {
  int status = kDone;
  for (const snbf_info& node : driver.filters()) {
    try {
      end_one(options, node, ending, driver);
    } catch (const Failure& failure) {
      warn(failure.what());
      status = failure.status();
    }
  }
  return status;
}

int end(const Options& options, const Ending& ending) {
  if (options.all == !options.node.empty()) {
    throw Failure(kMisused, fmt::format("{} needs a node, or --all", ending.verb));
  }
  const Driver driver;
  if (options.all) return end_all(options, ending, driver);
  end_one(options, driver.find(options.node), ending, driver);
  return kDone;
}

int stop(const Options& options) {
  return end(options, {"stop", "stopping", "stopped", false, libsnbf_stop});
}

int forget(const Options& options, const std::string& name) {
  if (options.dry_run) {
    note(fmt::format("would remove the line of {} from {}", name, kBootFile));
    return kDone;
  }
  if (!drop_boot_node(name)) {
    warn(fmt::format("{} has no line of {}", kBootFile, name));
    return kWarned;
  }
  tell_systemd("");
  note(fmt::format("{} comes up at boot no more", name));
  return kDone;
}

// A node that is not there can be forgotten too: its disk may be gone for good.
int detach_and_forget(const Options& options) {
  if (options.all) throw Failure(kMisused, "--forget needs a node", "name it");
  std::string name = options.node;
  try {
    const Driver driver;
    const snbf_info node = driver.find(options.node);
    name = node.name;
    end_one(options, node, {"detach", "detaching", "detached", true, libsnbf_detach}, driver);
  } catch (const Failure& failure) {
    const bool known = boot_node_of(read_boot_nodes().nodes, name) != nullptr;
    if (!known || failure.status() == kBusy || failure.status() == kUnsafe) throw;
    note(failure.what());
  }
  return forget(options, name);
}

int detach(const Options& options) {
  if (options.forget) return detach_and_forget(options);
  return end(options, {"detach", "detaching", "detached", true, libsnbf_detach});
}

void add_ending(CLI::App* verb, Options& options) {
  verb->get_option("node")->required(false);
  verb->add_flag("--all", options.all, "All nodes, as at a shutdown");
  verb->add_flag("--wait", options.wait, "Wait while it is in use");
  verb->add_option("--timeout", options.wait_limit_s,
                   "Time that --wait waits, such as 30s or 2m (default 1m)")
      ->transform(seconds_between(0, kWaitMost_s));
}

CLI::App* add(CLI::App& app, Chosen& chosen, const char* name, const char* summary,
              const char* examples, std::shared_ptr<Options> options,
              int (*handler)(const Options&)) {
  CLI::App* verb = add_verb(app, chosen, name, summary, examples, options, handler);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  return verb;
}

}  // namespace

void add_start(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb =
      add(app, chosen, "start", "Let the node pass and track requests, and resume its snaps",
          "Example:\n  snbf start data\n"
          "Snaps that were stopped with the node are resumed with it; once it has been "
          "started\nwithout them they are of no use any more.",
          options, start);
  verb->add_flag("--no-resume", options->no_resume, "Give those snaps up");
}

void add_stop(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  add_ending(add(app, chosen, "stop", "Stop the node and save its bitmaps",
                 "Example:\n  umount /srv/data && snbf stop data", options, stop),
             *options);
}

void add_detach(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add(app, chosen, "detach", "Stop the node, save its bitmaps and take it away",
                       "Example:\n  umount /srv/data && snbf detach data --wait", options, detach);
  add_ending(verb, *options);
  verb->add_flag("--forget", options->forget, "And do not bring it up at boot any more");
  verb->add_flag("--yes", options->yes, "Although its snaps are deleted with it");
}

}  // namespace snbf
