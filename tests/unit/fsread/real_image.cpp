#include "real_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "fsread/blkbmp.h"
#include "fsread/reader.h"
#include "fsread/selftest.h"

namespace snbf::sim {

namespace {

std::string temp_folder() {
  const char* folder = getenv("TMPDIR");
  return folder != nullptr ? folder : "/tmp";
}

// A folder with files of all sizes, and beside it the list of them that mkfs.xfs understands. Made
// once and removed at the end.
class Tree {
 public:
  Tree() {
    path_ = temp_folder() + "/snbf-tree-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) abort();
    std::ofstream proto(path_ + ".proto");
    proto << "/\n0 0\nd--755 0 0\n";
    unsigned size = 1;
    for (int n = 0; n < 200; ++n) {
      size = (size * 16807u) % 300'007u + 1;
      const std::string name = "f" + std::to_string(n);
      std::ofstream(path_ + "/" + name) << std::string(size, 'a');
      proto << name << " ---644 0 0 " << path_ << "/" << name << "\n";
    }
    proto << "$\n";
  }
  ~Tree() {
    const std::string command = "rm -rf " + path_ + " " + path_ + ".proto";
    if (system(command.c_str()) != 0) perror("rm");
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

const std::string& tree_path() {
  static const Tree tree;
  return tree.path();
}

// "1-5, 7" -> calls fn(1, 5), fn(7, 7).
template <typename F>
void each_range(const std::string& text, F fn) {
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    char* end = nullptr;
    const u64 first = strtoull(item.c_str(), &end, 10);
    const u64 last = *end == '-' ? strtoull(end + 1, nullptr, 10) : first;
    fn(first, last);
  }
}

u64 number_behind(const std::string& line, const std::string& label) {
  return strtoull(line.c_str() + line.find(label) + label.size(), nullptr, 10);
}

void judge_map(const snbf_blkbmp& map, const Truth& truth, u32 chunk_size, Comparison* result) {
  const u64 per_chunk = chunk_size / truth.block_size;
  auto range = truth.free.begin();
  for (u64 first = 0; first < truth.blocks; first += per_chunk) {
    const u64 end = std::min<u64>(first + per_chunk, truth.blocks);
    while (range != truth.free.end() && range->end <= first) ++range;
    const bool holds_used = range == truth.free.end() || range->first > first || range->end < end;
    const bool called_used = snbf_blkbmp_is_used(&map, first / per_chunk) != 0;
    result->free_chunks += holds_used ? 0 : 1;
    result->used_called_free += holds_used && !called_used ? 1 : 0;
    result->free_called_used += !holds_used && called_used ? 1 : 0;
  }
}

}  // namespace

void Truth::finish() {
  std::sort(free.begin(), free.end(),
            [](const Range& a, const Range& b) { return a.first < b.first; });
  std::vector<Range> merged;
  for (const Range& range : free) {
    if (!merged.empty() && merged.back().end >= range.first) {
      merged.back().end = std::max(merged.back().end, range.end);
    } else {
      merged.push_back(range);
    }
  }
  free = merged;
}

RealImage::RealImage(u64 bytes, const std::string& tool) {
  std::string name = temp_folder() + "/snbf-image-XXXXXX";
  const int fd = mkstemp(name.data());
  if (fd < 0) abort();
  close(fd);
  path_ = name;
  truncate(bytes);
  run(tool);
}

RealImage::~RealImage() { unlink(path_.c_str()); }

std::string RealImage::expand(const std::string& command) const {
  std::string text;
  for (char c : command) {
    if (c == '@') {
      text += path_;
    } else if (c == '%') {
      text += tree_path();
    } else {
      text += c;
    }
  }
  return text;
}

void RealImage::run(const std::string& command) const {
  const std::string text =
      "PATH=$PATH:/usr/sbin:/sbin; (" + expand(command) + ") >" + path_ + ".out 2>&1 </dev/null";
  if (system(text.c_str()) != 0) {
    std::ifstream out(path_ + ".out");
    ADD_FAILURE() << expand(command) << "\n"
                  << std::string(std::istreambuf_iterator<char>(out), {});
  }
  unlink((path_ + ".out").c_str());
}

std::string RealImage::output(const std::string& command) const {
  const std::string text = "PATH=$PATH:/usr/sbin:/sbin; " + expand(command) + " 2>/dev/null";
  std::string all;
  FILE* pipe = popen(text.c_str(), "r");
  if (pipe == nullptr) return all;
  char part[4096];
  for (std::size_t n; (n = fread(part, 1, sizeof(part), pipe)) > 0;) all.append(part, n);
  pclose(pipe);
  return all;
}

void RealImage::truncate(u64 bytes) const {
  if (::truncate(path_.c_str(), static_cast<off_t>(bytes)) != 0) abort();
}

u64 RealImage::bytes() const {
  struct stat info = {};
  if (stat(path_.c_str(), &info) != 0) abort();
  return static_cast<u64>(info.st_size);
}

const std::map<u64, Bytes>& RealImage::pages() const {
  if (!pages_.empty()) return pages_;
  const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  off_t data = lseek(fd, 0, SEEK_DATA);
  while (data >= 0) {
    const off_t hole = lseek(fd, data, SEEK_HOLE);
    for (data &= ~off_t{4095}; data < hole; data += 4096) {
      Bytes page(4096);
      const ssize_t got = pread(fd, page.data(), page.size(), data);
      if (got <= 0) abort();
      page.resize(static_cast<std::size_t>(got));
      const bool is_zero = std::all_of(page.begin(), page.end(), [](u8 byte) { return byte == 0; });
      if (!is_zero) pages_[static_cast<u64>(data)] = page;
    }
    data = lseek(fd, hole, SEEK_DATA);
  }
  close(fd);
  return pages_;
}

Truth RealImage::ext_truth() const {
  Truth truth;
  u64 per_cluster = 1;
  std::istringstream lines(output("dumpe2fs @"));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Block count:")) truth.blocks = number_behind(line, ":");
    if (line.starts_with("Block size:"))
      truth.block_size = static_cast<u32>(number_behind(line, ":"));
    if (line.starts_with("Cluster size:"))
      per_cluster = number_behind(line, ":") / truth.block_size;
    const std::string label = "  Free blocks: ";
    if (!line.starts_with(label) || line.size() == label.size()) continue;
    // Of clusters, both ends of a range are named by their first block.
    each_range(line.substr(label.size()), [&](u64 first, u64 last) {
      truth.free.push_back({first, std::min(last + per_cluster, truth.blocks)});
    });
  }
  truth.finish();
  return truth;
}

Truth RealImage::xfs_truth() const {
  Truth truth;
  const std::string geometry =
      output("xfs_db -r -c 'sb 0' -c 'print dblocks' -c 'print blocksize' -c 'print agblocks' @");
  const u64 ag_blocks = number_behind(geometry, "agblocks = ");
  truth.blocks = number_behind(geometry, "dblocks = ");
  truth.block_size = static_cast<u32>(number_behind(geometry, "blocksize = "));
  std::istringstream lines(output("xfs_db -r -c 'freesp -d' @"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    u64 ag = 0, start = 0, length = 0;
    std::string more;
    if (!(fields >> ag >> start >> length) || fields >> more) continue;
    truth.free.push_back({ag * ag_blocks + start, ag * ag_blocks + start + length});
  }
  truth.finish();
  return truth;
}

Truth RealImage::reiserfs_truth() const {
  Truth truth;
  std::istringstream lines(output("debugreiserfs -m @"));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Count of blocks on the device:")) {
      truth.blocks = number_behind(line, ":");
    }
    if (line.starts_with("Blocksize:"))
      truth.block_size = static_cast<u32>(number_behind(line, ":"));
    if (!line.starts_with("#")) continue;
    for (std::size_t at = line.find("Free("); at != std::string::npos;
         at = line.find("Free(", at + 1)) {
      const std::string range = line.substr(at + 5, line.find(')', at) - at - 5);
      each_range(range, [&](u64 first, u64 last) { truth.free.push_back({first, last + 1}); });
    }
  }
  truth.finish();
  return truth;
}

