// SPDX-License-Identifier: GPL-2.0-only
// Attach over a driver that the test plays: which files are believed, whose they are, and who may have them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "identity.h"
#include "libsnbf.h"
#include "played_devices.h"

namespace snbf::played {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr uint32_t kExtent = 4096;
constexpr size_t kDiskBytes = 64 * kExtent;  // bitmaps of 8 bytes
constexpr const char* kSuffixes[] = {".incr", ".diff"};

uint32_t crc_register(const std::string& bytes) {
  uint32_t value = 0xFFFFFFFF;
  for (const char byte : bytes) {
    value ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320u : 0u);
  }
  return value;
}

std::string little_endian(uint32_t value) {
  std::string text(4, '\0');
  for (int i = 0; i < 4; ++i) text[static_cast<size_t>(i)] = static_cast<char>(value >> (8 * i));
  return text;
}

std::string clean_file(const std::string& bits) {
  return std::string("SNBFBMP\0", 8) + little_endian(static_cast<uint32_t>(bits.size())) +
         little_endian(crc_register(bits)) + bits;
}

class Attach : public testing::Test {
 protected:
  Attach() {
    char name[] = "/tmp/attach-XXXXXX";
    dir_ = ::mkdtemp(name);
    store_ = dir_ + "/store";
    std::filesystem::create_directories(store_);
    put("module/snbf/parameters/snbf_max_blk_minor", "9\n");
    put("snbf/blk_major", "240\n");
    put("sys/kernel/random/boot_id", "this-boot\n");
    make_disk("disk", makedev(7, 1), "one");
    const std::string lock = dir_ + "/lock";
    libsnbf_options options{};
    options.lock_path = lock.c_str();
    options.sys_root = options.proc_root = dir_.c_str();
    options.ioctl = [](void* context, uint32_t command, void* record) {
      return static_cast<Attach*>(context)->answer(command, record);
    };
    options.ioctl_context = this;
    EXPECT_EQ(libsnbf_open(&options, &handle_), 0);
  }
  ~Attach() override {
    libsnbf_close(handle_);
    forget_played();
    std::filesystem::remove_all(dir_);
  }

