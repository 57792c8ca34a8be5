#include "util/file.h"

#include "parts_rig.h"

namespace snbf::sim {
namespace {

const Bytes kText = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};

SIM_TEST(FileOpen, KeepsACopyOfTheNameAndOpens) {
  LoggedParts parts;
  ASSERT_EQ(sim.write_file("/a", kText), 0);
  char path[] = "/a";
  snbf_file* file = snbf_fopen(path, PLAT_O_RDONLY, 0);
  ASSERT_NE(file, nullptr);
  path[1] = 'x';
  EXPECT_STREQ(file->name, "/a");
  EXPECT_EQ(snbf_fclose(file), 0);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(FileOpen, NamesTheAccessThatFailed) {
  LoggedParts parts;
  EXPECT_EQ(snbf_fopen("/none", PLAT_O_RDONLY, 0), nullptr);
  EXPECT_EQ(sim.log().count("snbf_fopen(): Failed to open file /none for reading: errno=-2", 3), 1);
  EXPECT_EQ(snbf_fopen("/none", PLAT_O_WRONLY, 0), nullptr);
  EXPECT_EQ(sim.log().count("snbf_fopen(): Failed to open file /none for writing: errno=-2", 3), 1);
  for (int access : {PLAT_O_RDWR, 3}) {
    sim.log().clear();
    EXPECT_EQ(snbf_fopen("/none", access, 0), nullptr);
    EXPECT_EQ(sim.log().count(
                  "snbf_fopen(): Failed to open file /none for reading and writing: errno=-2", 3),
              1);
  }
}

SIM_TEST(FileOpen, AnswersNullForEveryMissingPieceOfMemory) {
  LoggedParts parts;
  ASSERT_EQ(sim.write_file("/a", kText), 0);
  int nth = 1;
  for (; fails_at(sim, Fault::Heap, nth,
                  [&] {
                    sim.log().clear();
                    snbf_file* file = snbf_fopen("/a", PLAT_O_RDONLY, 0);
                    if (file != nullptr) {
                      snbf_fclose(file);
                    } else {
                      EXPECT_EQ(sim.log().count("snbf_fopen(): Memory allocation failed.", 3), 1);
                    }
                  });
       ++nth) {
  }
  EXPECT_EQ(nth, 3);
}

SIM_TEST(FileOpen, ANullPathStopsTheKernel) {
  LoggedParts parts;
  sim.expect_fatal("path != nullptr");
  snbf_fopen(nullptr, PLAT_O_RDONLY, 0);
}

class FileParts : public LoggedParts {
 public:
  explicit FileParts(Sim& sim, int flags = PLAT_O_RDWR) {
    EXPECT_EQ(sim.write_file("/a", kText), 0);
    file = snbf_fopen("/a", flags, 0);
    EXPECT_NE(file, nullptr);
    sim.log().clear();
  }
  ~FileParts() { snbf_fclose(file); }
  snbf_file* file;
};

SIM_TEST(FileRead, ReadsAtThePosition) {
  FileParts parts(sim);
  char to[3] = {};
  EXPECT_EQ(snbf_fread(parts.file, 2, to, 3), 3);
  EXPECT_EQ(std::memcmp(to, "cde", 3), 0);
  EXPECT_EQ(snbf_fread(parts.file, 0, to, 0), 0);
  EXPECT_EQ(snbf_fread(parts.file, 0, to, -1), 0);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(FileRead, EndOfFileIsAShortCountWithALine) {
  FileParts parts(sim);
  char to[16] = {};
  EXPECT_EQ(snbf_fread(parts.file, 5, to, 10), 3);
  EXPECT_EQ(std::memcmp(to, "fgh", 3), 0);
  EXPECT_EQ(sim.log().count("snbf_fread(): Unexpected EOF while trying to read 7 bytes from /a", 3),
            1);
  EXPECT_EQ(snbf_fread(parts.file, 8, to, 4), 0);
  EXPECT_EQ(sim.log().count("snbf_fread(): Unexpected EOF while trying to read 4 bytes from /a", 3),
            1);
}

SIM_TEST(FileRead, GoesOnAfterAShortOne) {
  FileParts parts(sim);
  char to[8] = {};
  sim.fail_nth(Fault::ShortRead, 1);
  EXPECT_EQ(snbf_fread(parts.file, 0, to, 8), 8);
  EXPECT_TRUE(sim.fault_reached(Fault::ShortRead));
  EXPECT_EQ(std::memcmp(to, "abcdefgh", 8), 0);
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(FileRead, NamesWhatWasLeftWhenItFailed) {
  FileParts parts(sim);
  char to[8];
  sim.fail_nth(Fault::ShortRead, 1);
  sim.fail_nth(Fault::FileRead, 2, -EIO);
  EXPECT_EQ(snbf_fread(parts.file, 0, to, 8), -EIO);
  EXPECT_EQ(sim.log().count("snbf_fread(): Failed to read 4 bytes from /a: rc=-5", 3), 1)
      << sim.log().dump();
}

SIM_TEST(FileReadAndWrite, RefuseWhatIsNoOpenFile) {
  LoggedParts parts;
  snbf_file closed = {nullptr, nullptr};
  char byte = 0;
  for (snbf_file* file : {static_cast<snbf_file*>(nullptr), &closed}) {
    sim.log().clear();
    EXPECT_EQ(snbf_fread(file, 0, &byte, 1), -EINVAL);
    EXPECT_EQ(snbf_fwrite(file, 0, &byte, 1), -EINVAL);
    EXPECT_EQ(sim.log().count("snbf_fread(): NULL or invalid file pointer passed as input!", 3), 1);
    EXPECT_EQ(sim.log().count("snbf_fwrite(): NULL or invalid file pointer passed as input!", 3),
              1);
  }
}

SIM_TEST(FileWrite, WritesAllOfItAtThePosition) {
  FileParts parts(sim);
  sim.fail_nth(Fault::ShortWrite, 1);
  EXPECT_EQ(snbf_fwrite(parts.file, 6, "wxyz", 4), 4);
  EXPECT_TRUE(sim.fault_reached(Fault::ShortWrite));
  EXPECT_EQ(snbf_fwrite(parts.file, 0, "??", 0), 0);
  Bytes now;
  ASSERT_TRUE(sim.peek_file("/a", &now));
  EXPECT_EQ(now, (Bytes{'a', 'b', 'c', 'd', 'e', 'f', 'w', 'x', 'y', 'z'}));
  EXPECT_FALSE(sim.log().has_errors());
}

SIM_TEST(FileWrite, NoProgressIsAnError) {
  FileParts parts(sim);
  sim.fail_nth(Fault::ShortWrite, 1);
  sim.fail_nth(Fault::ZeroWrite, 2);
  EXPECT_EQ(snbf_fwrite(parts.file, 0, "wxyz", 4), -EIO);
  EXPECT_EQ(sim.log().count("snbf_fwrite(): Short write into /a: wrote 2 instead of 4", 3), 1)
      << sim.log().dump();
}

SIM_TEST(FileWrite, AnswersTheErrorOfTheCall) {
  FileParts parts(sim);
  sim.fail_nth(Fault::FileWrite, 1, -ENOSPC);
  EXPECT_EQ(snbf_fwrite(parts.file, 0, "wxyz", 4), -ENOSPC);
  EXPECT_EQ(sim.log().count("snbf_fwrite(): Failed to write 4 bytes into /a: rc=-28", 3), 1);
}

// A file on a store of its own, and pieces of it: every other page.
class DirectParts : public LoggedParts {
 public:
  static constexpr int kPieces = 6;

  explicit DirectParts(Sim& kernel) : sim(kernel) {
    Device* disk = sim.add_device({.name = "sdb1"});
    fs = sim.add_fs("store", disk->number());
    EXPECT_EQ(sim.mount(fs, "/store"), 0);
    file = snbf_fopen("/store/a", PLAT_O_RDWR | PLAT_O_CREAT, 0600);
    EXPECT_NE(file, nullptr);
    batch = snbf_plat_direct_batch_make(kPieces, 2 * kPieces);
    EXPECT_NE(batch, nullptr);
    for (int i = 0; i < kPieces; ++i) {
      for (int half = 0; half < 2; ++half) {
        pages[2 * i + half] = snbf_plat_page_alloc(PLAT_ALLOC_NORMAL);
        std::memset(pages[2 * i + half], fill(i, half), 4096);
      }
      pieces[i] = {place(i), &pages[2 * i], 2 * 4096, 0};
    }
  }
  ~DirectParts() {
    for (void* page : pages) snbf_plat_page_free(page);
    snbf_plat_direct_batch_free(batch);
    snbf_fclose(file);
    EXPECT_EQ(sim.unmount(fs), 0);
  }

  int write() { return snbf_fwrite_direct(file, batch, pieces, kPieces); }
  bool is_written(int piece) {
    Bytes now(2 * 4096, 0xEE);
    Bytes expected(now);
    for (int half = 0; half < 2; ++half) {
      std::fill_n(expected.begin() + 4096 * half, 4096, static_cast<u8>(fill(piece, half)));
    }
    snbf_fread(file, place(piece), now.data(), 2 * 4096);
    return now == expected;
  }

  Sim& sim;
  FileSystem* fs;
  snbf_file* file;
  plat_direct_batch* batch;
  plat_file_piece pieces[kPieces];

 private:
  static u64 place(int piece) { return 4096 * 3 * static_cast<u64>(kPieces - piece); }
  static int fill(int piece, int half) { return 0x10 + 2 * piece + half; }

  void* pages[2 * kPieces];
};

SIM_TEST(FileDirect, WritesEveryPiece) {
  DirectParts parts(sim);
  EXPECT_EQ(parts.write(), 0);
  for (int i = 0; i < parts.kPieces; ++i) EXPECT_TRUE(parts.is_written(i)) << i;
}

SIM_TEST(FileDirect, FinishesWhatComesBackShort) {
  DirectParts parts(sim);
  sim.fail_nth(Fault::ShortWrite, 3);
  EXPECT_EQ(parts.write(), 0);
  EXPECT_TRUE(sim.fault_reached(Fault::ShortWrite));
  for (int i = 0; i < parts.kPieces; ++i) EXPECT_TRUE(parts.is_written(i)) << i;
  EXPECT_FALSE(sim.log().has_errors());
}

// A call may stop within a page: what is left of that page goes by itself, and then the next pages.
SIM_TEST(FilePages, GoOnWithinAPageWhereACallStopped) {
  FileParts parts(sim);
  void* pages[3];
  for (int i = 0; i < 3; ++i) {
    pages[i] = snbf_plat_page_alloc(PLAT_ALLOC_NORMAL);
    std::memset(pages[i], 0x41 + i, 4096);
  }
  for (const int bytes : {3 * 4096, 2 * 4096 + 100, 4096, 1000}) {
    SCOPED_TRACE(bytes);
    sim.fail_nth(Fault::ShortWrite, 1);
    EXPECT_EQ(snbf_fwrite_pages(parts.file, 0, pages, bytes), bytes);
    EXPECT_TRUE(sim.fault_reached(Fault::ShortWrite));
    Bytes now;
    ASSERT_TRUE(sim.peek_file("/a", &now));
    for (int i = 0; i < bytes; ++i) ASSERT_EQ(now[static_cast<u64>(i)], 0x41 + i / 4096) << i;
    ASSERT_EQ(sim.write_at("/a", 0, Bytes(3 * 4096)), 0);
  }
  EXPECT_FALSE(sim.log().has_errors());
  for (void* page : pages) snbf_plat_page_free(page);
}

SIM_TEST(FileDirect, OneThatFailsIsAnsweredAndTheOthersAreWritten) {
  DirectParts parts(sim);
  sim.fail_nth(Fault::FileWrite, 3, -ENOSPC);
  EXPECT_EQ(parts.write(), -ENOSPC);
  for (int i = 0; i < parts.kPieces; ++i) EXPECT_EQ(parts.is_written(i), i != 2) << i;
  EXPECT_EQ(sim.log().count("snbf_fwrite(): Failed to write 8192 bytes into /store/a: rc=-28", 3),
            1);
}

SIM_TEST(FileDirect, NoProgressIsAnError) {
  DirectParts parts(sim);
  sim.fail_nth(Fault::ZeroWrite, 1);
  EXPECT_EQ(parts.write(), -EIO);
  EXPECT_EQ(sim.log().count("snbf_fwrite(): Short write into /store/a: wrote 0 instead of 8192", 3),
            1);
}

SIM_TEST(FileDirect, TellsWhatIsNotTakenThisWay) {
  DirectParts parts(sim);
  sim.fail_nth(Fault::DirectWrite, 2);
  EXPECT_EQ(parts.write(), -EINVAL);
  for (int i = 0; i < parts.kPieces; ++i) EXPECT_EQ(parts.is_written(i), i != 1) << i;
  EXPECT_EQ(parts.pieces[1].result, -EINVAL);
  sim.log().clear();
  // A failure is told before that.
  sim.fail_nth(Fault::DirectWrite, 1);
  sim.fail_nth(Fault::FileWrite, 1, -EIO);
  EXPECT_EQ(parts.write(), -EIO);
}

SIM_TEST(FileSync, AnswersTheFilesOwnResult) {
  FileParts parts(sim);
  EXPECT_EQ(snbf_fsync(parts.file), 0);
  sim.fail_nth(Fault::FileSync, 1, -EIO);
  EXPECT_EQ(snbf_fsync(parts.file), -EIO);
}

SIM_TEST(FileTruncate, EmptiesAFileThatExists) {
  LoggedParts parts;
  ASSERT_EQ(sim.write_file("/a", kText), 0);
  EXPECT_EQ(snbf_ftruncate("/a"), 0);
  Bytes now = {1};
  ASSERT_TRUE(sim.peek_file("/a", &now));
  EXPECT_TRUE(now.empty());
}

SIM_TEST(FileTruncate, MakesNoFileAndStillAnswersZero) {
  LoggedParts parts;
  EXPECT_EQ(snbf_ftruncate("/none"), 0);
  EXPECT_FALSE(sim.exists("/none"));
  EXPECT_EQ(sim.log().count(
                "snbf_fopen(): Failed to open file /none for reading and writing: errno=-2", 3),
            1);
}

SIM_TEST(ZeroedMemory, IsZeroOrNull) {
  LoggedParts parts;
  auto* block = static_cast<u8*>(kzalloc(100, PLAT_ALLOC_NORMAL));
  ASSERT_NE(block, nullptr);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(block[i], 0);
  snbf_plat_heap_free(block);
  sim.fail_nth(Fault::Heap, 1);
  EXPECT_EQ(kzalloc(100, PLAT_ALLOC_NORMAL), nullptr);
}

}  // namespace
}  // namespace snbf::sim
