// SPDX-License-Identifier: GPL-2.0-only
// The hooks around a backup: what they are told, and that the second one always runs.
#include "hooks.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>
#include <vector>

#include "failure.h"

namespace snbf {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLong{60000};

class HookCalls : public testing::Test {
 protected:
  HookCalls() {
    std::signal(SIGPIPE, SIG_IGN);  // as the tool does
    char name[] = "/tmp/snbf-hooks-XXXXXX";
    directory_ = ::mkdtemp(name);
    commands_.limit = kLong;
    commands_.before_freeze = log("$SNBF_HOOK $SNBF_NODE");
    commands_.after_thaw = log("$SNBF_HOOK $SNBF_OUTCOME");
  }
  ~HookCalls() override { std::filesystem::remove_all(directory_); }

  std::string log(const std::string& words) const {
    return "echo " + words + " >> " + directory_ + "/log";
  }
  std::string logged() const {
    std::ifstream file(directory_ + "/log");
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }
  bool comes(const std::string& wanted) const {
    for (int tries = 0; tries < 3000; ++tries) {
      if (logged() == wanted) return true;
      std::this_thread::sleep_for(milliseconds(10));
    }
    return false;
  }

  std::string directory_;
  HookCommands commands_;
};

const auto kNoStop = [] { return false; };

TEST_F(HookCalls, BothRunInTheirOrderAndAreToldWhatHappens) {
  Hooks hooks(commands_, {{"SNBF_NODE", "data"}});
  hooks.before_freeze(kNoStop);
  EXPECT_EQ(logged(), "before-freeze data\n");
  EXPECT_EQ(hooks.after_thaw("done"), "");
  EXPECT_EQ(logged(), "before-freeze data\nafter-thaw done\n");
  EXPECT_EQ(hooks.after_thaw("done"), "") << "once";
  EXPECT_EQ(logged(), "before-freeze data\nafter-thaw done\n");
}

TEST_F(HookCalls, WithoutAnyNothingHappens) {
  commands_.before_freeze = commands_.after_thaw = "";
  Hooks hooks(commands_, {});
  hooks.before_freeze(kNoStop);
  EXPECT_EQ(hooks.after_thaw("done"), "");
}

TEST_F(HookCalls, TheSecondRunsAlthoughTheFirstFails) {
  commands_.before_freeze = "exit 3";
  {
    Hooks hooks(commands_, {});
    try {
      hooks.before_freeze(kNoStop);
      FAIL() << "it must fail";
    } catch (const Failure& failure) {
      EXPECT_NE(std::string(failure.what()).find("status 3"), std::string::npos) << failure.what();
    }
  }
  EXPECT_EQ(logged(), "after-thaw failed\n");
}

TEST_F(HookCalls, OneThatHangsIsKilledWithAllItsProcesses) {
  commands_.limit = milliseconds(200);
  commands_.before_freeze = "sleep 1000 & echo $! > " + directory_ + "/pid; wait";
  {
    Hooks hooks(commands_, {});
    EXPECT_THROW(hooks.before_freeze(kNoStop), Failure);
  }
  pid_t child = 0;
  std::ifstream(directory_ + "/pid") >> child;
  ASSERT_GT(child, 0);
  // Whoever reaps orphans may take its time: a zombie is as good as gone.
  bool gone = false;
  for (int tries = 0; tries < 3000 && !gone; ++tries) {
    std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
    std::string number, name, state;
    gone = !(stat >> number >> name >> state) || state == "Z";
    std::this_thread::sleep_for(milliseconds(10));
  }
  EXPECT_TRUE(gone);
  EXPECT_EQ(logged(), "after-thaw failed\n");
}

TEST_F(HookCalls, OneThatIgnoresTheSignalIsKilledAllTheSame) {
  const ShellEnd end =
      run_shell("trap '' TERM; while :; do sleep 0.1; done", {}, milliseconds(200), nullptr);
  EXPECT_EQ(end.how, ShellEnd::How::TimeUp);
}

TEST_F(HookCalls, AnInterruptionEndsTheFirstAndTheSecondStillRuns) {
  commands_.before_freeze = "sleep 1000";
  {
    Hooks hooks(commands_, {});
    EXPECT_THROW(hooks.before_freeze([] { return true; }), Failure);
  }
  EXPECT_EQ(logged(), "after-thaw failed\n");
}

TEST_F(HookCalls, ASecondThatFailsOrHangsIsTold) {
  commands_.after_thaw = "exit 5";
  Hooks failing(commands_, {});
  failing.before_freeze(kNoStop);
  EXPECT_NE(failing.after_thaw("done").find("status 5"), std::string::npos);
  commands_.after_thaw = "sleep 1000";
  commands_.limit = milliseconds(200);
  commands_.before_freeze = "";
  Hooks hanging(commands_, {});
  hanging.before_freeze(kNoStop);
  EXPECT_NE(hanging.after_thaw("done").find("too long"), std::string::npos);
}

TEST_F(HookCalls, TheSecondIsNotEndedWithTheRestOfTheService) {
  commands_.after_thaw = "kill -HUP $$; kill -INT $$; kill -TERM $$; " + commands_.after_thaw;
  Hooks hooks(commands_, {});
  hooks.before_freeze(kNoStop);
  EXPECT_EQ(hooks.after_thaw("done"), "");
  EXPECT_NE(logged().find("after-thaw done\n"), std::string::npos) << logged();
}

TEST_F(HookCalls, TheFirstIsEndedByASignal) {
  commands_.before_freeze = "kill -TERM $$; " + commands_.before_freeze;
  Hooks hooks(commands_, {});
  EXPECT_THROW(hooks.before_freeze(kNoStop), Failure);
}

TEST_F(HookCalls, WhatTheFirstLeavesInTheBackgroundGoesOn) {
  const std::string fifo = directory_ + "/fifo";
  commands_.before_freeze = "mkfifo " + fifo + "; cat " + fifo + " > /dev/null &";
  commands_.after_thaw = "echo go > " + fifo;  // waits for a reader
  Hooks hooks(commands_, {});
  hooks.before_freeze(kNoStop);
  EXPECT_EQ(hooks.after_thaw("done"), "");
}

TEST_F(HookCalls, OneThatAsksIsAnsweredNothing) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "yes\n", 4), 4);
  const UniqueFd stdin_before(::dup(0));
  ::dup2(ends[0], 0);
  commands_.before_freeze = "if read answer; then exit 1; fi";
  Hooks hooks(commands_, {});
  EXPECT_NO_THROW(hooks.before_freeze(kNoStop));
  ::dup2(stdin_before.get(), 0);
  for (int end : ends) ::close(end);
}

// The children of this process, the newest last.
std::vector<pid_t> children() {
  std::ifstream file("/proc/self/task/" + std::to_string(::getpid()) + "/children");
  return {std::istream_iterator<pid_t>(file), {}};
}

TEST_F(HookCalls, TheSecondRunsThoughItsKeeperIsKilled) {
  commands_.before_freeze = "";
  Hooks hooks(commands_, {});
  hooks.before_freeze(kNoStop);
  ASSERT_FALSE(children().empty());
  const pid_t keeper = children().back();
  ::kill(keeper, SIGKILL);
  siginfo_t ended;
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(keeper), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(hooks.after_thaw("done"), "");
  EXPECT_EQ(logged(), "after-thaw done\n");
}

TEST_F(HookCalls, TheSecondRunsThoughWeAreKilled) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    Hooks hooks(commands_, {{"SNBF_NODE", "data"}});
    hooks.before_freeze(kNoStop);
    if (::write(ends[1], "r", 1) != 1) ::_exit(1);
    ::pause();
  }
  char ready;
  ASSERT_EQ(::read(ends[0], &ready, 1), 1);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(comes("before-freeze data\nafter-thaw killed\n")) << logged();
}

}  // namespace
}  // namespace snbf
