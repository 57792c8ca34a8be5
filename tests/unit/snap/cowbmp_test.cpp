#include "snap/cowbmp.h"

#include <algorithm>
#include <memory>

#include "parts_rig.h"

namespace snbf::sim {
namespace {

constexpr const char* kPath = "/cow.bmp";

class BitmapParts : public LoggedParts {
 public:
  BitmapParts(Sim& kernel, u64 bits) : sim(kernel), bitmap(std::make_unique<CowBitmap>()) {
    if (bits > 0) {
      EXPECT_EQ(snbf_cowbmp_init(bitmap.get(), bits), 0);
    }
  }
  ~BitmapParts() {
    if (file != nullptr) snbf_fclose(file);
    EXPECT_EQ(snbf_cowbmp_destroy(bitmap.get()), 0);
  }
  void open_file() {
    file = snbf_fopen(kPath, PLAT_O_RDWR | PLAT_O_CREAT, 0600);
    EXPECT_NE(file, nullptr);
  }
  int set(int bit) { return snbf_cowbmp_set_bit(bitmap.get(), bit, PLAT_ALLOC_NOIO, file); }
  int test(int bit) { return snbf_cowbmp_test_bit(bitmap.get(), bit); }
  Bytes contents() {
    Bytes data;
    EXPECT_TRUE(sim.peek_file(kPath, &data));
    return data;
  }

