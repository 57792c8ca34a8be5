// SPDX-License-Identifier: GPL-2.0-only
// A backup onto a disk behind a server.
#include "store_nbd.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "failure.h"
#include "signals.h"
#include "store_fixture.h"

namespace snbf {
namespace {

class Servers : public StoreTest {
 protected:
  Servers() { folder_ = nbd_folder(node_, uri()); }
  ~Servers() override { stop(); }

  std::string uri() const { return "nbd+unix:///?socket=" + directory_ + "/sock"; }
  // The socket's file is there before anybody listens.
  bool answers() const {
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, (directory_ + "/sock").c_str());
    return ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  void serve(const std::vector<std::string>& command) {
    server_ = ::fork();
    if (server_ == 0) {
      std::vector<char*> argv;
      for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
      argv.push_back(nullptr);
      ::execvp(argv[0], argv.data());
      ::_exit(127);
    }
    for (int tries = 0; tries < 3000; ++tries) {
      if (answers()) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    FAIL() << command[0] << " does not come up";
  }
  void serve_disk(uint64_t size, const std::string& contents = "") {
    std::string bytes = contents;
    bytes.resize(size);
    replace_file(directory_ + "/disk", bytes);
    serve({"qemu-nbd", "-t", "-f", "raw", "-e", "8", "-k", directory_ + "/sock",
           directory_ + "/disk"});
  }
  void stop() {
    if (server_ > 0) {
      ::kill(server_, SIGTERM);
      ::waitpid(server_, nullptr, 0);
    }
    server_ = -1;
    std::filesystem::remove(directory_ + "/sock");
  }
  std::optional<Manifest> manifest() const { return read_manifest(folder_); }
  NbdLook look(const Extents& changed) const {
    const auto known = manifest();
    return look_at_nbd(uri(), changed, known ? &*known : nullptr);
  }

  std::unique_ptr<Store> new_store(Manifest begun = {}) {
    std::filesystem::create_directories(folder_);
    begun.chain = "chain";
    return nbd_store(node_, uri(), folder_, begun);
  }
  void put_point(const Plan& plan, const UniqueFd& from, const Extents& copied,
                 const Extents& skipped, bool whole = true) {
    const auto store = new_store(manifest().value_or(Manifest{}));
    Point point = store->open(plan);
    zero_extents(skipped, &store->sink());
    copy(store.get(), from, copied);
    if (!whole) return store->discard();
    store->land(&point);
    store->commit(&point, copied, skipped);
  }
  void put_full() {
    Extents copied = all();
    copied.subtract(extents({5, 6}));
    put_point(full_, device('a'), copied, extents({5, 6}));
  }

  std::string folder_;
  pid_t server_ = -1;
};

TEST_F(Servers, AFullPointIsOnTheDiskAndTheNextOneStandsOnIt) {
  serve_disk(kSize + 4096, std::string(kSize, 'x'));
  EXPECT_FALSE(look(extents({})).blank);
  put_full();
  std::string wanted = contents_;
  wanted.replace(5 * kExtent, 2 * kExtent, std::string(2 * kExtent, '\0'));
  EXPECT_TRUE(text_of("disk").substr(0, kSize) == wanted);
  ASSERT_TRUE(manifest());
  EXPECT_EQ(manifest()->unfinished, "");
  EXPECT_EQ(manifest()->points.at(0).skipped_extents, 2u);
  EXPECT_EQ(look(extents({})).damage, "");

  const Manifest first = *manifest();
  put_point({Level::Incremental, "", "", first.newest()}, device('A'), extents({3}), extents({}));
  wanted.replace(3 * kExtent, kExtent, contents_, 3 * kExtent, kExtent);
  EXPECT_TRUE(text_of("disk").substr(0, kSize) == wanted) << "nothing but what changed";
  EXPECT_EQ(manifest()->points.size(), 1u);
  EXPECT_EQ(manifest()->newest()->id, 2u);
  EXPECT_EQ(look(extents({})).damage, "");
}

TEST_F(Servers, ATargetThatIsAnotherOneByNowIsNoticed) {
  serve_disk(kSize);
  EXPECT_TRUE(look(extents({})).blank);
  put_full();
  stop();
  serve_disk(kSize);
  EXPECT_NE(look(extents({})).damage, "") << "an empty disk";
  EXPECT_TRUE(look(extents({})).blank);
}

TEST_F(Servers, AnOlderStateOfTheTargetIsNoticed) {
  serve_disk(kSize);
  put_full();
  const std::string before = text_of("disk");
  const Manifest first = *manifest();
  put_point({Level::Incremental, "", "", first.newest()}, device('A'), extents({3}), extents({}));
  stop();
  serve_disk(kSize, before);
  EXPECT_NE(look(extents({})).damage, "");
  EXPECT_FALSE(look(extents({})).ours);
}

TEST_F(Servers, AfterAnIncrementThatWasCutOffOnlyWhatIsNotChangedIsLookedAt) {
  serve_disk(kSize);
  put_full();
  const Manifest first = *manifest();
  put_point({Level::Incremental, "", "", first.newest()}, device('A'), extents({3}), extents({}),
            false);
  EXPECT_EQ(manifest()->unfinished, "incr");
  EXPECT_EQ(manifest()->newest()->id, 1u);
  EXPECT_EQ(look(extents({3})).damage, "") << "its changes are marked again";
}

TEST_F(Servers, AFullOneThatWasCutOffHasToBeDoneAgain) {
  serve_disk(kSize);
  put_full();
  put_point(full_, device('A'), extents({3}), extents({}), false);
  EXPECT_TRUE(look(extents({3})).ours);
  EXPECT_NE(look(extents({3})).damage, "");
}

TEST_F(Servers, OneThatNothingWasWrittenToIsNotClaimed) {
  serve_disk(kSize);
  new_store()->open(full_);  // and then a hook fails
  EXPECT_FALSE(manifest());
  EXPECT_FALSE(look(extents({})).ours);

  put_full();
  const auto store = nbd_store(node_, uri(), folder_, *manifest());
  store->open(full_);
  EXPECT_EQ(store->left_behind(), kNothingKept);
  EXPECT_EQ(manifest()->unfinished, "");
  EXPECT_EQ(look(extents({})).damage, "") << "it is as the last point left it";
}

TEST_F(Servers, AfterAFirstOneThatWasCutOffNobodyKnowsWhoseTheBytesAre) {
  serve_disk(kSize);
  put_point(full_, device('A'), extents({3}), extents({}), false);
  EXPECT_EQ(manifest()->unfinished, "full");
  EXPECT_FALSE(look(extents({})).ours);
  EXPECT_NE(look(extents({})).damage, "");
}

TEST_F(Servers, OneThatIsCutOffIsNotAsItWas) {
  serve_disk(kSize);
  const auto store = new_store();
  store->open(full_);
  store->sink();
  EXPECT_NE(store->left_behind(), kNothingKept);
  const SignalsNoted signals;
  ::raise(SIGTERM);
  try {
    end_if_interrupted(store->left_behind());
    FAIL() << "it was interrupted";
  } catch (const Failure& failure) {
    EXPECT_NE(std::string(failure.what()).find("half new"), std::string::npos) << failure.what();
  }
}

TEST_F(Servers, ANodeWithAnotherMinorFindsItsServerAgain) {
  snbf_info later = node_;
  later.minor = 7;
  EXPECT_EQ(nbd_folder(later, uri()), folder_);
}

TEST_F(Servers, OneThatSomebodyWroteToIsNoticedThoughThePartitionHasGrown) {
  serve_disk(2 * kSize);
  put_full();
  const Extents grown(kExtents + 1, kExtent, kSize + kExtent);
  EXPECT_EQ(look(grown).damage, "");
  stop();
  serve_disk(2 * kSize, std::string(kSize, 'x'));
  EXPECT_NE(look(grown).damage, "");
}

TEST_F(Servers, OneThatHangsIsLeftWhenASignalComes) {
  serve_disk(kSize);
  const SignalsNoted signals;
  const auto store = new_store();
  Point point = store->open(full_);
  ::kill(server_, SIGSTOP);
  ::raise(SIGTERM);
  copy(store.get(), device('a'), all());  // it all has room in the buffers
  EXPECT_THROW(store->land(&point), Failure);
  ::kill(server_, SIGCONT);
}

TEST_F(Servers, OneThatDiesIsAFailure) {
  serve_disk(kSize);
  const auto store = new_store();
  Point point = store->open(full_);
  stop();
  EXPECT_THROW(
      {
        copy(store.get(), device('a'), all());
        store->land(&point);
      },
      Failure);
}

TEST_F(Servers, ASmallOneIsRefused) {
  serve_disk(kSize - 4096);
  EXPECT_THROW(look(extents({})), Failure);
}

TEST_F(Servers, OneThatCanOnlyBeReadIsRefused) {
  replace_file(directory_ + "/disk", std::string(kSize, '\0'));
  serve({"qemu-nbd", "-t", "-r", "-f", "raw", "-k", directory_ + "/sock", directory_ + "/disk"});
  EXPECT_THROW(look(extents({})), Failure);
}

TEST_F(Servers, OneThatCannotWriteZerosIsGivenThem) {
  replace_file(directory_ + "/disk", std::string(kSize, 'x'));
  serve({"nbdkit", "-f", "-U", directory_ + "/sock", "--filter=nozero", "file",
         directory_ + "/disk"});
  put_full();
  EXPECT_TRUE(text_of("disk").substr(5 * kExtent, 2 * kExtent) == std::string(2 * kExtent, '\0'));
}

TEST_F(Servers, NoServerIsAFailureThatSaysSo) {
  try {
    look(extents({}));
    FAIL() << "there is none";
  } catch (const Failure& failure) {
    EXPECT_NE(std::string(failure.what()).find(uri()), std::string::npos);
  }
}

TEST(NbdUri, IsToldFromADirectory) {
  EXPECT_TRUE(is_nbd_uri("nbd://localhost/disk"));
  EXPECT_TRUE(is_nbd_uri("nbd+unix:///disk?socket=/run/s"));
  EXPECT_FALSE(is_nbd_uri("/backups/nbd"));
  EXPECT_FALSE(is_nbd_uri("nbd"));
}

}  // namespace
}  // namespace snbf
