// SPDX-License-Identifier: GPL-2.0-only
// A backup into a directory.
#include <sys/stat.h>

#include <set>

#include "failure.h"
#include "store_fixture.h"

namespace snbf {
namespace {

class Directories : public StoreTest {
 protected:
  Directories() { std::filesystem::create_directories(folder()); }
  std::string folder() const { return directory_ + "/chain"; }
  Manifest manifest() const {
    auto found = read_manifest(folder()).value_or(Manifest{});
    found.chain = "chain";
    return found;
  }
  void put(Store* store, const Plan& plan) {
    Point point = store->open(plan);
    copy(store, device('a'), all());
    store->land(&point);
    store->commit(&point, all(), extents({}));
  }
  void put(const Plan& plan) { put(directory_store(node_, folder(), manifest()).get(), plan); }
  void leave(const std::string& file) { replace_file(folder() + "/" + file, "left over"); }
  std::set<std::string> files() const {
    std::set<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder())) {
      found.insert(entry.path().filename());
    }
    return found;
  }
};

TEST_F(Directories, WhatOneThatWasCutOffHasLeftGoesWithTheNext) {
  put(full_);
  for (const char* file : {"0002-full.qcow2.partial", "0002-diff.qcow2", "0002.skipped"})
    leave(file);
  const Manifest first = manifest();
  put({Level::Incremental, "", "", first.newest()});
  EXPECT_EQ(files(),
            (std::set<std::string>{"0001-full.qcow2", "0002-incr.qcow2", "manifest.json"}));
}

TEST_F(Directories, OneThatFailsAtItsEndLeavesNothing) {
  const auto store = directory_store(node_, folder(), manifest());
  Point point = store->open(full_);
  copy(store.get(), device('a'), all());
  store->land(&point);
  std::filesystem::create_directories(folder() + "/manifest.json.new/in the way");
  EXPECT_THROW(store->commit(&point, all(), extents({5})), Failure);
  store->discard();
  EXPECT_EQ(files(), (std::set<std::string>{"manifest.json", "manifest.json.new"}));
}

TEST_F(Directories, AFirstOneThatWasCutOffStandsInNobodysWay) {
  directory_store(node_, folder(), manifest())->open(full_);
  leave("0001-full.qcow2");
  put(full_);
  EXPECT_EQ(manifest().points.size(), 1u);
}

TEST_F(Directories, OneThatIsNamedIsKeptWhateverFailsBehindIt) {
  const auto store = directory_store(node_, folder(), manifest());
  put(store.get(), full_);
  store->discard();
  EXPECT_TRUE(files().contains("0001-full.qcow2"));
}

TEST_F(Directories, NobodyElseReadsWhatLiesInThem) {
  const mode_t before = ::umask(022);
  put(full_);
  ::umask(before);
  for (const auto& entry : std::filesystem::directory_iterator(folder())) {
    const auto mode = entry.status().permissions() & std::filesystem::perms::all;
    EXPECT_EQ(mode & (std::filesystem::perms::group_all | std::filesystem::perms::others_all),
              std::filesystem::perms::none)
        << entry.path();
  }
}

TEST_F(Directories, ImagesWhoseManifestIsLostAreNotOverwritten) {
  put(full_);
  std::filesystem::remove(folder() + "/manifest.json");
  const auto store = directory_store(node_, folder(), manifest());
  EXPECT_THROW(store->open(full_), Failure);
  store->discard();
  EXPECT_TRUE(files().contains("0001-full.qcow2"));
}

}  // namespace
}  // namespace snbf
