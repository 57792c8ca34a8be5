// SPDX-License-Identifier: GPL-2.0-only
// A disk behind an NBD server: it holds the newest point alone, in place.
//
// What the server cannot keep for us lies beside the node's bitmaps: a manifest with the newest
// point, and samples of what was read back from the target when that point was complete. A target
// that is another one by now, or that somebody wrote to, does not fit them: nothing is built on it.
// A copy that was cut off leaves the target half old and half new, and the manifest says so right
// before the first byte is written: not earlier, or a backup that ended in its hook would claim a
// disk that it has never touched. What a copy had changed is still marked, or marked again, so the
// next increment makes the target whole; only a full one that was cut off has to be a full one
// again. If it was the first, nothing tells what it has written from what others have.
#define XXH_INLINE_ALL
#include "store_nbd.h"

#include <fmt/format.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "failure.h"
#include "files.h"
#include "image.h"
#include "signals.h"
#include "skipped.h"

namespace snbf {

namespace {

constexpr size_t kSamplesMax = 64;  // of either kind
constexpr uint64_t kSampleBytes = 64 << 10;

std::string hash_of(const void* bytes, size_t length) {
  return fmt::format("{:016x}", XXH3_64bits(bytes, length));
}

// Evenly spread over the set extents.
void add_spread(const Extents& among, std::vector<uint64_t>* out) {
  std::vector<uint64_t> all;
  for (const Run& run : among.runs()) {
    for (uint64_t i = 0; i < run.count; ++i) all.push_back(run.first + i);
  }
  const size_t count = std::min(all.size(), kSamplesMax);
  for (size_t i = 0; i < count; ++i) out->push_back(all[all.size() * i / count]);
}

std::vector<uint8_t> beginning_of(ImageWriter* image, const Extents& shape, uint64_t extent) {
  const ByteRange range = shape.range_of({extent, 1});
  std::vector<uint8_t> bytes(std::min(range.length, kSampleBytes));
  image->read(bytes.data(), bytes.size(), range.offset);
  return bytes;
}

std::string sample_hash(ImageWriter* image, const Extents& shape, uint64_t extent) {
  const auto bytes = beginning_of(image, shape, extent);
  return hash_of(bytes.data(), bytes.size());
}

class NbdStore : public Store {
 public:
  NbdStore(const snbf_info& node, const std::string& uri, const std::string& folder,
           const Manifest& manifest)
      : node_(node),
        uri_(uri),
        folder_(folder),
        manifest_(manifest),
        image_(ServerUri{uri}, SignalsNoted::any) {}

  std::string place() const override { return uri_; }

  Point open(const Plan& plan) override {
    Point point;
    point.id = manifest_.next_id();
    point.level = plan.level;
    point.file = "target";
    point.why = plan.why;
    point.detail = plan.detail;
    // The parent is not kept: its bytes become those of this point.
    if (plan.parent) parent_skipped_ = load_skipped(manifest_, *plan.parent, folder_);
    cut_off_before_ = !manifest_.unfinished.empty();
    level_ = plan.level;
    return point;
  }

  Sink& sink() override {
    if (!begun_) begin_overwriting();
    return image_;
  }
  bool blank() const override { return false; }
  const Extents* parent_skipped() const override {
    return parent_skipped_ ? &*parent_skipped_ : nullptr;
  }
  bool parent_skipped_is_zero() const override { return parent_skipped_ && !cut_off_before_; }
  std::string journal_folder() const override { return folder_; }
  std::string journal_point(const Point& point) const override {
    return point_name(manifest_, point.id);
  }

  void land(Point* point) override {
    image_.drain();
    point->file_bytes = node_.dev_size;
  }

  void commit(Point* point, const Extents& copied, const Extents& skipped) override {
    const std::string old = manifest_.points.empty() ? "" : manifest_.points.back().skipped_file;
    Manifest done = manifest_;
    describe_node(node_, &done);
    done.target = uri_;
    done.unfinished.clear();
    done.samples = take_samples(copied, skipped);
    image_.finish();
    store_skipped(folder_, skipped, point);
    done.points = {*point};
    replace_file(manifest_path(folder_), to_json_text(done));
    if (!old.empty() && old != point->skipped_file) ::unlink((folder_ + "/" + old).c_str());
  }

