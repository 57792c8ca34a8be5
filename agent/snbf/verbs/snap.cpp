// SPDX-License-Identifier: GPL-2.0-only
// snbf snap create, delete and resume.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>

#include "command.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "reasons.h"
#include "sizes.h"
#include "snaps.h"

namespace snbf {

void add_snap_list(CLI::App& app, Chosen& chosen);

namespace {

struct CreateOptions {
  std::string node;
  std::string cow;
  std::string chunk;
  std::string name;
  bool yes = false;
  bool dry_run = false;
  bool json = false;
};

struct DeleteOptions {
  std::vector<std::string> snaps;
  std::string all_of;
  bool yes = false;
  bool dry_run = false;
};

struct ResumeOptions {
  std::string node;
  bool dry_run = false;
  bool json = false;
};

uint32_t parse_chunk(const std::string& text) {
  if (text.empty()) return 0;
  const auto size = parse_size(text);
  if (!size || *size < 4096 || *size > (uint64_t{1} << 30) || (*size & (*size - 1)) != 0) {
    throw Failure(kMisused, fmt::format("{} is no chunk size", text),
                  "use a power of two from 4K to 1G; 64K suits most");
  }
  return static_cast<uint32_t>(*size);
}

// "data-20261121-083000": sorts by time, and says what it is of.
std::string default_name(const snbf_info& node) {
  const time_t now = ::time(nullptr);
  struct tm parts;
  ::gmtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "-%Y%m%d-%H%M%S", &parts);
  return std::string(node.name).substr(0, SNBF_NAME_BYTES - 1 - sizeof text) + text;
}

std::string cow_dir_for(const CreateOptions& options, const Driver& driver, const snbf_info& node) {
  if (!options.cow.empty()) {
    if (!options.dry_run) make_private_folder(options.cow);
    return std::filesystem::weakly_canonical(options.cow);
  }
  std::string why;
  const auto place = find_cow_place(driver, node, {bmp_dir_of(node)}, &why);
  if (place) return place->dir;
  throw Failure(kUnsafe, "no place for the COW files: " + why, "name a directory with --cow");
}

void tell_room(const std::string& dir, const snbf_info& node) {
  const uint64_t free_bytes = free_bytes_in(dir);
  note(fmt::format("{} free in {}; the snap takes what is overwritten from now on, at most {}",
                   show_size(free_bytes), dir, show_size(node.dev_size)));
  if (free_bytes < node.dev_size) {
    note("if that fills up, the snap is lost with all older ones; the writes go on");
  }
}

int rehearse_create(const Driver& driver, const snbf_info& filter, const NewSnap& wanted) {
  const std::string doing = fmt::format("making the snap {}", wanted.name);
  if (!libsnbf_name_is_safe(wanted.name.c_str())) throw failure_of(-EILSEQ, doing);
  if (std::filesystem::exists(wanted.cow_dir)) check_cow_dir(driver, filter, wanted.cow_dir);
  for (const Snap& snap : snaps_of(driver, filter)) {
    if (wanted.name_is_fixed && snap.name() == wanted.name) throw failure_of(-EEXIST, doing);
  }
  note(fmt::format("would make the snap {} of {}, with its COW files in {}", wanted.name,
                   filter.name, wanted.cow_dir));
  return kDone;
}

int create(const CreateOptions& options) {
  const uint32_t chunk = parse_chunk(options.chunk);
  const Driver driver;
  const snbf_info filter = driver.find(options.node);
  NewSnap wanted;
  wanted.chunk_size = chunk;
  wanted.cow_dir = cow_dir_for(options, driver, filter);
  wanted.name_is_fixed = !options.name.empty();
  wanted.name = wanted.name_is_fixed ? options.name : default_name(filter);
  wanted.overwrite = options.yes;
  if (options.dry_run) return rehearse_create(driver, filter, wanted);
  const MadeSnap made = make_snap(driver, filter, wanted);
  const double ms = static_cast<double>(made.start_us) / 1000;
  const bool mounted = !mounts_of(device_of(node_path(filter))).empty();
  if (options.json) {
    print_json({{"name", made.node.name},
                {"minor", made.node.minor},
                {"device", snap_path(made.node)},
                {"uuid", made.node.uuid},
                {"node", filter.name},
                {"chunk_size", made.node.chunk_size},
                {"cow_data_file", made.node.cow_data_fname},
                {"cow_bitmap_file", made.node.cow_bmp_fname},
                {"cow_free_bytes", free_bytes_in(wanted.cow_dir)},
                {"start_ms", ms},
                {"mounted", mounted}});
    return kDone;
  }
  fmt::print("{}\n", snap_path(made.node));
  note(mounted
           ? fmt::format("the file system was frozen for no longer than the start took: {:.1f} ms",
                         ms)
           : fmt::format("nothing is mounted on {}; the start took {:.1f} ms", filter.name, ms));
  if (chunk != 0 && made.node.chunk_size != chunk) {
    note(fmt::format("the chunks are of {}: the partition is too large for smaller ones",
                     show_size(made.node.chunk_size)));
  }
  tell_room(wanted.cow_dir, filter);
  return kDone;
}

Failure busy(const Snap& snap) {
  const std::string who = joined(holders_of(device_of(snap_path(*snap.node))));
  return {kBusy,
          fmt::format("deleting {}: it is in use: {}", snap.name(),
                      who.empty() ? "held from somewhere that cannot be seen from here" : who),
          "unmount or close it first", -EBUSY};
}

// The older snaps that would suffer: their images lie in part in the newer one's files.
std::vector<std::string> leaning_on(const Snap& snap, const std::vector<Snap>& siblings) {
  std::vector<std::string> found;
  for (const Snap& older : siblings) {
    if (older.name() == snap.name()) break;
    const std::string state = older.state();
    if (state == "started" || (state == "resumable" && !snap.started())) {
      found.push_back(older.name());
    }
  }
  return found;
}

void warn_or_refuse(const Snap& snap, const std::vector<std::string>& older, bool yes) {
  if (older.empty() || yes) return;
  if (snap.started()) {
    throw Failure(kUnsafe,
                  fmt::format("{} holds parts of older snaps: {}", snap.name(), joined(older)),
                  "delete those first; with --yes it can no longer be read from now on, and goes "
                  "when they go");
  }
  throw Failure(kUnsafe,
                fmt::format("{} holds parts of older snaps: {}", snap.name(), joined(older)),
                "delete those first; --yes deletes it, and they can no longer be resumed");
}

void delete_one(const Driver& driver, const Snap& snap, const DeleteOptions& options) {
  const auto older = leaning_on(snap, snaps_of(driver, snap.filter));
  warn_or_refuse(snap, older, options.yes);
  if (options.dry_run) {
    if (snap.node && snap.node->use_cnt > 0) throw busy(snap);
    note(fmt::format("would delete {} and its COW files{}", snap.name(),
                     older.empty() ? "" : "; older snaps need it: " + joined(older)));
    return;
  }
  int postponed = 0;
  const int rc = snap.node
                     ? delete_snap(driver, *snap.node, &postponed)
                     : libsnbf_snap_discard(driver.get(), snap.filter.minor, snap.record.name);
  if (rc == -EBUSY && snap.node) throw busy(snap);
  must(rc, fmt::format("deleting {}", snap.name()));
  note(postponed ? fmt::format("{} can no longer be read; its files go with the last of: {}",
                               snap.name(), joined(older))
                 : fmt::format("{} and its COW files are gone", snap.name()));
}

int delete_snaps(const DeleteOptions& options) {
  if (options.snaps.empty() == options.all_of.empty()) {
    throw Failure(kMisused, "snap delete needs snaps, or a node with --all");
  }
  const Driver driver;
  std::vector<Snap> chosen;
  if (!options.all_of.empty()) chosen = snaps_of(driver, driver.find(options.all_of));
  for (const std::string& text : options.snaps) chosen.push_back(find_snap(driver, text));
  // Oldest first: then none of them is one that a later one leans on.
  std::stable_sort(chosen.begin(), chosen.end(), [](const Snap& one, const Snap& other) {
    return one.record.sequence < other.record.sequence;
  });
  for (const Snap& snap : chosen) delete_one(driver, snap, options);
  return kDone;
}

int resume(const ResumeOptions& options) {
  const Driver driver;
  const snbf_info filter = driver.find(options.node);
  const std::vector<Snap> before = snaps_of(driver, filter);
  std::vector<std::string> good;
  std::vector<const Snap*> dead;
  for (const Snap& snap : before) {
    if (snap.state() == "resumable") good.push_back(snap.name());
    if (snap.state() == "dead") dead.push_back(&snap);
  }
  for (const Snap* snap : dead) {
    warn(fmt::format("{} cannot be resumed: {}", snap->name(), reason_text(snap->why)));
  }
  if (good.empty()) {
    throw Failure(kUnsafe, fmt::format("no snap of {} can be resumed", filter.name),
                  "make a new one with `snbf snap create`");
  }
  if (options.dry_run) {
    note("would resume " + joined(good));
    return kDone;
  }
  uint32_t resumed = 0;
  if (int rc = libsnbf_snap_resume(driver.get(), filter.minor, &resumed); rc != 0) {
    Failure failure = failure_of(rc, fmt::format("resuming the snaps of {}", filter.name));
    throw Failure(failure.status(),
                  fmt::format("{} ({} of {} are back)", failure.what(), resumed, good.size()),
                  failure.remedy(), rc);
  }
  if (options.json) {
    print_json({{"node", filter.name}, {"resumed", good}});
  } else {
    for (const std::string& name : good) fmt::print("/dev/snbf/{}\n", name);
  }
  note(fmt::format("{} is started", filter.name));
  return dead.empty() ? kDone : kWarned;
}

void add_create(CLI::App& snap, Chosen& chosen) {
  auto options = std::make_shared<CreateOptions>();
  CLI::App* verb = add_verb(
      snap, chosen, "create", "Make a snap: the node's device as it is now, read-only",
      "Examples:\n  snbf snap create data\n  snbf snap create data --cow /var/cow --name monday\n"
      "What is overwritten from then on is copied into the COW files first. A mounted file system "
      "is\nfrozen for the moment of the start.",
      options, create);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_option("--cow", options->cow,
                   "Directory of the COW files, on another disk (default: the bitmaps')");
  verb->add_option("--chunk", options->chunk,
                   "Bytes that are copied at a time (default 64K, or as the node's other snaps)");
  verb->add_option("--name", options->name, "Its name (default: the node's, and the time)");
  verb->add_flag("--yes", options->yes, "Overwrite COW files of that name");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  verb->add_flag("--json", options->json, "Print the snap as JSON");
}

void add_delete(CLI::App& snap, Chosen& chosen) {
  auto options = std::make_shared<DeleteOptions>();
  CLI::App* verb =
      add_verb(snap, chosen, "delete", "Delete snaps and their COW files, oldest first",
               "Examples:\n  snbf snap delete monday\n  snbf snap delete --all data\n"
               "A snap's image lies in part in the files of newer ones. One that an older snap "
               "needs is only\n"
               "given up with --yes: it can then no longer be read, and its files go when the "
               "older one goes.",
               options, delete_snaps);
  verb->add_option("snaps", options->snaps, "Names, minors or device files");
  verb->add_option("--all", options->all_of, "All snaps of this node");
  verb->add_flag("--yes", options->yes, "Although older snaps need it");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
}

void add_resume(CLI::App& snap, Chosen& chosen) {
  auto options = std::make_shared<ResumeOptions>();
  CLI::App* verb =
      add_verb(snap, chosen, "resume",
               "Bring back the snaps that were stopped with their node, and start it",
               "Example:\n  snbf attach /dev/sdb1 --name data && snbf snap resume data\n"
               "Only what was stopped cleanly comes back, and only if nothing was written since.",
               options, resume);
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
  verb->add_flag("--json", options->json, "Print the snaps as JSON");
}

}  // namespace

void add_snap(CLI::App& app, Chosen& chosen) {
  CLI::App* snap = app.add_subcommand("snap", "Make, list, delete and resume snaps");
  snap->require_subcommand(1);
  snap->footer("");  // else it takes the whole tool's
  add_create(*snap, chosen);
  add_snap_list(*snap, chosen);
  add_delete(*snap, chosen);
  add_resume(*snap, chosen);
}

}  // namespace snbf
