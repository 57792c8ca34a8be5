// SPDX-License-Identifier: GPL-2.0-only
// A backup into a program.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "failure.h"
#include "signals.h"
#include "store_fixture.h"

namespace snbf {
namespace {

class Programs : public StoreTest {};

TEST_F(Programs, AProgramReadsEverythingAndWhatIsLeftOutIsZeros) {
  const auto store = pipe_store(node_, "cat > " + directory_ + "/kept");
  Point point = store->open(full_);
  copy(store.get(), device('a'), extents({1, 2, 7}));
  store->land(&point);
  std::string wanted(kSize, '\0');
  for (uint64_t e : {1, 2, 7})
    wanted.replace(e * kExtent, kExtent, contents_, e * kExtent, kExtent);
  EXPECT_TRUE(text_of("kept") == wanted);
}

TEST_F(Programs, AProgramThatFailsMakesNoPoint) {
  const auto store = pipe_store(node_, "cat > /dev/null; exit 7");
  Point point = store->open(full_);
  copy(store.get(), device('a'), extents({1}));
  try {
    store->land(&point);
    FAIL() << "it must fail";
  } catch (const Failure& failure) {
    EXPECT_NE(std::string(failure.what()).find("status 7"), std::string::npos) << failure.what();
  }
}

TEST_F(Programs, AProgramThatStopsReadingIsAFailureAndNotOurEnd) {
  std::signal(SIGPIPE, SIG_IGN);  // as the tool does
  const auto store = pipe_store(node_, "exec <&-; sleep 1000");
  store->open(full_);
  EXPECT_THROW(copy(store.get(), device('a'), all()), Failure);
  store->discard();
}

TEST_F(Programs, AProgramDoesNotTakeAPartForTheWhole) {
  const auto store = pipe_store(node_, "cat > /dev/null && touch " + directory_ + "/whole");
  store->open(full_);
  copy(store.get(), device('a'), extents({1}));
  store->discard();
  EXPECT_FALSE(std::filesystem::exists(directory_ + "/whole"));
}

TEST_F(Programs, AProgramThatHangsIsLeftWhenASignalComes) {
  const SignalsNoted signals;
  const auto store = pipe_store(node_, "sleep 1000");
  store->open(full_);
  ::raise(SIGTERM);
  EXPECT_THROW(copy(store.get(), device('a'), all()), Failure);
  store->discard();
}

TEST_F(Programs, AProgramThatDoesNotEndIsLeftWhenASignalComes) {
  const SignalsNoted signals;
  const auto store = pipe_store(node_, "cat > /dev/null; sleep 1000");
  Point point = store->open(full_);
  copy(store.get(), device('a'), all());
  std::jthread end([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ::kill(::getpid(), SIGTERM);
  });
  EXPECT_THROW(store->land(&point), Failure);
  store->discard();
}

}  // namespace
}  // namespace snbf
