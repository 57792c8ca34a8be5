// SPDX-License-Identifier: GPL-2.0-only
#include "boot_nodes.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "failure.h"
#include "libsnbf.h"
#include "sizes.h"
#include "words.h"

namespace snbf {

namespace {

constexpr int kMinorEnd = 1 << 20;

// What is wrong with a line, and what to do about it.
struct Wrong {
  std::string what;
};

bool is_octal(char c) { return c >= '0' && c <= '7'; }

std::string unescape(const std::string& word) {
  std::string text;
  for (size_t i = 0; i < word.size(); ++i) {
    if (word[i] == '\\' && i + 3 < word.size() && is_octal(word[i + 1]) && is_octal(word[i + 2]) &&
        is_octal(word[i + 3])) {
      text += static_cast<char>((word[i + 1] - '0') * 64 + (word[i + 2] - '0') * 8 +
                                (word[i + 3] - '0'));
      i += 3;
    } else {
      text += word[i];
    }
  }
  return text;
}

std::string escape(const std::string& text) {
  std::string word;
  for (char c : text) {
    const bool plain = c > ' ' && c != '\\' && c != '#' && c != ',' && c != 0x7f;
    word += plain ? std::string(1, c) : fmt::format("\\{:03o}", static_cast<unsigned char>(c));
  }
  return word;
}

std::string without_comment(const std::string& line) { return line.substr(0, line.find('#')); }

uint32_t extent_of(const std::string& text) {
  const auto size = parse_extent_size(text);
  if (!size) {
    throw Wrong{
        fmt::format("extent={} is no extent size: write a power of two from 4K to 1G, as "
                    "extent=64K",
                    text)};
  }
  return *size;
}

int minor_of(const std::string& text) {
  const bool digits =
      !text.empty() && text.size() < 8 && text.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || std::stoi(text) >= kMinorEnd) {
    throw Wrong{
        fmt::format("minor={} is no minor: write a number from 0 on, or leave it out", text)};
  }
  return std::stoi(text);
}

bool is_device_text(const std::string& text) {
  for (const char* tag : {"PARTUUID=", "PARTLABEL=", "UUID=", "LABEL="}) {
    if (text.rfind(tag, 0) == 0) return text.size() > std::string(tag).size();
  }
  return text.rfind("/dev/", 0) == 0;
}

void take_option(const std::string& word, BootNode* node) {
  const size_t equals = word.find('=');
  const std::string key = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : unescape(word.substr(equals + 1));
  if (key == "extent") {
    node->extent_size = extent_of(value);
  } else if (key == "minor") {
    node->minor = minor_of(value);
  } else if (key == "store" && is_device_text(value)) {
    node->store = value;
  } else if (word != "defaults") {
    throw Wrong{
        fmt::format("{} is no option: there are extent=64K, minor=0 and store=UUID=...", word)};
  }
}

bool lies_below(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path.rfind(folder, 0) == 0 && (path.size() == folder.size() || path[folder.size()] == '/');
}

void check_places(const BootNode& node) {
  if (node.partition.rfind("UUID=", 0) == 0 || node.partition.rfind("LABEL=", 0) == 0) {
    throw Wrong{fmt::format(
        "{} names the file system, which is on the node as well: name the partition, by PARTUUID= "
        "or by a file below /dev/disk/by-id",
        node.partition)};
  }
  if (!is_device_text(node.partition)) {
    throw Wrong{fmt::format("{} is no partition: write PARTUUID=... or /dev/disk/by-id/...",
                            node.partition)};
  }
  if (node.bitmaps[0] != '/') {
    throw Wrong{
        fmt::format("{} is no absolute path: the third word is the directory of the "
                    "bitmaps, as /var/lib/snbf",
                    node.bitmaps)};
  }
  if (!node.store.empty() && !lies_below(node.bitmaps, kEarlyStore)) {
    throw Wrong{fmt::format("with store=, the bitmaps lie in {} or below it", kEarlyStore)};
  }
}

BootNode parse_line(const std::vector<std::string>& words) {
  if (words.size() < 3 || words.size() > 4) {
    throw Wrong{"three or four words belong here: NAME PARTITION BITMAP-DIRECTORY [OPTIONS]"};
  }
  BootNode node;
  node.name = words[0];
  node.partition = unescape(words[1]);
  node.bitmaps = unescape(words[2]);
  if (!libsnbf_name_is_safe(node.name.c_str())) {
    throw Wrong{fmt::format("{} is no name: use letters, digits, '_', '-' and '.', not a '.' first",
                            node.name)};
  }
  std::istringstream options(words.size() == 4 ? words[3] : "");
  for (std::string word; std::getline(options, word, ',');) take_option(word, &node);
  check_places(node);
  return node;
}

void check_unique(const BootNode& node, const std::vector<BootNode>& others) {
  for (const BootNode& other : others) {
    const char* const same = other.name == node.name                        ? "name"
                             : other.partition == node.partition            ? "partition"
                             : node.minor >= 0 && other.minor == node.minor ? "minor"
                                                                            : nullptr;
    if (same) {
      throw Wrong{fmt::format("line {} has the same {}: remove one of the two", other.line, same)};
    }
  }
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream all(text);
  for (std::string line; std::getline(all, line);) lines.push_back(line);
  return lines;
}

std::string joined_lines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

bool is_of(const std::string& line, const std::string& name) {
  const auto words = words_of(without_comment(line));
  return !words.empty() && words[0] == name;
}

}  // namespace