  void put(const std::string& file, const std::string& text) {
    const std::filesystem::path path = dir_ + "/" + file;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  std::string text_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static std::string sys_folder(dev_t number) {
    return "dev/block/" + std::to_string(major(number)) + ":" + std::to_string(minor(number));
  }
  // By its UUID, a device of device-mapper.
  void make_disk(const std::string& name, dev_t number, const std::string& uuid) {
    put(name, std::string(kDiskBytes, 'd'));
    put(sys_folder(number) + "/dm/uuid", uuid + "\n");
    play_device(dir_ + "/" + name, number);
  }

  int attach(const std::string& disk = "disk", const std::string& name = "data", int minor = -1,
             bool adopt = false) {
    const std::string partition = dir_ + "/" + disk;
    request_ = {};
    request_.partition = partition.c_str();
    request_.name = name.c_str();
    request_.bmp_dir = store_.c_str();
    request_.minor = minor;
    request_.extent_size = kExtent;
    request_.adopt = adopt;
    sent_.clear();
    const int rc = libsnbf_attach(handle_, &request_);
    request_.partition = request_.name = request_.bmp_dir = nullptr;
    return rc;
  }
  std::string distrust() const { return request_.distrust; }
  void detach(uint32_t minor = 0) { ASSERT_EQ(libsnbf_detach(handle_, minor), 0); }
  libsnbf_state record(uint32_t minor = 0) {
    libsnbf_state state;
    EXPECT_EQ(libsnbf_state_read(store_.c_str(), minor, &state), 0);
    return state;
  }
  void write_record(const libsnbf_state& state, uint32_t minor = 0) {
    ASSERT_EQ(libsnbf_state_write(store_.c_str(), minor, &state), 0);
  }
  // As a full backup leaves it: detached, stopped cleanly, believed.
  void leave_trusted() {
    ASSERT_EQ(attach(), 0);
    detach();
    libsnbf_state state = record();
    std::memset(state.distrust, 0, sizeof state.distrust);
    write_record(state);
    for (const char* suffix : kSuffixes)
      put(std::string("store/snbf0") + suffix, clean_file(std::string(8, '\1')));
  }
  std::string bitmap_file(const char* suffix, uint32_t minor = 0) {
    return text_of(store_ + "/snbf" + std::to_string(minor) + suffix);
  }

  int answer(uint32_t command, void* record) {
    const uint32_t minor = *static_cast<uint32_t*>(record);
    sent_.push_back(command);
    if (on_command_) on_command_(command);
    switch (command) {
      case SNBF_GET_DEVICE_LIST: {
        auto* list = static_cast<snbf_device_list*>(record);
        for (const auto& node : nodes_) {
          if (node.second.dev_type == list->dev_type) list->minors[list->count++] = node.first;
        }
        return 0;
      }
      case SNBF_ADD_FILTER_NODE:
        if (refused_add_ != 0) return refused_add_;
        return add(static_cast<snbf_filter_node_cmd*>(record));
    }
    if (!nodes_.contains(minor)) return -EINVAL;
    snbf_info& node = nodes_.at(minor);
    switch (command) {
      case SNBF_GET_INFO:
        *static_cast<snbf_info*>(record) = node;
        return 0;
      case SNBF_START_NODE:
        node.started = 1;
        return 0;
      case SNBF_STOP_NODE:
        node.started = 0;
        return 0;
      case SNBF_DEL_NODE:
        nodes_.erase(minor);
        return 0;
      case SNBF_SET_BMP: {
        const auto* bits = static_cast<snbf_bmp_cmd*>(record);
        EXPECT_EQ(bits->size, 0) << "all ones";
        bits_[bits->type] = std::string(8, '\xFF');
        return save(minor, bits->type);
      }
      case SNBF_SAVE_BMP:
        return save(minor, static_cast<snbf_bmp_sel*>(record)->type);
    }
    return 0;
  }
  int add(snbf_filter_node_cmd* record) {
    const auto minor = static_cast<uint32_t>(record->minor);
    if (!record->uuid[0]) std::strcpy(record->uuid, ("{" + std::to_string(++uuids_) + "}").c_str());
    snbf_info& node = nodes_[minor];
    node = {};
    node.minor = minor;
    node.dev_type = SNBF_DEV_FILTER;
    std::strcpy(node.name, record->name);
    std::strcpy(node.uuid, record->uuid);
    std::strcpy(node.hdd_name, record->hdd_name);
    const std::string stem = std::string(record->bmp_dir) + "/snbf" + std::to_string(minor);
    std::strcpy(node.incr_bmp_fname, (stem + ".incr").c_str());
    std::strcpy(node.diff_bmp_fname, (stem + ".diff").c_str());
    for (const char* field : {"incr_bmp_dirty", "diff_bmp_dirty"}) put_field(minor, field, "0\n");
    for (uint32_t type : {SNBF_BMP_INCR, SNBF_BMP_DIFF}) bits_[type] = std::string(8, '\1');
    return 0;
  }
  void put_field(uint32_t minor, const std::string& field, const std::string& text) {
    put("snbf/snbf" + std::to_string(minor) + "/" + field, text);
  }
  // A save that the driver refuses shows in the dirty field alone.
  int save(uint32_t minor, uint32_t type) {
    const bool incr = type == SNBF_BMP_INCR;
    put_field(minor, incr ? "incr_bmp_dirty" : "diff_bmp_dirty",
              type == refused_type_ ? "1\n" : "0\n");
    if (type == refused_type_) return 0;
    std::ofstream(incr ? nodes_[minor].incr_bmp_fname : nodes_[minor].diff_bmp_fname,
                  std::ios::binary)
        << clean_file(bits_[type]);
    return 0;
  }

  std::string dir_;
  std::string store_;
  libsnbf* handle_ = nullptr;
  libsnbf_attach_request request_{};
  std::vector<uint32_t> sent_;
  std::map<uint32_t, snbf_info> nodes_;
  std::map<uint32_t, std::string> bits_;
  std::function<void(uint32_t)> on_command_;
  uint32_t refused_type_ = UINT32_MAX;
  int refused_add_ = 0;
  int uuids_ = 0;
};

// --- which files are believed -----------------------------------------------------------------------

TEST_F(Attach, FilesOfACleanStopAreBelievedAndSavedAtOnce) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), "");
  EXPECT_THAT(sent_, Contains(SNBF_SAVE_BMP).Times(2));
  EXPECT_THAT(sent_, Not(Contains(SNBF_SET_BMP)));
}