  Sim& sim;
  std::unique_ptr<CowBitmap> bitmap;
  snbf_file* file = nullptr;
};

SIM_TEST(CowBitmapInit, AllocatesTheTableAlone) {
  BitmapParts parts(sim, 32769);
  EXPECT_TRUE(sim.log().contains("snbf_cowbmp_init(): Allocating COW bitmap for 32769 chunks"));
  EXPECT_EQ(parts.bitmap->nbits, 32769u);
  EXPECT_EQ(parts.bitmap->npages, 2);
  EXPECT_EQ(parts.bitmap->pages[0], nullptr);
  EXPECT_EQ(parts.bitmap->pages[1], nullptr);
  for (int bit : {0, 32767, 32768}) EXPECT_EQ(parts.test(bit), 0);
}

SIM_TEST(CowBitmapInit, OnePageHoldsItsBitsExactly) {
  BitmapParts parts(sim, 32768);
  EXPECT_EQ(parts.bitmap->npages, 1);
}

SIM_TEST(CowBitmapInit, NeedsMemory) {
  BitmapParts parts(sim, 0);
  sim.fail_nth(Fault::Virt, 1);
  EXPECT_EQ(snbf_cowbmp_init(parts.bitmap.get(), 10), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_init(): Memory allocation failed.", 3), 1);
  EXPECT_EQ(parts.test(0), -EINVAL);
}

SIM_TEST(CowBitmapSet, MakesThePageAndWritesTheByte) {
  BitmapParts parts(sim, 65536);
  parts.open_file();
  ASSERT_EQ(parts.set(32768), 0);
  EXPECT_EQ(parts.bitmap->pages[0], nullptr);
  EXPECT_NE(parts.bitmap->pages[1], nullptr);
  Bytes expected(4097, 0);
  expected[4096] = 0x01;
  EXPECT_EQ(parts.contents(), expected);
  ASSERT_EQ(parts.set(32768 + 7), 0);
  expected[4096] = 0x81;
  EXPECT_EQ(parts.contents(), expected);
  EXPECT_EQ(parts.test(32768), 1);
  EXPECT_EQ(parts.test(32768 + 7), 1);
  EXPECT_EQ(parts.test(32768 + 1), 0);
}

SIM_TEST(CowBitmapSet, WritesNothingForABitThatIsSet) {
  BitmapParts parts(sim, 100);
  parts.open_file();
  ASSERT_EQ(parts.set(5), 0);
  const u64 writes = sim.calls(Fault::FileWrite);
  ASSERT_EQ(parts.set(5), 0);
  EXPECT_EQ(sim.calls(Fault::FileWrite), writes);
}

SIM_TEST(CowBitmapSet, NeedsNoFileOnceThePageIsThere) {
  BitmapParts parts(sim, 100);
  parts.open_file();
  ASSERT_EQ(parts.set(5), 0);
  EXPECT_EQ(snbf_cowbmp_set_bit(parts.bitmap.get(), 6, PLAT_ALLOC_NOIO, nullptr), 0);
  EXPECT_EQ(parts.test(6), 1);
  EXPECT_EQ(parts.contents(), Bytes{0x20});
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(CowBitmapSet, AsksForTheFileOnAPagesFirstBit) {
  BitmapParts parts(sim, 100);
  EXPECT_EQ(parts.set(5), -EIO);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_set_bit(): Failed to update changed byte in file.", 3), 1);
  EXPECT_EQ(parts.test(5), 1);
}

SIM_TEST(CowBitmapSet, AFailedUpdateKeepsTheBit) {
  BitmapParts parts(sim, 100);
  parts.open_file();
  for (int bit : {3, 4}) {  // with a new page, and with one that is there
    sim.log().clear();
    sim.fail_nth(Fault::FileWrite, 1, -ENOSPC);
    EXPECT_EQ(parts.set(bit), -EIO);
    EXPECT_EQ(sim.log().count("snbf_cowbmp_set_bit(): Failed to update changed byte in file.", 3),
              1);
    EXPECT_EQ(parts.test(bit), 1);
  }
  EXPECT_EQ(snbf_plat_file_size(parts.file->filp), 0u);
}

SIM_TEST(CowBitmapSet, WithoutMemoryNothingIsSet) {
  BitmapParts parts(sim, 100);
  parts.open_file();
  sim.fail_nth(Fault::Heap, 1);
  EXPECT_EQ(parts.set(3), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_set_bit(): Memory allocation failed.", 3), 1);
  EXPECT_EQ(parts.test(3), 0);
  EXPECT_EQ(parts.set(3), 0);
}

SIM_TEST(CowBitmapSet, ABitOutsideIsRefused) {
  BitmapParts parts(sim, 100);
  parts.open_file();
  for (int bit : {100, 32768, 0x7FFFFFFF, -1}) {
    EXPECT_EQ(parts.set(bit), -EINVAL);
    EXPECT_EQ(parts.test(bit), 0);
  }
  EXPECT_EQ(parts.set(99), 0);
}

// Several setters and a tester at once: no bit is lost, and only one page is kept.
SIM_TEST(CowBitmapSet, SeveralOfAPageAreOneWrite) {
  BitmapParts parts(sim, 65536);
  parts.open_file();
  ASSERT_EQ(parts.set(40), 0);
  const u64 writes = sim.calls(Fault::FileWrite);
  const u32 bits[] = {96, 8, 40, 33, 40000, 40008};
  ASSERT_EQ(snbf_cowbmp_set_bits(parts.bitmap.get(), bits, 6, PLAT_ALLOC_NOIO, parts.file), 0);
  EXPECT_EQ(sim.calls(Fault::FileWrite), writes + 2);
  Bytes expected(5002, 0);
  expected[1] = 0x01;
  expected[4] = 0x02;
  expected[5] = 0x01;
  expected[12] = 0x01;
  expected[5000] = expected[5001] = 0x01;
  EXPECT_EQ(parts.contents(), expected);
}

SIM_TEST(CowBitmapSet, OfSeveralTheFirstThatFailsEndsIt) {
  BitmapParts parts(sim, 65536);
  parts.open_file();
  const auto set = [&](std::initializer_list<u32> bits) {
    return snbf_cowbmp_set_bits(parts.bitmap.get(), std::data(bits), static_cast<u32>(bits.size()),
                                PLAT_ALLOC_NOIO, parts.file);
  };
  sim.fail_nth(Fault::Heap, 2);
  EXPECT_EQ(set({8, 40000, 9}), -ENOMEM);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_set_bit(): Memory allocation failed.", 3), 1);
  EXPECT_EQ(parts.test(8), 1);
  EXPECT_EQ(parts.test(40000), 0);
  EXPECT_EQ(parts.test(9), 0);
  EXPECT_EQ(set({10, 65536, 11}), -EINVAL);
  EXPECT_EQ(parts.test(10), 1);
  EXPECT_EQ(parts.test(11), 0);
  sim.fail_nth(Fault::FileWrite, 1);
  EXPECT_EQ(set({12, 40001, 13}), -EIO);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_set_bit(): Failed to update changed byte in file.", 3), 1);
  EXPECT_EQ(parts.test(13), 0);
}

SIM_TEST_SEEDS(CowBitmapSet, SetsSeveralSideBySide, 30) {
  BitmapParts parts(sim, 32768);
  for (u32 task = 0; task < 4; ++task) {
    sim.spawn("setter", [this, &parts, task] {
      const std::string path = "/cow" + std::to_string(task);
      snbf_file* file = snbf_fopen(path.c_str(), PLAT_O_RDWR | PLAT_O_CREAT, 0600);
      const u32 bits[] = {task, 100 + task, 200 + task};
      EXPECT_EQ(snbf_cowbmp_set_bits(parts.bitmap.get(), bits, 3, PLAT_ALLOC_NOIO, file), 0);
      snbf_fclose(file);
    });
  }
  sim.join_all();
  for (int bit = 0; bit < 300; ++bit) EXPECT_EQ(parts.test(bit), bit % 100 < 4 ? 1 : 0) << bit;
}

SIM_TEST_SEEDS(CowBitmapSet, SetsSideBySide, 30) {
  BitmapParts parts(sim, 65536);
  for (int task = 0; task < 4; ++task) {
    sim.spawn("setter", [this, &parts, task] {
      const std::string path = "/cow" + std::to_string(task);
      snbf_file* file = snbf_fopen(path.c_str(), PLAT_O_RDWR | PLAT_O_CREAT, 0600);
      for (int bit = task; bit < 40; bit += 4) {
        EXPECT_EQ(snbf_cowbmp_set_bit(parts.bitmap.get(), bit, PLAT_ALLOC_NOIO, file), 0);
        EXPECT_EQ(snbf_cowbmp_test_bit(parts.bitmap.get(), bit), 1);
        sim.point();
      }
      snbf_fclose(file);
    });
  }
  sim.join_all();
  for (int bit = 0; bit < 40; ++bit) EXPECT_EQ(parts.test(bit), 1);
  EXPECT_EQ(parts.test(40), 0);
}

SIM_TEST(CowBitmapUninitialised, IsRefusedEverywhere) {
  BitmapParts parts(sim, 0);
  EXPECT_EQ(parts.test(0), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_test_bit(): Uninitialized COW bitmap.", 3), 1);
  EXPECT_EQ(parts.set(0), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_set_bit(): Uninitialized COW bitmap.", 3), 1);
  EXPECT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_save(): Internal error: invalid params.", 3), 1);
  EXPECT_EQ(snbf_cowbmp_destroy(parts.bitmap.get()), 0);
}

SIM_TEST(CowBitmapDestroy, MakesItUninitialised) {
  BitmapParts parts(sim, 100);
  parts.open_file();
  ASSERT_EQ(parts.set(7), 0);
  ASSERT_EQ(snbf_cowbmp_destroy(parts.bitmap.get()), 0);
  EXPECT_EQ(parts.bitmap->nbits, 0u);
  EXPECT_EQ(parts.test(7), -EINVAL);
  ASSERT_EQ(snbf_cowbmp_init(parts.bitmap.get(), 100), 0);
  EXPECT_EQ(parts.test(7), 0);
}

SIM_TEST(CowBitmapSave, TenChunksAreTwoBytes) {
  BitmapParts parts(sim, 10);
  ASSERT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), 0);
  EXPECT_TRUE(sim.log().contains("snbf_cowbmp_save(): Saving COW bitmap into /cow.bmp"));
  EXPECT_EQ(parts.contents(), (Bytes{0, 0}));
  parts.open_file();
  ASSERT_EQ(parts.set(0), 0);
  ASSERT_EQ(parts.set(9), 0);
  ASSERT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), 0);
  EXPECT_EQ(parts.contents(), (Bytes{0x01, 0x02}));
}

SIM_TEST(CowBitmapSave, EmptySlotsStayHoles) {
  BitmapParts parts(sim, 3 * 32768 + 9);
  parts.open_file();
  ASSERT_EQ(parts.set(32768), 0);
  ASSERT_EQ(parts.set(3 * 32768 + 8), 0);
  const u64 writes = sim.calls(Fault::FileWrite);
  ASSERT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), 0);
  EXPECT_EQ(sim.calls(Fault::FileWrite) - writes, 3u);  // the length and two pages
  Bytes expected(3 * 4096 + 2, 0);
  expected[4096] = 1;
  expected[3 * 4096 + 1] = 1;
  EXPECT_EQ(parts.contents(), expected);
}

SIM_TEST(CowBitmapSave, AnswersWhatFails) {
  BitmapParts parts(sim, 40000);
  parts.open_file();
  ASSERT_EQ(parts.set(32768), 0);
  sim.log().clear();
  for (const char* path : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(snbf_cowbmp_save(parts.bitmap.get(), path), -EINVAL);
  }
  EXPECT_EQ(sim.log().count("snbf_cowbmp_save(): Internal error: invalid params.", 3), 2);
  sim.fail_nth(Fault::FileOpen, 1, -EPERM);
  EXPECT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), -EIO);
  EXPECT_FALSE(sim.log().contains("snbf_cowbmp_save(): Failed"));
  sim.fail_nth(Fault::FileWrite, 2, -ENOSPC);
  EXPECT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), -EIO);
  EXPECT_EQ(
      sim.log().count("snbf_cowbmp_save(): Failed to write 904 bytes into /cow.bmp: rc=-28", 3), 1)
      << sim.log().dump();
  sim.fail_nth(Fault::FileWrite, 1, -ENOSPC);
  EXPECT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), -EIO);
  EXPECT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), 0);
}

