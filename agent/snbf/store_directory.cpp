// SPDX-License-Identifier: GPL-2.0-only
// A directory: each point is a qcow2 image that stands on its parent's.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <optional>

#include "failure.h"
#include "files.h"
#include "image.h"
#include "output.h"
#include "signals.h"
#include "skipped.h"
#include "store.h"

namespace snbf {

namespace {

class DirectoryStore : public Store {
 public:
  DirectoryStore(const snbf_info& node, const std::string& directory, const Manifest& manifest)
      : node_(node), directory_(directory), manifest_(manifest) {}

  std::string place() const override { return directory_; }

  Point open(const Plan& plan) override {
    Point point;
    point.id = manifest_.next_id();
    point.level = plan.level;
    point.file = file_of(point.id, plan.level);
    point.why = plan.why;
    point.detail = plan.detail;
    if (plan.parent) {
      point.parent = plan.parent->id;
      parent_skipped_ = load_skipped(manifest_, *plan.parent, directory_);
    }
    partial_ = path(point.file + kPartial);
    if (!read_manifest(directory_)) begin_chain(point.file);
    id_ = point.id;  // from here all that has its number is ours
    remove_left_over();
    create_image(partial_, node_.dev_size, cluster_for(node_.extent_size),
                 plan.parent ? plan.parent->file : "");
    image_.emplace(partial_, SignalsNoted::any);
    return point;
  }

  Sink& sink() override { return *image_; }
  bool blank() const override { return !parent_skipped_; }
  const Extents* parent_skipped() const override {
    return parent_skipped_ ? &*parent_skipped_ : nullptr;
  }
  std::string journal_folder() const override { return directory_; }
  std::string journal_point(const Point& point) const override {
    return point_name(manifest_, point.id);
  }

  void land(Point* point) override {
    image_->finish();
    sync_file(partial_);
    struct stat about;
    if (::stat(partial_.c_str(), &about) < 0) throw failure_of(-errno, "looking at " + partial_);
    point->file_bytes = static_cast<uint64_t>(about.st_size);
    point->hash = hash_file(partial_);
  }

  void commit(Point* point, const Extents&, const Extents& skipped) override {
    const std::string image = path(point->file);
    store_skipped(directory_, skipped, point);
    if (::rename(partial_.c_str(), image.c_str()) < 0) throw failure_of(-errno, "naming " + image);
    sync_directory(directory_);
    manifest_.points.push_back(*point);
    describe_node(node_, &manifest_);
    replace_file(manifest_path(directory_), to_json_text(manifest_));
  }

  void discard() noexcept override {
    try {
      image_.reset();
      remove_left_over();
    } catch (const std::exception& error) {
      warn(error.what());
    }
  }

 private:
  static constexpr const char* kPartial = ".partial";
  static constexpr Level kLevels[] = {Level::Full, Level::Incremental, Level::Differential};

  static std::string file_of(uint64_t id, Level level) {
    return fmt::format("{:04}-{}.qcow2", id, level_name(level));
  }
  std::string path(const std::string& file) const { return directory_ + "/" + file; }

  // A manifest without points tells what a first backup leaves when it is cut off from the images
  // of a chain whose manifest is lost: those can still be read by hand.
  void begin_chain(const std::string& file) {
    if (::access(path(file).c_str(), F_OK) == 0) {
      throw Failure(kUnsafe, fmt::format("{} is there, and no manifest names it", path(file)),
                    "bring back the manifest.json beside it, or back up to another directory");
    }
    describe_node(node_, &manifest_);
    replace_file(manifest_path(directory_), to_json_text(manifest_));
  }

  // What this point, or one of its number that was cut off, has left; whatever its level was.
  void remove_left_over() const {
    if (id_ == 0) return;
    const auto now = read_manifest(directory_);
    if (now && now->find(id_)) return;
    for (const Level level : kLevels) {
      remove_file(path(file_of(id_, level) + kPartial));
      remove_file(path(file_of(id_, level)));
    }
    remove_file(path(skipped_name(id_)));
  }

  const snbf_info& node_;
  std::string directory_;
  Manifest manifest_;
  uint64_t id_ = 0;
  std::string partial_;
  std::optional<ImageWriter> image_;
  std::optional<Extents> parent_skipped_;
};

}  // namespace

std::unique_ptr<Store> directory_store(const snbf_info& node, const std::string& directory,
                                       const Manifest& manifest) {
  return std::make_unique<DirectoryStore>(node, directory, manifest);
}

}  // namespace snbf