Comparison compare_with_truth(const RealImage& image, const Truth& truth, u32 chunk_size,
                              u64 device_bytes, const std::map<u64, Bytes>& damage) {
  Comparison result;
  if (truth.blocks == 0 || truth.block_size == 0) {
    ADD_FAILURE() << "the file system's own tools say nothing about the image";
    return result;
  }
  const std::map<u64, Bytes>& pages = image.pages();
  run_sim_body(1, [&](Sim& sim) {
    LoggedParts parts(2);
    const u64 bytes = device_bytes != 0 ? device_bytes : image.bytes();
    OpenDevice disk(sim, {.name = "sda1", .bytes = bytes});
    for (const auto& [at, page] : pages) {
      if (at + page.size() <= bytes) disk.device->poke(at / 512, page);
    }
    for (const auto& [at, page] : damage) disk.device->poke(at / 512, page);
    snbf_blkbmp map;
    snbf_blkbmp_init(&map);
    result.rc = snbf_blkbmp_read(&map, disk.bdev, chunk_size);
    judge_map(map, truth, chunk_size, &result);
    result.log = sim.log().dump();
    snbf_blkbmp_destroy(&map);
  });
  return result;
}

int self_test(const RealImage& image) {
  int rc = -1;
  const std::map<u64, Bytes>& pages = image.pages();
  run_sim_body(1, [&](Sim& sim) {
    LoggedParts parts(1);
    OpenDevice disk(sim, {.name = "sda1", .bytes = image.bytes()});
    for (const auto& [at, page] : pages) disk.device->poke(at / 512, page);
    sim.fail_always(Fault::FileOpen);
    rc = snbf_blkbmp_test(disk.bdev);
    EXPECT_TRUE(rc == 0) << sim.log().dump();
  });
  return rc;
}

}  // namespace snbf::sim