TEST_F(Attach, AFileThatWasRefusedIsNeverFoundCleanLater) {
  const std::string clean = clean_file(std::string(8, '\1'));
  std::string flipped = clean;
  flipped.back() ^= 4;
  const std::pair<std::string, const char*> kDamages[] = {
      {"", LIBSNBF_WHY_CORRUPT},
      {"SNBFBMX" + clean.substr(7), LIBSNBF_WHY_CORRUPT},
      {std::string("SNBFBMP\1", 8), LIBSNBF_WHY_DIRTY},
      {clean_file(std::string(9, '\1')), LIBSNBF_WHY_SIZE},
      {flipped, LIBSNBF_WHY_CHECKSUM},
      {clean.substr(0, clean.size() - 1), LIBSNBF_WHY_CHECKSUM},
      {"gone", LIBSNBF_WHY_MISSING},
  };
  for (const auto& [contents, why] : kDamages) {
    for (const char* suffix : kSuffixes) {
      SCOPED_TRACE(std::string(why) + suffix);
      std::filesystem::remove(store_ + "/snbf0.state");
      leave_trusted();
      put(std::string("store/snbf0") + suffix, contents);
      if (contents == "gone") std::filesystem::remove(store_ + "/snbf0" + suffix);
      ASSERT_EQ(attach(), 0);
      EXPECT_EQ(distrust(), why);
      EXPECT_THAT(sent_, Contains(SNBF_SET_BMP).Times(2));
      for (const char* each : kSuffixes)
        EXPECT_EQ(bitmap_file(each), clean_file(std::string(8, '\xFF'))) << each;
      // The machine goes down before anything else; or it is stopped, and the file is clean: still no backup has it.
      nodes_.clear();
      ASSERT_EQ(attach(), 0);
      EXPECT_EQ(distrust(), why);
      detach();
      ASSERT_EQ(attach(), 0);
      EXPECT_EQ(distrust(), why);
      EXPECT_EQ(bitmap_file(suffix), clean_file(std::string(8, '\xFF')));
      detach();
    }
  }
}

TEST_F(Attach, WithoutACleanStopNothingIsBelieved) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  nodes_.clear();
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_UNCLEAN);
  EXPECT_THAT(sent_, Contains(SNBF_SET_BMP).Times(2));
}

TEST_F(Attach, APartitionThatWasWrittenMeanwhileIsNotBelieved) {
  leave_trusted();
  put("disk", std::string(kDiskBytes, 'e'));
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_OUTSIDE);
}

TEST_F(Attach, ABitmapThatCannotBeSavedIsTheEndOfIt) {
  for (uint32_t type : {SNBF_BMP_INCR, SNBF_BMP_DIFF}) {
    refused_type_ = type;
    EXPECT_EQ(attach(), -EIO);
    EXPECT_THAT(nodes_, IsEmpty());
  }
  refused_type_ = UINT32_MAX;
  ASSERT_EQ(attach(), 0);
  EXPECT_NE(distrust(), "");
}

// --- whose they are -----------------------------------------------------------------------------------

TEST_F(Attach, FilesOfAnotherPartitionAreRefusedUnlessAdopted) {
  leave_trusted();
  make_disk("other", makedev(7, 2), "two");
  const std::string before = text_of(store_ + "/snbf0.state");
  for (const auto& [name, minor] : {std::pair{"data", -1}, {"data", 0}, {"another", 0}}) {
    EXPECT_EQ(attach("other", name, minor), -EMEDIUMTYPE) << name << minor;
    EXPECT_EQ(request_.minor_used, 0u);
    EXPECT_THAT(sent_, Not(Contains(SNBF_ADD_FILTER_NODE)));
    EXPECT_EQ(text_of(store_ + "/snbf0.state"), before);
  }
  const std::string uuid = record().uuid;
  ASSERT_EQ(attach("other", "data", -1, true), 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_ADOPTED);
  EXPECT_EQ(bitmap_file(".incr"), clean_file(std::string(8, '\xFF')));
  EXPECT_EQ(bitmap_file(".diff"), clean_file(std::string(8, '\xFF')));
  EXPECT_STREQ(record().device, "dm:two");
  EXPECT_NE(record().uuid, uuid) << "its snaps are not the other one's";
  detach();
  EXPECT_EQ(attach(), -EMEDIUMTYPE) << "now they are the other one's";
}

