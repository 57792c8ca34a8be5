// SPDX-License-Identifier: GPL-2.0-only
// Sizes as people write them, and the strip.
#include <gtest/gtest.h>

#include "failure.h"
#include "maps.h"
#include "sizes.h"

namespace snbf {
namespace {

TEST(ParseSize, TakesWhatPeopleWrite) {
  EXPECT_EQ(parse_size("0"), 0u);
  EXPECT_EQ(parse_size("65536"), 65536u);
  EXPECT_EQ(parse_size("64K"), 65536u);
  EXPECT_EQ(parse_size("64k"), 65536u);
  EXPECT_EQ(parse_size("64KiB"), 65536u);
  EXPECT_EQ(parse_size("64KB"), 64000u);
  EXPECT_EQ(parse_size("1.5G"), 1610612736u);
  EXPECT_EQ(parse_size("8s"), 4096u);
  EXPECT_EQ(parse_size("9223372036854775807"), uint64_t{INT64_MAX});
}

TEST(ParseSize, RefusesWhatIsNoSize) {
  for (const char* text : {"", "K", ".5K", "1.2.3K", "64Q", "64 K", "-1", "64KiX", "1.3",
                           "9223372036854775808", "9000000000T", "0x10"}) {
    EXPECT_FALSE(parse_size(text)) << text;
  }
}

TEST(ShowSize, HasAtMostOneDigitBehindThePoint) {
  EXPECT_EQ(show_size(0), "0");
  EXPECT_EQ(show_size(512), "512");
  EXPECT_EQ(show_size(65536), "64K");
  EXPECT_EQ(show_size(1610612736), "1.5G");
  EXPECT_EQ(show_size((1 << 20) - 1), "1M");
  EXPECT_EQ(show_size_in(1610612736, 'm'), "1536.00");
  EXPECT_EQ(show_size_in(1610612736, 'b'), "1610612736");
}

TEST(ShowTime, IsUtc) { EXPECT_EQ(show_time(0), "1970-01-01T00:00:00Z"); }

TEST(Strip, ASliceWithAnyChangeIsNeverBlank) {
  Extents extents(1000, 4096, 1000 * 4096);
  extents.set(999);
  const std::string text = strip(extents, 10, false);
  EXPECT_EQ(text, ".........-");
  extents.set_all();
  EXPECT_EQ(strip(extents, 4, false), "####");
}

TEST(Failure, ARefusalHasAStatusAndARemedy) {
  EXPECT_EQ(failure_of(-EBUSY, "x").status(), kBusy);
  EXPECT_EQ(failure_of(-ENODEV, "x").status(), kNoDriver);
  EXPECT_EQ(failure_of(-ELOOP, "x").status(), kUnsafe);
  for (int error :
       {EINVAL, ENOENT, EBUSY, EIO, ENOMEM, ENOSPC, EFAULT, ENOTTY, EALREADY, EAGAIN, EOPNOTSUPP}) {
    EXPECT_FALSE(failure_of(-error, "x").remedy().empty()) << error;
  }
}

}  // namespace
}  // namespace snbf