SIM_TEST(CowBitmapLoad, ReadsWhatWasSaved) {
  BitmapParts parts(sim, 3 * 32768);
  parts.open_file();
  const std::vector<int> bits = {1, 7, 32767, 2 * 32768, 3 * 32768 - 1};
  for (int bit : bits) ASSERT_EQ(parts.set(bit), 0);
  ASSERT_EQ(snbf_cowbmp_save(parts.bitmap.get(), kPath), 0);
  ASSERT_EQ(snbf_cowbmp_destroy(parts.bitmap.get()), 0);
  ASSERT_EQ(snbf_cowbmp_load(parts.bitmap.get(), kPath), 0);
  EXPECT_TRUE(sim.log().contains("snbf_cowbmp_load(): Loading COW bitmap from /cow.bmp"));
  EXPECT_EQ(parts.bitmap->nbits, 3u * 32768);
  EXPECT_EQ(parts.bitmap->pages[1], nullptr);  // all zeros
  for (int bit = 0; bit < 3 * 32768; ++bit) {
    const bool set = std::find(bits.begin(), bits.end(), bit) != bits.end();
    ASSERT_EQ(parts.test(bit), set ? 1 : 0) << bit;
  }
}

SIM_TEST(CowBitmapLoad, TakesItsSizeFromTheFile) {
  BitmapParts parts(sim, 10);
  Bytes data(5000, 0);
  data[4999] = 0x80;
  ASSERT_EQ(sim.write_file(kPath, data), 0);
  ASSERT_EQ(snbf_cowbmp_load(parts.bitmap.get(), kPath), 0);
  EXPECT_EQ(parts.bitmap->nbits, 40000u);
  EXPECT_EQ(parts.bitmap->npages, 2);
  EXPECT_EQ(parts.bitmap->pages[0], nullptr);
  EXPECT_EQ(parts.test(39999), 1);
  EXPECT_EQ(parts.test(39998), 0);
}