TEST_F(Attach, ItsOwnFilesAreFoundAgainUnderAnotherNumber) {
  leave_trusted();
  make_disk("disk", makedev(7, 3), "one");
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), "");
}

TEST_F(Attach, AdoptingItsOwnFilesChangesNothing) {
  leave_trusted();
  ASSERT_EQ(attach("disk", "data", -1, true), 0);
  EXPECT_EQ(distrust(), "");
}

TEST_F(Attach, ARecordWithoutATieIsReadAndTied) {
  leave_trusted();
  std::string text = text_of(store_ + "/snbf0.state");
  const size_t tie = text.find("device=");
  ASSERT_NE(tie, std::string::npos);
  text.erase(tie, text.find('\n', tie) + 1 - tie);
  put("store/snbf0.state", text);
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), "");
  EXPECT_STREQ(record().device, "dm:one");
}

TEST_F(Attach, ADeviceOfWhichNothingLastingIsKnownIsNotTied) {
  std::filesystem::remove_all(dir_ + "/" + sys_folder(makedev(7, 1)));
  leave_trusted();
  EXPECT_STREQ(record().device, "");
  make_disk("other", makedev(7, 2), "two");
  ASSERT_EQ(attach("other"), 0);
}

TEST_F(Attach, ATiedRecordIsNotForADeviceOfWhichNothingIsKnown) {
  leave_trusted();
  std::filesystem::remove_all(dir_ + "/" + sys_folder(makedev(7, 1)));
  EXPECT_EQ(attach(), -EMEDIUMTYPE);
}

// A later kernel may know a disk by more than an earlier one did.
TEST_F(Attach, AnyIdentityThatTheDeviceStillHasWillDo) {
  std::filesystem::remove_all(dir_ + "/" + sys_folder(makedev(7, 1)));
  put(sys_folder(makedev(7, 1)) + "/serial", "S-1\n");
  leave_trusted();
  EXPECT_STREQ(record().device, "serial:S-1");
  put(sys_folder(makedev(7, 1)) + "/wwid", "naa.1\n");
  ASSERT_EQ(attach(), 0);
  EXPECT_STREQ(record().device, "wwid:naa.1");
}

// What happens to it then is not in the bitmaps of the first name.
TEST_F(Attach, APartitionThatWasAttachedUnderAnotherNameIsNotBelievedUnderItsFirst) {
  leave_trusted();
  ASSERT_EQ(attach("disk", "second"), 0);
  EXPECT_EQ(request_.minor_used, 1u);
  detach(1);
  ASSERT_EQ(attach("disk", "data"), 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_UNCLEAN);
}

TEST_F(Attach, OneThatTheDriverRefusesLeavesEveryRecordAsItWas) {
  leave_trusted();
  const std::string before = text_of(store_ + "/snbf0.state");
  refused_add_ = -EBUSY;
  EXPECT_EQ(attach("disk", "wrong"), -EBUSY);
  EXPECT_EQ(text_of(store_ + "/snbf0.state"), before);
  EXPECT_FALSE(std::filesystem::exists(store_ + "/snbf1.state"));
  EXPECT_EQ(attach(), -EBUSY);
  EXPECT_EQ(text_of(store_ + "/snbf0.state"), before);
  refused_add_ = 0;
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), "");
}

TEST_F(Attach, OneWhoseRecordCannotBeWrittenLeavesTheOthersAsTheyWere) {
  leave_trusted();
  const std::string before = text_of(store_ + "/snbf0.state");
  std::filesystem::create_directories(store_ + "/snbf1.state.new");
  EXPECT_EQ(attach("disk", "wrong"), -EISDIR);
  EXPECT_THAT(sent_, Not(Contains(SNBF_ADD_FILTER_NODE)));
  EXPECT_EQ(text_of(store_ + "/snbf0.state"), before);
}

// A crash while the driver is at it must not leave the first one believed.
TEST_F(Attach, TheFirstNameIsUncleanBeforeTheSecondOneIsThere) {
  leave_trusted();
  on_command_ = [this](uint32_t command) {
    if (command != SNBF_ADD_FILTER_NODE) return;
    EXPECT_EQ(record().stopped_clean, 0);
  };
  ASSERT_EQ(attach("disk", "second"), 0);
  EXPECT_EQ(record().stopped_clean, 0);
}

