// SPDX-License-Identifier: GPL-2.0-only
// The library over a driver that the test plays.
#include "libsnbf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <vector>

namespace {

using testing::ElementsAre;

class Libsnbf : public testing::Test {
 protected:
  Libsnbf() {
    char name[] = "/tmp/libsnbf-XXXXXX";
    directory_ = ::mkdtemp(name);
    const std::string lock = directory_ + "/lock";
    libsnbf_options options{};
    options.lock_path = lock.c_str();
    options.sys_root = directory_.c_str();
    options.proc_root = directory_.c_str();
    options.ioctl = [](void* context, uint32_t command, void* record) {
      auto* self = static_cast<Libsnbf*>(context);
      self->sent_.push_back(command);
      return self->answer_(command, record);
    };
    options.ioctl_context = this;
    EXPECT_EQ(libsnbf_open(&options, &handle_), 0);
  }
  ~Libsnbf() override {
    libsnbf_close(handle_);
    std::filesystem::remove_all(directory_);
  }
  void put(const std::string& file, const std::string& text) {
    const std::filesystem::path path = directory_ + "/" + file;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }

  std::string directory_;
  libsnbf* handle_ = nullptr;
  std::vector<uint32_t> sent_;
  std::function<int(uint32_t, void*)> answer_ = [](uint32_t, void*) { return 0; };
};

TEST_F(Libsnbf, WithoutTheControlDeviceThereIsNoDriver) {
  const std::string missing = directory_ + "/control";
  libsnbf_options options{};
  options.control = missing.c_str();
  libsnbf* none = nullptr;
  EXPECT_EQ(libsnbf_open(&options, &none), -ENODEV);
}

TEST_F(Libsnbf, EachFunctionSendsItsOwnCommand) {
  char bits[8] = {};
  uint32_t size = 0;
  snbf_device_list list;
  snbf_info info;
  snbf_filter_node_cmd filter{};
  EXPECT_EQ(libsnbf_add_filter_node(handle_, &filter), 0);
  EXPECT_EQ(libsnbf_del_node(handle_, 1), 0);
  EXPECT_EQ(libsnbf_start_node(handle_, 1), 0);
  EXPECT_EQ(libsnbf_stop_node(handle_, 1), 0);
  EXPECT_EQ(libsnbf_get_device_list(handle_, SNBF_DEV_SNAP, &list), 0);
  EXPECT_EQ(libsnbf_get_info(handle_, 1, &info), 0);
  EXPECT_EQ(libsnbf_load_bmp(handle_, 1, SNBF_BMP_INCR), 0);
  EXPECT_EQ(libsnbf_save_bmp(handle_, 1, SNBF_BMP_INCR), 0);
  EXPECT_EQ(libsnbf_clr_bmp(handle_, 1, SNBF_BMP_INCR), 0);
  EXPECT_EQ(libsnbf_set_bmp(handle_, 1, SNBF_BMP_INCR, nullptr, 0), 0);
  EXPECT_EQ(libsnbf_merge_bmp(handle_, 1, SNBF_BMP_INCR, bits, sizeof bits), 0);
  EXPECT_EQ(libsnbf_get_bmp(handle_, 1, SNBF_BMP_INCR, bits, sizeof bits), 0);
  EXPECT_EQ(libsnbf_get_and_clr_bmp(handle_, 1, SNBF_BMP_INCR, bits, sizeof bits), 0);
  EXPECT_EQ(libsnbf_get_datablock_bmp(handle_, 1, 4096, bits, sizeof bits, &size), 0);
  EXPECT_EQ(libsnbf_test_datablock(handle_, "/dev/x"), 0);
  EXPECT_THAT(sent_,
              ElementsAre(SNBF_ADD_FILTER_NODE, SNBF_DEL_NODE, SNBF_START_NODE, SNBF_STOP_NODE,
                          SNBF_GET_DEVICE_LIST, SNBF_GET_INFO, SNBF_LOAD_BMP, SNBF_SAVE_BMP,
                          SNBF_CLR_BMP, SNBF_SET_BMP, SNBF_MERGE_BMP, SNBF_GET_BMP,
                          SNBF_GET_AND_CLR_BMP, SNBF_GET_DATABLOCK_BMP, SNBF_TEST_DATABLOCK));
}

TEST_F(Libsnbf, ABitmapCommandCarriesTypeSizeAndAddress) {
  char bits[5] = {};
  answer_ = [&](uint32_t, void* record) {
    const auto* sent = static_cast<snbf_bmp_cmd*>(record);
    EXPECT_EQ(sent->minor, 7u);
    EXPECT_EQ(sent->type, SNBF_BMP_DIFF);
    EXPECT_EQ(sent->size, 5);
    std::memset(reinterpret_cast<void*>(sent->data), 0xA5, 5);
    return 0;
  };
  EXPECT_EQ(libsnbf_get_bmp(handle_, 7, SNBF_BMP_DIFF, bits, sizeof bits), 0);
  EXPECT_EQ(bits[4], '\xA5');
}

TEST_F(Libsnbf, TheDriversRefusalIsTheAnswer) {
  answer_ = [](uint32_t, void*) { return -EBUSY; };
  EXPECT_EQ(libsnbf_stop_node(handle_, 1), -EBUSY);
}

TEST_F(Libsnbf, ACountThatCannotBeIsNotBelieved) {
  answer_ = [](uint32_t command, void* record) {
    if (command == SNBF_GET_DEVICE_LIST) static_cast<snbf_device_list*>(record)->count = 257;
    if (command == SNBF_GET_INFO) static_cast<snbf_info*>(record)->snap_cnt = 257;
    return 0;
  };
  snbf_device_list list;
  snbf_info info;
  EXPECT_EQ(libsnbf_get_device_list(handle_, SNBF_DEV_FILTER, &list), -EPROTO);
  EXPECT_EQ(libsnbf_get_info(handle_, 0, &info), -EPROTO);
}

TEST_F(Libsnbf, ASnapOfAnotherChunkSizeIsNeverSent) {
  answer_ = [](uint32_t command, void* record) {
    if (command != SNBF_GET_INFO) return 0;
    auto* info = static_cast<snbf_info*>(record);
    info->dev_type = info->minor == 0 ? SNBF_DEV_FILTER : SNBF_DEV_SNAP;
    info->snap_cnt = info->minor == 0 ? 1 : 0;
    info->snap_minors[0] = 5;
    info->chunk_size = 65536;
    return 0;
  };
  snbf_snap_node_cmd snap{};
  snap.chunk_size = 4096;
  EXPECT_EQ(libsnbf_add_snap_node(handle_, &snap), -EINVAL);
  EXPECT_THAT(sent_, testing::Not(testing::Contains(SNBF_ADD_SNAP_NODE)));
  snap.chunk_size = 65536;
  EXPECT_EQ(libsnbf_add_snap_node(handle_, &snap), 0);
  EXPECT_EQ(sent_.back(), SNBF_ADD_SNAP_NODE);
}

TEST_F(Libsnbf, AResumeThatTheDriverWouldRefuseIsNeverSent) {
  snbf_info about{};
  int known = 0;
  answer_ = [&](uint32_t command, void* record) {
    if (command != SNBF_GET_INFO) return 0;
    *static_cast<snbf_info*>(record) = about;
    return known;
  };
  const snbf_resume_cmd resume{3, 1, 0, 0};
  known = -EINVAL;
  EXPECT_EQ(libsnbf_resume_snap(handle_, &resume), -EINVAL) << "unknown";
  known = 0;
  about.dev_type = SNBF_DEV_FILTER;
  EXPECT_EQ(libsnbf_resume_snap(handle_, &resume), -EINVAL) << "not a snap";
  about.dev_type = SNBF_DEV_SNAP;
  about.started = 1;
  EXPECT_EQ(libsnbf_resume_snap(handle_, &resume), -EALREADY) << "started";
  EXPECT_THAT(sent_, testing::Not(testing::Contains(SNBF_RESUME_SNAP)));
  about.started = 0;
  EXPECT_EQ(libsnbf_resume_snap(handle_, &resume), 0);
  EXPECT_EQ(sent_.back(), SNBF_RESUME_SNAP);
}

TEST_F(Libsnbf, ARefusedSaveIsSeenInTheDirtyField) {
  put("snbf/snbf4/incr_bmp_dirty", "1\n");
  put("snbf/snbf4/diff_bmp_dirty", "0\n");
  int unsaved = -1;
  EXPECT_EQ(libsnbf_bmp_unsaved(handle_, 4, SNBF_BMP_INCR, &unsaved), 0);
  EXPECT_EQ(unsaved, 1);
  EXPECT_EQ(libsnbf_bmp_unsaved(handle_, 4, SNBF_BMP_DIFF, &unsaved), 0);
  EXPECT_EQ(unsaved, 0);
  EXPECT_EQ(libsnbf_bmp_unsaved(handle_, 5, SNBF_BMP_DIFF, &unsaved), -ENOENT);
}

TEST_F(Libsnbf, AttachRefusesBeforeItAsksTheDriver) {
  libsnbf_attach_request request{};
  const std::string file = directory_ + "/file";
  put("file", "x");
  request.partition = file.c_str();
  request.name = "control";
  request.bmp_dir = directory_.c_str();
  request.extent_size = 65536;
  EXPECT_EQ(libsnbf_attach(handle_, &request), -EILSEQ);
  request.name = "data";
  EXPECT_EQ(libsnbf_attach(handle_, &request), -ENOTBLK);
  EXPECT_TRUE(sent_.empty());
}

TEST(Names, AreThoseThatAreSafeInAPath) {
  for (const char* good : {"data", "a", "A.b-c_1", "-x", "_"})
    EXPECT_TRUE(libsnbf_name_is_safe(good)) << good;
  for (const char* bad : {"", ".", "..", ".hidden", "a/b", "control", "a b", "\xC3\xA4", "a\n"}) {
    EXPECT_FALSE(libsnbf_name_is_safe(bad)) << bad;
  }
  EXPECT_TRUE(libsnbf_name_is_safe(std::string(127, 'a').c_str()));
  EXPECT_FALSE(libsnbf_name_is_safe(std::string(128, 'a').c_str()));
}

class State : public Libsnbf {};

TEST_F(State, ComesBackAsItWasWritten) {
  libsnbf_state state{};
  std::strcpy(state.name, "data");
  std::strcpy(state.hdd_name, "/dev/a=b");
  std::strcpy(state.distrust, LIBSNBF_WHY_DIRTY);
  std::strcpy(state.incr_point, "chain:3");
  state.stopped_clean = 1;
  state.head_hash = 0xFEDCBA9876543210;
  ASSERT_EQ(libsnbf_state_write(directory_.c_str(), 9, &state), 0);
  libsnbf_state back{};
  ASSERT_EQ(libsnbf_state_read(directory_.c_str(), 9, &back), 0);
  EXPECT_EQ(std::memcmp(&back, &state, sizeof state), 0);
  EXPECT_EQ(libsnbf_state_read(directory_.c_str(), 8, &back), -ENOENT);
}

TEST_F(State, OneThatCannotBeReadIsNotTakenForADamagedOne) {
  libsnbf_state state;
  std::filesystem::create_symlink("/proc/self/mem", directory_ + "/snbf3.state");
  EXPECT_EQ(libsnbf_state_read(directory_.c_str(), 3, &state), -EIO);
}

TEST_F(State, ACutOrForeignRecordIsNotBelieved) {
  libsnbf_state state{};
  put("snbf1.state", "something else\n");
  EXPECT_EQ(libsnbf_state_read(directory_.c_str(), 1, &state), -EBADMSG);
  put("snbf1.state", "snbf-state 1\nname=data\nclean=1\n");
  EXPECT_EQ(libsnbf_state_read(directory_.c_str(), 1, &state), -EBADMSG) << "its end is missing";
  put("snbf1.state", "snbf-state 1\nname=" + std::string(200, 'x') + "\nend\n");
  EXPECT_EQ(libsnbf_state_read(directory_.c_str(), 1, &state), -EBADMSG) << "too long a name";
}

class BitmapFile : public Libsnbf {
 protected:
  libsnbf_verdict judge(const std::string& contents) {
    put("b", contents);
    libsnbf_verdict verdict = LIBSNBF_MISSING;
    EXPECT_EQ(libsnbf_judge_bmp_file((directory_ + "/b").c_str(), 4, &verdict), 0);
    return verdict;
  }
};

TEST_F(BitmapFile, IsJudgedAsTheDriverDoes) {
  // The register over "1234" stands at the complement of its well-known CRC-32, 0x9BE3E0A3.
  const std::string good = std::string("SNBFBMP\0\4\0\0\0", 12) + "\x5C\x1F\x1C\x64" + "1234";
  EXPECT_EQ(judge(good), LIBSNBF_GOOD);
  std::string bad = good;
  bad[17] ^= 1;
  EXPECT_EQ(judge(bad), LIBSNBF_WRONG_CHECKSUM);
  EXPECT_EQ(judge(good.substr(0, 19)), LIBSNBF_WRONG_CHECKSUM);
  bad = good;
  bad[8] = 5;
  EXPECT_EQ(judge(bad), LIBSNBF_WRONG_SIZE);
  EXPECT_EQ(judge(std::string("SNBFBMP\1", 8)), LIBSNBF_DIRTY);
  EXPECT_EQ(judge("SNBFBMX"), LIBSNBF_CORRUPT);
  EXPECT_EQ(judge("SNBFBMP"), LIBSNBF_CORRUPT);
  EXPECT_EQ(judge(""), LIBSNBF_CORRUPT);
  libsnbf_verdict verdict = LIBSNBF_GOOD;
  EXPECT_EQ(libsnbf_judge_bmp_file((directory_ + "/none").c_str(), 4, &verdict), 0);
  EXPECT_EQ(verdict, LIBSNBF_MISSING);
  EXPECT_EQ(libsnbf_judge_bmp_file("/proc/self/mem", 4, &verdict), -EIO) << "its first byte";
}

}  // namespace