SIM_TEST(CowBitmapLoad, AnswersWhatFails) {
  BitmapParts parts(sim, 10);
  EXPECT_EQ(snbf_cowbmp_load(parts.bitmap.get(), nullptr), -EINVAL);
  EXPECT_EQ(snbf_cowbmp_load(parts.bitmap.get(), ""), -EINVAL);
  EXPECT_EQ(snbf_cowbmp_load(nullptr, kPath), -EINVAL);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_load(): Internal error: invalid params.", 3), 3);
  EXPECT_EQ(snbf_cowbmp_load(parts.bitmap.get(), "/none"), -EIO);
  EXPECT_EQ(parts.test(0), 0);  // a file that does not open changes nothing

  ASSERT_EQ(sim.write_file(kPath, Bytes{}), 0);
  EXPECT_EQ(snbf_cowbmp_load(parts.bitmap.get(), kPath), -ENOMEM);
  EXPECT_EQ(parts.test(0), -EINVAL);

  ASSERT_EQ(sim.write_file(kPath, Bytes(5000, 0xFF)), 0);
  sim.log().clear();
  sim.fail_nth(Fault::FileRead, 2, -EPERM);
  EXPECT_EQ(snbf_cowbmp_load(parts.bitmap.get(), kPath), -EIO);
  EXPECT_EQ(sim.log().count("snbf_cowbmp_load(): Failed to read 904 bytes from /cow.bmp: rc=-1", 3),
            1);
  EXPECT_EQ(parts.test(0), -EINVAL);
}

SIM_TEST(CowBitmapLoad, LeavesNothingBehindWithoutMemory) {
  BitmapParts parts(sim, 0);
  ASSERT_EQ(sim.write_file(kPath, Bytes(9000, 0xFF)), 0);
  int nth = 1;
  for (; fails_at(sim, Fault::AnyAllocation, nth,
                  [&] {
                    const int rc = snbf_cowbmp_load(parts.bitmap.get(), kPath);
                    EXPECT_EQ(parts.test(0), rc == 0 ? 1 : -EINVAL);
                    snbf_cowbmp_destroy(parts.bitmap.get());
                  });
       ++nth) {
  }
  EXPECT_EQ(nth, 7);  // two of the handle, the table, three pages
}

}  // namespace
}  // namespace snbf::sim