TEST_F(Attach, WhatSomebodyElseWroteMeanwhileStays) {
  leave_trusted();
  refused_add_ = -EBUSY;
  on_command_ = [this](uint32_t command) {
    if (command != SNBF_ADD_FILTER_NODE) return;
    libsnbf_state state = record();
    std::strcpy(state.incr_point, "chain:9");
    write_record(state);
  };
  EXPECT_EQ(attach("disk", "wrong"), -EBUSY);
  EXPECT_STREQ(record().incr_point, "chain:9");
  EXPECT_EQ(record().stopped_clean, 1);
  on_command_ = [this](uint32_t command) {
    if (command != SNBF_ADD_FILTER_NODE) return;
    libsnbf_state state = record();
    state.epoch += 1;  // it was started
    write_record(state);
  };
  EXPECT_EQ(attach("disk", "wrong"), -EBUSY);
  EXPECT_EQ(record().stopped_clean, 0);
}

TEST_F(Attach, ARecordThatCannotBeReadIsNotTakenForADamagedOne) {
  leave_trusted();
  std::filesystem::rename(store_ + "/snbf0.state", dir_ + "/kept");
  std::filesystem::create_symlink("/proc/self/mem", store_ + "/snbf0.state");
  EXPECT_EQ(attach(), -EIO);
  EXPECT_EQ(attach("disk", "second"), -EIO) << "nobody knows whether the other one says clean";
  EXPECT_THAT(sent_, Not(Contains(SNBF_ADD_FILTER_NODE)));
  EXPECT_TRUE(std::filesystem::is_symlink(store_ + "/snbf0.state"));
  std::filesystem::rename(dir_ + "/kept", store_ + "/snbf0.state");
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), "");
}

TEST_F(Attach, ABitmapThatCannotBeReadIsWrittenAnew) {
  leave_trusted();
  std::filesystem::remove(store_ + "/snbf0.incr");
  std::filesystem::create_symlink("/proc/self/mem", store_ + "/snbf0.incr");
  on_command_ = [this](uint32_t command) {
    if (command == SNBF_ADD_FILTER_NODE) std::filesystem::remove(store_ + "/snbf0.incr");
  };
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_CORRUPT);
  EXPECT_EQ(bitmap_file(".incr"), clean_file(std::string(8, '\xFF')));
}

// --- which minor it gets --------------------------------------------------------------------------------

TEST_F(Attach, WhereItsMinorIsTakenItGetsAnotherAndSaysSo) {
  leave_trusted();
  nodes_[0].dev_type = SNBF_DEV_SNAP;
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(request_.minor_used, 1u);
  EXPECT_EQ(request_.minor_before, 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_OTHER_MINOR);
  EXPECT_EQ(bitmap_file(".incr", 1), clean_file(std::string(8, '\xFF')));
  EXPECT_EQ(record().stopped_clean, 0) << "what happens to it now is not in its old files";
}

TEST_F(Attach, GoesOnUnderTheMinorThatItHadLast) {
  leave_trusted();
  nodes_[0].dev_type = SNBF_DEV_SNAP;
  ASSERT_EQ(attach(), 0);
  detach(1);
  libsnbf_state state = record(1);
  std::memset(state.distrust, 0, sizeof state.distrust);  // a full backup has been made
  write_record(state, 1);
  nodes_.clear();
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(request_.minor_used, 1u) << "0 is free again, and its files are the old ones";
  EXPECT_EQ(request_.minor_before, -1);
  EXPECT_EQ(distrust(), "");
}

TEST_F(Attach, AMinorThatIsAskedForIsNoSurpriseButItsFilesAreOthers) {
  leave_trusted();
  ASSERT_EQ(attach("disk", "data", 5), 0);
  EXPECT_EQ(request_.minor_used, 5u);
  EXPECT_EQ(request_.minor_before, 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_OTHER_MINOR);
}

TEST_F(Attach, ANameThatIsNewHasNoMinorBefore) {
  leave_trusted();
  make_disk("other", makedev(7, 2), "two");
  ASSERT_EQ(attach("other", "second"), 0);
  EXPECT_EQ(request_.minor_before, -1);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_MISSING);
  detach(1);
  ASSERT_EQ(attach("other", "data", 2), 0);
  EXPECT_EQ(request_.minor_before, -1) << "the record of the name is of another partition";
}