BootNodes parse_boot_nodes(const std::string& text) {
  BootNodes found;
  size_t number = 0;
  for (const std::string& line : lines_of(text)) {
    ++number;
    const auto words = words_of(without_comment(line));
    if (words.empty()) continue;
    try {
      BootNode node = parse_line(words);
      node.line = number;
      check_unique(node, found.nodes);
      found.nodes.push_back(node);
    } catch (const Wrong& wrong) {
      found.problems.push_back(fmt::format("line {}: {}", number, wrong.what));
    }
  }
  return found;
}

std::string print_boot_node(const BootNode& node) {
  const bool whole_mebi = node.extent_size % (1 << 20) == 0;
  std::string options = fmt::format("extent={}{}", node.extent_size >> (whole_mebi ? 20 : 10),
                                    whole_mebi ? 'M' : 'K');
  if (node.minor >= 0) options += fmt::format(",minor={}", node.minor);
  if (!node.store.empty()) options += ",store=" + escape(node.store);
  return fmt::format("{}  {}  {}  {}", node.name, escape(node.partition), escape(node.bitmaps),
                     options);
}

std::string with_boot_node(const std::string& text, const BootNode& node) {
  std::vector<std::string> lines = lines_of(text);
  if (lines.empty()) {
    lines = {"# The snbf nodes that come up at boot; see snbf(1).",
             "# name  partition  directory-of-bitmaps  options"};
  }
  const auto old = std::find_if(lines.begin(), lines.end(),
                                [&](const std::string& line) { return is_of(line, node.name); });
  if (old != lines.end()) {
    *old = print_boot_node(node);
  } else {
    lines.push_back(print_boot_node(node));
  }
  return joined_lines(lines);
}

std::string without_boot_node(const std::string& text, const std::string& name) {
  std::vector<std::string> lines = lines_of(text);
  std::erase_if(lines, [&](const std::string& line) { return is_of(line, name); });
  return joined_lines(lines);
}

const BootNode* boot_node_of(const std::vector<BootNode>& nodes, const std::string& name) {
  const auto found = std::find_if(nodes.begin(), nodes.end(),
                                  [&](const BootNode& node) { return node.name == name; });
  return found == nodes.end() ? nullptr : &*found;
}

bool names_node(const std::string& source, const BootNode& node) {
  return source == "/dev/snbf/" + node.name ||
         (node.minor >= 0 && source == fmt::format("/dev/snbf/snbf{}", node.minor));
}

const MountLine* mount_of(const std::string& path, const std::vector<MountLine>& mounts) {
  const MountLine* deepest = nullptr;
  for (const MountLine& mount : mounts) {
    if (mount.target.empty() || mount.target[0] != '/' || !lies_below(path, mount.target)) continue;
    if (!deepest || mount.target.size() >= deepest->target.size()) deepest = &mount;
  }
  return deepest;
}

std::vector<BootNode> in_boot_order(const std::vector<BootNode>& nodes,
                                    const std::vector<MountLine>& mounts) {
  std::vector<BootNode> ordered;
  std::vector<BootNode> left = nodes;
  const auto waits = [&](const BootNode& node) {
    const MountLine* mount = mount_of(node.bitmaps, mounts);
    return mount && std::any_of(left.begin(), left.end(), [&](const BootNode& other) {
             return names_node(mount->source, other);
           });
  };
  while (!left.empty()) {
    const auto next =
        std::find_if(left.begin(), left.end(), [&](const BootNode& node) { return !waits(node); });
    if (next == left.end()) {
      std::string names;
      for (const BootNode& node : left) names += (names.empty() ? "" : ", ") + node.name;
      throw Failure(kUnsafe,
                    fmt::format("{}: each keeps its bitmaps on a file system that waits for "
                                "another of them",
                                names),
                    "keep the bitmaps of one of them elsewhere");
    }
    ordered.push_back(*next);
    left.erase(next);
  }
  return ordered;
}

std::string unit_name_of(const std::string& path, const std::string& suffix) {
  std::string name;
  for (char c : path) {
    const bool slash = c == '/';
    if (slash && (name.empty() || name.back() == '/')) continue;
    name += c;
  }
  while (!name.empty() && name.back() == '/') name.pop_back();
  std::string escaped;
  for (char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == ':' || c == '_' || (c == '.' && !escaped.empty());
    if (c == '/') {
      escaped += '-';
    } else {
      escaped +=
          plain ? std::string(1, c) : fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    }
  }
  return (escaped.empty() ? "-" : escaped) + suffix;
}

}  // namespace snbf