  void discard() noexcept override {}
  std::string left_behind() const override {
    if (!begun_) return Store::left_behind();
    return "the server's disk is half old and half new until a backup onto it is complete";
  }

 private:
  void begin_overwriting() {
    Manifest begun = manifest_;
    describe_node(node_, &begun);
    begun.target = uri_;
    // A full one that was cut off stays so, whatever follows it, until one is complete.
    if (begun.unfinished != "full") begun.unfinished = level_name(level_);
    replace_file(manifest_path(folder_), to_json_text(begun));
    begun_ = true;
  }

  std::vector<Sample> take_samples(const Extents& copied, const Extents& skipped) {
    std::vector<uint64_t> chosen;
    Extents held = copied;
    held.set_all();
    held.subtract(skipped);
    add_spread(held, &chosen);
    add_spread(copied, &chosen);
    std::sort(chosen.begin(), chosen.end());
    chosen.erase(std::unique(chosen.begin(), chosen.end()), chosen.end());
    std::vector<Sample> samples;
    for (uint64_t extent : chosen) {
      samples.push_back({extent, sample_hash(&image_, copied, extent)});
    }
    return samples;
  }

  const snbf_info& node_;
  std::string uri_;
  std::string folder_;
  Manifest manifest_;
  ImageWriter image_;
  std::optional<Extents> parent_skipped_;
  Level level_ = Level::Full;
  bool begun_ = false;  // the manifest says so
  bool cut_off_before_ = false;
};

bool looks_blank(ImageWriter* image, const Extents& shape) {
  std::vector<uint64_t> chosen{0, shape.extent_cnt() - 1};
  Extents all = shape;
  all.set_all();
  add_spread(all, &chosen);
  return std::all_of(chosen.begin(), chosen.end(), [&](uint64_t extent) {
    const auto bytes = beginning_of(image, shape, extent);
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
  });
}

// The samples were taken in the manifest's shape; what the target does not reach is not there.
std::string sample_damage(ImageWriter* image, const Manifest& manifest, const Extents& changed) {
  const Extents shape = blank_extents(manifest);
  const bool same = shape.same_shape(changed);
  // What is marked now may have been copied by one that was cut off: which, is known in its shape.
  if (!same && !manifest.unfinished.empty()) return "";
  for (const Sample& sample : manifest.samples) {
    if (sample.extent >= shape.extent_cnt() || (same && changed.test(sample.extent))) continue;
    const ByteRange range = shape.range_of({sample.extent, 1});
    const bool there = range.offset + range.length <= image->size();
    if (there && sample_hash(image, shape, sample.extent) == sample.hash) continue;
    return fmt::format("it is not as the last backup left it (extent {})", sample.extent);
  }
  return "";
}

}  // namespace

bool is_nbd_uri(const std::string& text) {
  for (const char* scheme : {"nbd://", "nbds://", "nbd+unix://", "nbds+unix://", "nbd+vsock://"}) {
    if (text.rfind(scheme, 0) == 0) return true;
  }
  return false;
}

std::string nbd_folder(const snbf_info& node, const std::string& uri) {
  return fmt::format("{}/{}.nbd-{}", bmp_dir_of(node), node.name, hash_of(uri.data(), uri.size()));
}

NbdLook look_at_nbd(const std::string& uri, const Extents& changed, const Manifest* manifest) {
  ImageWriter image(ServerUri{uri});
  NbdLook look;
  if (image.size() < changed.dev_size()) {
    throw Failure(
        kFailed,
        fmt::format("{} has {} bytes, and the partition {}", uri, image.size(), changed.dev_size()),
        "serve a disk that is at least as large");
  }
  look.blank = looks_blank(&image, changed);
  if (!manifest) return look;
  const bool full_cut_off = manifest->unfinished == "full";
  if (full_cut_off) look.damage = "a full backup onto it was cut off";
  if (manifest->points.empty()) return look;
  if (!full_cut_off) look.damage = sample_damage(&image, *manifest, changed);
  look.ours = full_cut_off || look.damage.empty();
  return look;
}

std::unique_ptr<Store> nbd_store(const snbf_info& node, const std::string& uri,
                                 const std::string& folder, const Manifest& manifest) {
  return std::make_unique<NbdStore>(node, uri, folder, manifest);
}

}  // namespace snbf