TEST_F(Attach, ARecordOfAnotherPartitionIsLeftAloneByItsNeighbour) {
  leave_trusted();
  make_disk("other", makedev(7, 2), "two");
  ASSERT_EQ(attach("other", "second"), 0);
  detach(1);
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), "");
}

TEST_F(Attach, IsKnownByTheSurestThatThereIs) {
  const dev_t device = makedev(9, 9);
  const auto known = [&] { return lib::identities_of(*handle_, device); };
  EXPECT_THAT(known(), IsEmpty());
  put(sys_folder(device) + "/loop/backing_file", "/srv/image\n");
  put(sys_folder(device) + "/loop/offset", "0\n");
  EXPECT_THAT(known(), ElementsAre("loop:/srv/image"));
  put(sys_folder(device) + "/loop/offset", "1048576\n");
  EXPECT_THAT(known(), ElementsAre("loop:/srv/image+1048576"));
  put(sys_folder(device) + "/loop/backing_file", "/" + std::string(500, 'x') + "\n");
  EXPECT_LT(known().at(0).size(), sizeof libsnbf_state::device);
  std::filesystem::remove_all(dir_ + "/" + sys_folder(device) + "/loop");
  put(sys_folder(device) + "/device/serial", "  S 2 \n");
  put(sys_folder(device) + "/device/wwid", "t10.ATA\n");
  EXPECT_THAT(known(), ElementsAre("wwid:t10.ATA", "serial:S 2"));
  put(sys_folder(device) + "/dm/name", "vol\n");
  put(sys_folder(device) + "/dm/uuid", "\n");
  EXPECT_EQ(known().at(0), "dm-name:vol");
  put(sys_folder(device) + "/dm/uuid", "LVM-1\n");
  EXPECT_EQ(known().at(0), "dm:LVM-1");
}

TEST_F(Attach, APartitionWithoutAnIdentityIsKnownByItsDisk) {
  put("devices/sda/serial", "S-3\n");
  put("devices/sda/sda2/partition", "2\n");
  std::filesystem::create_directories(dir_ + "/dev/block");
  std::filesystem::create_directory_symlink(dir_ + "/devices/sda/sda2", dir_ + "/dev/block/9:2");
  EXPECT_THAT(lib::identities_of(*handle_, makedev(9, 2)), ElementsAre("serial:S-3-part2"));
}

// --- names and minors ---------------------------------------------------------------------------------

TEST_F(Attach, NamesAreUniqueAndNotTheDrivers) {
  make_disk("other", makedev(7, 2), "two");
  EXPECT_EQ(attach("disk", "snbf3"), -EILSEQ);
  EXPECT_EQ(attach("disk", "snbf3", 2), -EILSEQ);
  EXPECT_EQ(attach("disk", "control"), -EILSEQ);
  EXPECT_EQ(attach("disk", ".data"), -EILSEQ);
  EXPECT_THAT(nodes_, IsEmpty());
  ASSERT_EQ(attach("disk", "snbf3", 3), 0);
  EXPECT_EQ(attach("other", "snbf3", 4), -EEXIST);
  EXPECT_EQ(attach("other", "snbf"), 0) << "no number";
}

TEST_F(Attach, TheHighestMinorIsNeverUsed) {
  EXPECT_EQ(attach("disk", "data", 9), -ERANGE);
  EXPECT_EQ(attach("disk", "data", 10), -ERANGE);
  for (uint32_t minor = 0; minor < 9; ++minor) nodes_[minor].dev_type = SNBF_DEV_SNAP;
  EXPECT_EQ(attach(), -ENOSPC);
  nodes_.clear();
  EXPECT_EQ(attach("disk", "data", 8), 0);
  snbf_filter_node_cmd filter{};
  filter.minor = 9;
  snbf_snap_node_cmd snap{};
  snap.snbf_minor = 8;
  snap.snap_minor = 9;
  sent_.clear();
  EXPECT_EQ(libsnbf_add_filter_node(handle_, &filter), -ERANGE);
  EXPECT_EQ(libsnbf_add_snap_node(handle_, &snap), -ERANGE);
  EXPECT_THAT(sent_, IsEmpty());
}

