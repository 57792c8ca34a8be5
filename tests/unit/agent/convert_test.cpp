// SPDX-License-Identifier: GPL-2.0-only
// Whole images by qemu-img, wherever they lie; and paths of any bytes in what is printed.
#include "convert.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "destination.h"
#include "failure.h"
#include "image.h"
#include "output.h"

namespace snbf {
namespace {

constexpr uint64_t kSize = 1 << 20;
constexpr const char* kOddName = "/a,b \"c\" \xff";  // qemu-img's comma, JSON's quotes, no UTF-8

class OddPaths : public testing::Test {
 protected:
  OddPaths() {
    char name[] = "/tmp/snbf-convert-XXXXXX";
    folder_ = ::mkdtemp(name);
    directory_ = folder_ + kOddName;
    std::filesystem::create_directory(directory_);
    create_image(image(), kSize, 65536, "");
  }
  ~OddPaths() override { std::filesystem::remove_all(folder_); }
  std::string image() const { return directory_ + "/1.qcow2"; }
  RawPlace place() const { return {directory_ + "/raw", false, kSize}; }

  std::string folder_;
  std::string directory_;
};

TEST_F(OddPaths, AnImageIsWrittenOutAndCompared) {
  const auto never = [] { return false; };
  const auto nobody = [](double) {};
  ImageWriter writer(image());
  uint8_t* bytes = writer.next_buffer();
  std::fill(bytes, bytes + 4096, uint8_t{7});
  writer.write(bytes, 4096, 8192);
  writer.finish();
  ASSERT_EQ(write_out(image(), place(), nobody, never), Ended::Well);
  std::optional<uint64_t> difference;
  EXPECT_EQ(compare_with(image(), place(), nobody, never, &difference), Ended::Well);
  EXPECT_FALSE(difference);
  std::fstream(place().path, std::ios::in | std::ios::out).seekp(9000).put('x');
  EXPECT_EQ(compare_with(image(), place(), nobody, never, &difference), Ended::Well);
  EXPECT_TRUE(difference);
}

TEST_F(OddPaths, AreNamedInJsonAllTheSame) {
  testing::internal::CaptureStdout();
  print_json({{"destination", directory_}});
  std::fflush(stdout);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("\xef\xbf\xbd"), std::string::npos) << printed;
}

TEST(ChoosePoint, OfAServersDiskSaysWhatCopiesItBack) {
  try {
    choose_point("nbd://there/disk");
    FAIL() << "it is no chain";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), kMisused);
    EXPECT_NE(failure.remedy().find("nbdcopy 'nbd://there/disk'"), std::string::npos);
  }
}

}  // namespace
}  // namespace snbf
