// SPDX-License-Identifier: GPL-2.0-only
#include "driver.h"

#include <fmt/format.h>
#include <libmount/libmount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "failure.h"

namespace snbf {

namespace fs = std::filesystem;

namespace {

std::string describe(const snbf_info& node) {
  return fmt::format("{} (snbf{})", node.name, node.minor);
}

bool is_number(const std::string& text) {
  return !text.empty() && text.size() < 10 &&
         text.find_first_not_of("0123456789") == std::string::npos;
}

void add_openers(dev_t device, std::vector<std::string>* found) {
  std::error_code ignored;
  for (const auto& process : fs::directory_iterator("/proc", ignored)) {
    const std::string pid = process.path().filename();
    if (!is_number(pid)) continue;
    std::error_code unreadable;
    for (const auto& file : fs::directory_iterator(process.path() / "fd", unreadable)) {
      if (device_of(file.path()) != device) continue;
      std::ifstream comm(process.path() / "comm");
      std::string name;
      std::getline(comm, name);
      found->push_back(fmt::format("open in {} ({})", name, pid));
      break;
    }
  }
}

}  // namespace

Driver::Driver(const libsnbf_options* options) {
  libsnbf* handle = nullptr;
  must(libsnbf_open(options, &handle), "opening /dev/snbf/control");
  handle_.reset(handle);
}

std::vector<snbf_info> Driver::filters() const {
  snbf_device_list list;
  must(libsnbf_get_device_list(get(), SNBF_DEV_FILTER, &list), "listing the nodes");
  std::vector<snbf_info> nodes;
  for (uint32_t i = 0; i < list.count; ++i) {
    snbf_info node;
    // A node may go between the two questions.
    if (libsnbf_get_info(get(), list.minors[i], &node) == 0) nodes.push_back(node);
  }
  return nodes;
}

snbf_info Driver::find(const std::string& text) const {
  const std::string folder = "/dev/snbf/";
  const std::string file = text.rfind(folder, 0) == 0 ? text.substr(folder.size()) : text;
  const std::string by_file = file.rfind("snbf", 0) == 0 ? file.substr(4) : "";
  const dev_t device = text.find('/') == std::string::npos ? 0 : device_of(text);
  const std::vector<snbf_info> nodes = filters();
  for (const snbf_info& node : nodes) {
    if (file == node.name) return node;
  }
  for (const snbf_info& node : nodes) {
    const std::string minor = std::to_string(node.minor);
    if (text == minor || by_file == minor) return node;
    if (device != 0 && device == partition_of(node)) return node;
  }
  throw Failure(kFailed, fmt::format("no node is called {}", text),
                "`snbf list` shows the nodes; `snbf attach` makes one");
}

snbf_info Driver::info(uint32_t minor) const {
  snbf_info node;
  must(libsnbf_get_info(get(), minor, &node), fmt::format("asking about snbf{}", minor));
  return node;
}

Extents Driver::empty_bitmap(const snbf_info& node) const {
  Extents extents(node.extent_cnt, node.extent_size, node.dev_size);
  if (extents.bytes().size() != node.incr_bmp_size) throw failure_of(-EPROTO, describe(node));
  return extents;
}

Extents Driver::get(const snbf_info& node, uint32_t type) const {
  Extents extents = empty_bitmap(node);
  must(libsnbf_get_bmp(get(), node.minor, type, extents.bytes().data(), node.incr_bmp_size),
       fmt::format("reading the {} bitmap of {}", bitmap_name(type), describe(node)));
  return extents;
}

Extents Driver::get_and_clear(const snbf_info& node, uint32_t type) const {
  Extents extents = empty_bitmap(node);
  must(libsnbf_get_and_clr_bmp(get(), node.minor, type, extents.bytes().data(), node.incr_bmp_size),
       fmt::format("taking the {} bitmap of {}", bitmap_name(type), describe(node)));
  return extents;
}

void Driver::merge(const snbf_info& node, uint32_t type, const Extents& extents) const {
  must(libsnbf_merge_bmp(get(), node.minor, type, extents.bytes().data(),
                         static_cast<uint32_t>(extents.bytes().size())),
       fmt::format("merging into the {} bitmap of {}", bitmap_name(type), describe(node)));
}

void Driver::set(const snbf_info& node, uint32_t type, const Extents& extents) const {
  must(libsnbf_set_bmp(get(), node.minor, type, extents.bytes().data(),
                       static_cast<uint32_t>(extents.bytes().size())),
       fmt::format("setting the {} bitmap of {}", bitmap_name(type), describe(node)));
}

void Driver::set_all(const snbf_info& node, uint32_t type) const {
  must(libsnbf_set_bmp(get(), node.minor, type, nullptr, 0),
       fmt::format("setting the {} bitmap of {}", bitmap_name(type), describe(node)));
}

bool Driver::unsaved(const snbf_info& node, uint32_t type) const {
  int answer = 0;
  return libsnbf_bmp_unsaved(get(), node.minor, type, &answer) == 0 && answer;
}

std::vector<uint8_t> Driver::used_map(const snbf_info& snap, uint32_t unit, uint64_t units) const {
  std::vector<uint8_t> bits((units + 7) / 8);
  uint32_t filled = 0;
  must(libsnbf_get_datablock_bmp(get(), snap.minor, unit, bits.data(),
                                 static_cast<uint32_t>(bits.size()), &filled),
       fmt::format("asking {} for its map of used chunks", describe(snap)));
  if (filled != bits.size()) throw failure_of(-EPROTO, describe(snap));
  return bits;
}

bool Driver::lies_on(const std::string& path, const snbf_info& node) const {
  int answer = 0;
  const dev_t partition = partition_of(node);
  if (partition == 0) throw failure_of(-ENODEV, "looking for the partition of " + describe(node));
  must(libsnbf_path_is_on(get(), path.c_str(), major(partition), minor(partition), &answer),
       "looking where " + path + " lies");
  return answer != 0;
}

std::string node_path(const snbf_info& node) { return fmt::format("/dev/snbf/snbf{}", node.minor); }

Json node_json(const snbf_info& node) {
  return {{"name", node.name},
          {"minor", node.minor},
          {"device", node_path(node)},
          {"uuid", node.uuid},
          {"partition", node.hdd_name},
          {"started", node.started != 0},
          {"size", node.dev_size},
          {"extent_size", node.extent_size},
          {"extent_count", node.extent_cnt},
          {"opens", node.use_cnt},
          {"snaps", node.snap_cnt},
          {"bitmaps", bmp_dir_of(node)}};
}

std::string bmp_dir_of(const snbf_info& node) {
  const auto parent = fs::path(node.incr_bmp_fname).parent_path();
  return parent.empty() ? "/" : parent.string();
}

dev_t partition_of(const snbf_info& node) {
  const std::string folder = fmt::format("/proc/snbf/snbf{}/", node.minor);
  unsigned numbers[2];
  for (int i = 0; i < 2; ++i) {
    std::ifstream file(folder + (i == 0 ? "hdd_major" : "hdd_minor"));
    if (!(file >> numbers[i])) return 0;
  }
  return makedev(numbers[0], numbers[1]);
}

dev_t device_of(const std::string& path) {
  struct stat about;
  return ::stat(path.c_str(), &about) == 0 && S_ISBLK(about.st_mode) ? about.st_rdev : 0;
}

libsnbf_state read_state(const snbf_info& node) {
  libsnbf_state state{};
  if (libsnbf_state_read(bmp_dir_of(node).c_str(), node.minor, &state) != 0)
    state = libsnbf_state{};
  return state;
}

void write_state(const snbf_info& node, const libsnbf_state& state) {
  must(libsnbf_state_write(bmp_dir_of(node).c_str(), node.minor, &state),
       "writing the state record in " + bmp_dir_of(node));
}

const char* bitmap_name(uint32_t type) {
  return type == SNBF_BMP_INCR ? "Incremental" : "Differential";
}

uint32_t parse_bitmap(const std::string& text) {
  if (text == "incr") return SNBF_BMP_INCR;
  if (text == "diff") return SNBF_BMP_DIFF;
  throw Failure(kMisused, fmt::format("{} is no bitmap", text), "say incr or diff");
}

std::vector<std::string> mounts_of(dev_t device) {
  std::vector<std::string> found;
  std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(
      mnt_new_table_from_file("/proc/self/mountinfo"), mnt_unref_table);
  std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                              mnt_free_iter);
  libmnt_fs* entry = nullptr;
  while (device != 0 && table && iter && mnt_table_next_fs(table.get(), iter.get(), &entry) == 0) {
    const char* source = mnt_fs_get_source(entry);
    const bool by_source = source && source[0] == '/' && device_of(source) == device;
    if (mnt_fs_get_devno(entry) == device || by_source) found.push_back(mnt_fs_get_target(entry));
  }
  return found;
}

std::vector<std::string> holders_of(dev_t device) {
  std::vector<std::string> found;
  if (device == 0) return found;
  for (const std::string& mount : mounts_of(device)) found.push_back("mounted at " + mount);
  std::error_code ignored;
  const std::string sys = fmt::format("/sys/dev/block/{}:{}/holders", major(device), minor(device));
  for (const auto& holder : fs::directory_iterator(sys, ignored)) {
    found.push_back("part of " + holder.path().filename().string());
  }
  std::ifstream swaps("/proc/swaps");
  for (std::string word; swaps >> word;) {
    if (word[0] == '/' && device_of(word) == device) found.push_back("swap space");
  }
  add_openers(device, &found);
  return found;
}

}  // namespace snbf
