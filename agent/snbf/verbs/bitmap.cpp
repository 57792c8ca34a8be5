// SPDX-License-Identifier: GPL-2.0-only
// snbf bitmap: the plumbing below the other verbs, one to one with the driver's commands.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "driver.h"
#include "failure.h"
#include "files.h"
#include "output.h"
#include "plan.h"

namespace snbf {

namespace {

struct Options {
  std::string action;
  std::string node;
  std::string bitmap = "incr";
  std::string file;
  bool yes = false;
  bool dry_run = false;
};

void write_raw(const Extents& extents, const std::string& file) {
  const std::string bytes(extents.bytes().begin(), extents.bytes().end());
  if (!file.empty() && file != "-") {
    replace_file(file, bytes);
  } else if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
    throw Failure(kFailed, "writing the bitmap to the output failed");
  }
}

Extents read_raw(const Driver& driver, const snbf_info& node, const std::string& file) {
  Extents extents = driver.empty_bitmap(node);
  std::string bytes;
  if (!read_file(file == "-" ? "/dev/stdin" : file, &bytes)) throw failure_of(-ENOENT, file);
  if (bytes.size() != extents.bytes().size()) {
    throw Failure(kMisused,
                  fmt::format("{} holds {} bytes; the bitmap has {}", file, bytes.size(),
                              extents.bytes().size()),
                  "it must be one bit an extent, as `bitmap get` writes it");
  }
  std::copy(bytes.begin(), bytes.end(), extents.bytes().begin());
  return extents;
}

// The node's own record, or none of it is in sight, and what is written would lie below its file system.
libsnbf_state own_state(const snbf_info& node) {
  libsnbf_state state{};
  const int rc = libsnbf_state_read(bmp_dir_of(node).c_str(), node.minor, &state);
  const bool other = rc == 0 && std::strcmp(state.uuid, node.uuid) != 0;
  if (rc == -ENOENT || other) throw failure_of(-ENOLINK, "the bitmap of " + std::string(node.name));
  if (rc == -EBADMSG) return {};
  must(rc, "reading the record of " + std::string(node.name));
  return state;
}

// From here the bitmap counts from nothing that a backup could continue.
void forget_point(const snbf_info& node, uint32_t type) {
  libsnbf_state state = own_state(node);
  auto& point = type == SNBF_BMP_INCR ? state.incr_point : state.diff_point;
  std::memset(point, 0, sizeof point);
  std::strcpy(point, kPointByHand);
  write_state(node, state);
}

bool may_lose_changes(const Options& options) {
  return options.action == "clear" || options.action == "load" ||
         (options.action == "set" && !options.file.empty());
}

void act(const Driver& driver, const snbf_info& node, uint32_t type, const Options& options) {
  const std::string doing = fmt::format("bitmap {} of {}", options.action, node.name);
  if (options.action == "clear") {
    must(libsnbf_clr_bmp(driver.get(), node.minor, type), doing);
  } else if (options.action == "set" && options.file.empty()) {
    driver.set_all(node, type);
  } else if (options.action == "set") {
    driver.set(node, type, read_raw(driver, node, options.file));
  } else if (options.action == "merge") {
    driver.merge(node, type, read_raw(driver, node, options.file));
  } else if (options.action == "save") {
    must(libsnbf_save_bmp(driver.get(), node.minor, type), doing);
  } else if (options.action == "load") {
    must(libsnbf_load_bmp(driver.get(), node.minor, type), doing);
  }
}

// All that can be known to fail is tried.
int rehearse(const Driver& driver, const snbf_info& node, uint32_t type, const Options& options) {
  std::string how;
  if (!options.file.empty() && (options.action == "set" || options.action == "merge")) {
    how = fmt::format(" from {} extents of {}", read_raw(driver, node, options.file).count(),
                      options.file);
  } else if (options.action == "load") {
    const std::string file = type == SNBF_BMP_INCR ? node.incr_bmp_fname : node.diff_bmp_fname;
    libsnbf_verdict verdict = LIBSNBF_MISSING;
    must(libsnbf_judge_bmp_file(file.c_str(), node.incr_bmp_size, &verdict), "reading " + file);
    how = " from " + file +
          (verdict == LIBSNBF_GOOD ? "" : ", which cannot be trusted: every bit would be set");
  }
  note(fmt::format("would {} the {} bitmap of {}{}", options.action, bitmap_name(type), node.name,
                   how));
  return kDone;
}

int bitmap(const Options& options) {
  const uint32_t type = parse_bitmap(options.bitmap);
  if (options.action == "merge" && options.file.empty()) {
    throw Failure(kMisused, "merge needs a bitmap", "give its file, or - for the input");
  }
  const Driver driver;
  const snbf_info node = driver.find(options.node);
  if (options.action == "get") {
    write_raw(driver.get(node, type), options.file);
    return kDone;
  }
  if (may_lose_changes(options) && !options.yes) {
    throw Failure(kUnsafe,
                  fmt::format("bitmap {} can forget changes that no backup has", options.action),
                  "say --yes if that is meant; the next backup is then a full one");
  }
  if (may_lose_changes(options)) own_state(node);
  if (options.dry_run) return rehearse(driver, node, type, options);
  // A backup under way counts on the bitmap being its own.
  const UniqueFd lock =
      lock_file(fmt::format("{}/snbf{}.lock", bmp_dir_of(node), node.minor), node.name);
  if (may_lose_changes(options)) forget_point(node, type);
  act(driver, node, type, options);
  if (driver.unsaved(node, type) && !node.started) {
    warn(
        fmt::format("the driver could not save the bitmap in {}: look at dmesg", bmp_dir_of(node)));
    return kWarned;
  }
  return kDone;
}

}  // namespace

void add_bitmap(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "bitmap", "Read or change a bitmap by hand",
      "Examples:\n  snbf bitmap get data incr.raw\n  snbf bitmap merge data incr.raw\n"
      "  snbf bitmap set data --bitmap diff\n"
      "A bitmap is one bit an extent, the first in the least significant bit of the first byte.\n"
      "set without a file sets every bit. What can forget changes asks for --yes.",
      options, bitmap);
  verb->add_option("action", options->action, "get, clear, set, merge, save or load")
      ->required()
      ->check(CLI::IsMember({"get", "clear", "set", "merge", "save", "load"}));
  verb->add_option("node", options->node, "Name, minor, device file or partition")->required();
  verb->add_option("file", options->file, "Raw bitmap; - is the input or the output");
  verb->add_option("--bitmap", options->bitmap, "incr or diff")
      ->check(CLI::IsMember({"incr", "diff"}));
  verb->add_flag("--yes", options->yes, "Do it although changes may be forgotten");
  verb->add_flag("--dry-run", options->dry_run, "Say what would be done");
}

}  // namespace snbf