// Between the question and the command that must not be refused nobody may change the answer.
TEST_F(Attach, WhateverChangesNodesHoldsTheHostsLock) {
  ASSERT_EQ(attach(), 0);
  std::vector<uint32_t> guarded;
  on_command_ = [&](uint32_t command) {
    const int fd = ::open((dir_ + "/lock").c_str(), O_RDWR | O_CLOEXEC);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) guarded.push_back(command);
    ::close(fd);
  };
  snbf_snap_node_cmd snap{};
  const snbf_resume_cmd resume{};
  libsnbf_start_node(handle_, 0);
  libsnbf_stop_node(handle_, 0);
  libsnbf_resume_snap(handle_, &resume);
  libsnbf_add_snap_node(handle_, &snap);
  libsnbf_del_node(handle_, 0);
  EXPECT_THAT(guarded, ElementsAre(SNBF_START_NODE, SNBF_STOP_NODE, SNBF_GET_INFO, SNBF_GET_INFO,
                                   SNBF_ADD_SNAP_NODE, SNBF_DEL_NODE));
}

// --- a store that has gone away -----------------------------------------------------------------------

class AwayStore : public Attach {
 protected:
  // As an unmount leaves it: the folder is there, and empty.
  void unmount() {
    std::filesystem::rename(store_, dir_ + "/away");
    std::filesystem::create_directories(store_);
  }
  void mount() {
    std::filesystem::remove_all(store_);
    std::filesystem::rename(dir_ + "/away", store_);
  }
};

TEST_F(AwayStore, ANodeIsNotStoppedBesideIt) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  ASSERT_EQ(libsnbf_start(handle_, 0), 0);
  unmount();
  EXPECT_EQ(libsnbf_stop(handle_, 0), -ENOLINK);
  EXPECT_EQ(nodes_.at(0).started, 1u);
  mount();
  EXPECT_EQ(record().stopped_clean, 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  EXPECT_EQ(record().stopped_clean, 1);
}

TEST_F(AwayStore, ANodeIsNotStartedBesideIt) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  ASSERT_EQ(libsnbf_stop(handle_, 0), 0);
  unmount();
  EXPECT_EQ(libsnbf_start(handle_, 0), -ENOLINK);
  EXPECT_EQ(nodes_.at(0).started, 0u);
}

TEST_F(AwayStore, ADetachGoesOnAndLeavesItUnclean) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  ASSERT_EQ(libsnbf_start(handle_, 0), 0);
  unmount();
  detach();
  EXPECT_THAT(nodes_, IsEmpty());
  mount();
  ASSERT_EQ(attach(), 0);
  EXPECT_EQ(distrust(), LIBSNBF_WHY_UNCLEAN);
}

TEST_F(AwayStore, AnotherOneInItsPlaceIsLeftAlone) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  ASSERT_EQ(libsnbf_start(handle_, 0), 0);
  libsnbf_state others = record();
  std::strcpy(others.uuid, "{somebody's}");
  others.stopped_clean = 0;
  unmount();
  write_record(others);
  const std::string before = text_of(store_ + "/snbf0.state");
  EXPECT_EQ(libsnbf_stop(handle_, 0), -ENOLINK);
  EXPECT_EQ(libsnbf_detach(handle_, 0), -ENOLINK);
  nodes_.at(0).started = 0;
  EXPECT_EQ(libsnbf_start(handle_, 0), -ENOLINK);
  EXPECT_EQ(text_of(store_ + "/snbf0.state"), before);
  EXPECT_THAT(sent_, Not(Contains(SNBF_STOP_NODE)));
}

TEST_F(AwayStore, NoNodeIsLaidOnWhatStandsOnIt) {
  leave_trusted();
  ASSERT_EQ(attach(), 0);
  make_disk("upper", makedev(7, 2), "two");
  unmount();
  const std::string below = store_;
  store_ = dir_ + "/on-node-0";
  std::filesystem::create_directories(store_);
  play_file_system(store_, makedev(240, 0));
  put_field(0, "hdd_major", "7\n");
  put_field(0, "hdd_minor", "1\n");
  EXPECT_EQ(attach("upper", "upper"), -ENOLINK);
  std::filesystem::remove_all(below);
  std::filesystem::rename(dir_ + "/away", below);
  EXPECT_EQ(attach("upper", "upper"), 0);
}

}  // namespace
}  // namespace snbf::played
