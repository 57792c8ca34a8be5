// SPDX-License-Identifier: GPL-2.0-only
// snbf export: a snap over NBD, with a bitmap beside it.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <optional>

#include "command.h"
#include "driver.h"
#include "export.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "signals.h"
#include "snaps.h"

namespace snbf {

namespace {

struct Options {
  std::string snap;
  std::string socket;
  std::string bitmap;
  std::string pid_file;
  bool json = false;
};

// There while the export can be used; it says whom to end.
class PidFile {
 public:
  explicit PidFile(const std::string& path) : path_(path) {
    if (!path_.empty()) replace_file(path_, fmt::format("{}\n", ::getpid()));
  }
  ~PidFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;

 private:
  std::string path_;
};

ExportWish check(const Options& options, const Snap& snap) {
  if (!snap.readable()) {
    throw Failure(snap.state() == "lost" ? kSnapLost : kFailed,
                  fmt::format("{} cannot be exported: {}", snap.name(), describe_state(snap)),
                  "`snbf snap list --tree` shows those that can");
  }
  ExportWish wish;
  wish.device = snap_path(*snap.node);
  wish.name = snap.name();
  wish.socket = std::filesystem::absolute(options.socket).lexically_normal();
  wish.bitmap = options.bitmap;
  check_socket(wish.socket);
  return wish;
}

void tell_ready(const ExportWish& wish, const Options& options, const Extents* changed) {
  if (options.json) {
    Json json = {{"snap", wish.name},
                 {"device", wish.device},
                 {"socket", wish.socket},
                 {"uri", export_uri(wish)},
                 {"pid", ::getpid()}};
    if (changed) {
      json["bitmap"] = wish.bitmap;
      json["meta_context"] = "qemu:dirty-bitmap:" + wish.bitmap;
      json["changed_bytes"] = changed->covered_bytes();
    }
    print_json(json);
  } else {
    fmt::print("{}\n", export_uri(wish));
  }
  std::fflush(stdout);
  note("serving until SIGINT or SIGTERM; the snap cannot be deleted meanwhile");
}

int export_snap(const Options& options) {
  const Driver driver;
  const Snap snap = find_snap(driver, options.snap);
  ExportWish wish = check(options, snap);
  const SignalsNoted signals;
  std::optional<Extents> changed;
  std::optional<BitmapImage> image;
  if (!options.bitmap.empty()) {
    changed = driver.get(snap.filter, parse_bitmap(options.bitmap));
    image.emplace(*changed, options.bitmap);
    wish.image = &*image;
  }
  NbdServer server(wish);
  const PidFile pid_file(options.pid_file);
  tell_ready(wish, options, changed ? &*changed : nullptr);
  if (server.wait_for_signal()) return kDone;
  throw Failure(kFailed, "qemu-nbd ended by itself", "what it said stands above");
}

}  // namespace

void add_export(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "export", "Serve a snap over NBD, with a bitmap of what changed",
      "Examples:\n  snbf export monday --nbd /run/m.sock --bitmap incr\n"
      "  nbdinfo --map=qemu:dirty-bitmap:incr \"nbd+unix:///monday?socket=/run/m.sock\"\n"
      "  nbdcopy \"nbd+unix:///monday?socket=/run/m.sock\" monday.img\n"
      "It serves in the foreground, read-only, until SIGINT or SIGTERM. The URI on the output, and "
      "the\nfile of --pid-file, say that clients can connect. The bitmap is the node's as it is at "
      "the\nstart of the export: what changed after the snap is marked, too.",
      options, export_snap);
  verb->add_option("snap", options->snap, "Name, minor or device file")->required();
  verb->add_option("--nbd", options->socket, "Path of the Unix socket to be made")->required();
  verb->add_option("--bitmap", options->bitmap,
                   "incr: changed since the last backup; diff: since the last full one")
      ->check(CLI::IsMember({"incr", "diff"}));
  verb->add_option("--pid-file", options->pid_file, "Write our process ID there when it is ready");
  verb->add_flag("--json", options->json, "Print where it is served as JSON");
}

}  // namespace snbf
