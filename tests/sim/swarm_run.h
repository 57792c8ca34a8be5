// A run of the swarm: what its plan says, on one kernel after another. The people who are about act
// at once, and beside them things break; it is judged by the models of both bitmaps, of the
// partition and of every snap's image.
#pragma once

#include <functional>
#include <span>

#include "snap_rig.h"
#include "swarm.h"

namespace snbf::rig {

// What each bitmap must hold, over all lives of a run.
class Bitmaps : public WriteListener {
 public:
  u64 sent(u64 sector, u64 sectors) override {
    for (const u32 type : kTypes)
      tickets_[next_][type] =
          models[type].send(extents_of(sector, static_cast<u32>(sectors * 512)));
    return next_++;
  }
  void ended(u64 ticket, bool moved) override {
    for (const u32 type : kTypes) models[type].end(tickets_[ticket][type], moved);
    tickets_.erase(ticket);
  }
  // Nobody is about, and the bitmap is known to be `map`.
  void begin_from(u32 type, const Extents& map) {
    models[type] = BitmapModel(kExtents);
    models[type].add(map);
    taking[type] = false;
  }

  BitmapModel models[2] = {BitmapModel{kExtents}, BitmapModel{kExtents}};
  bool taking[2] = {};  // a command that takes bits away is under way: it has or has not

 private:
  std::map<u64, std::map<u32, u64>> tickets_;
  u64 next_ = 0;
};

// One boot of a run: lives, until its end or a power cut.
class Swarm {
 public:
  // `partition`: of the first boot, what it holds is left for the second to judge.
  Swarm(Sim& kernel, const Plan& plan, Bitmaps& bitmaps, model::Partition& partition,
        bool first_boot);
  // In a task.
  void run();
  Tally tally();  // of what has been met so far, and of what the devices have done
  // The driver has said in its log that files lack changes, as nothing could be written; since the bitmaps were last
  // taken to be what their files say.
  bool files_may_lack_changes() const;

 private:
  using Trouble = std::pair<Trait, std::function<void()>>;

  static bool failed() { return testing::Test::HasFailure(); }
  bool breaks_copies() const;
  bool breaks() const { return breaks_copies() || plan_.has(Trait::DiskFails); }
  // A command that answers an error must have a reason in the plan.
  bool is_excused(int rc) const;
  void expect_done(int rc, const char* command) const;
  void expect_file_done(int rc, const char* command) const;
  void expect_open(int rc) const;
  // Also the file system's own writes set bits, and a file that is not trusted sets them all.
  bool may_is_known() const;

  void begin();
  // After a power cut: each bitmap covers what was acknowledged, whatever its file went through, and the partition
  // holds what a flush or the write itself was to make durable.
  void begin_again();
  // A life: all people, and what breaks beside them until the last has gone.
  void live();
  void send_people(int steps);
  // Between lives, with nobody about.
  void settle();
  void rest();

  // People. Each goes on for so many steps.
  void person(const char* name, std::function<void()> body);
  // So many steps, some at a time, each time while the node is open.
  void write_by(int steps, const std::function<void(int)>& some);
  void writer(int steps);
  void map_writer(int steps);
  void origin_reader(int steps);
  void opener(int steps);
  void saver(int steps);
  void restarter(int steps);
  void agent(int steps);
  // Those who ask for what there is not, and those who look at everything.
  void odd_commands(int steps);
  void look(int steps);
  void test_datablocks();

  // What the agent does.
  void one_command(u32 type);
  void take(u32 type, u32 command);
  void take_into_bad_memory(u32 type);
  // A backup that failed gives back what it took. Where its save may fail it is in memory alone.
  void merge(u32 type);
  void set(u32 type);
  // Loses no write, whatever the file is.
  void load(u32 type);
  void look_at(u32 type);
  // `losses`: how many there had been when `must` was taken.
  void judge_map(u32 type, const Extents& must, u64 losses, const Extents& map);
  void expect_covers(const Extents& must, const Extents& map);

  // What breaks.
  std::vector<Trouble> troubles_of();
  // Some such call, soon.
  void fail_one_of(std::span<const sim::Fault> kinds, u64 nth_max);
  void fail_files();
  void fail_memory();
  void fail_device(const char* name);
  // Each file operation has its ten seconds, so what comes before must be over.
  void stall();
  void lose_syncs();
  void abort_store();
  void mend();
  // It is mounted anew, and the bitmaps are what its files say.
  void repair_store();
  // The node has gone, and with it what was in memory alone.
  void lose_unsaved();

  Sim& sim;
  const Plan& plan_;
  Bitmaps& bitmaps_;
  const bool first_boot_;
  model::Partition& before_;  // of the first boot
  SnapRig rig_;
  std::vector<sim::Task*> people_;
  Extents taken_[2];
  u64 losses_ = 0;         // how often bitmaps have gone that their files lack
  size_t log_judged_ = 0;  // lines before this one say nothing of the files any more
  bool over_ = false;
};

struct Outcome {
  u64 steps = 0;
  u64 hash = 0;
  int cuts = 0;
  Tally tally = {};
};

// One run. What it finds wrong is a failure of the running test.
Outcome run_plan(const Plan& plan);

}  // namespace snbf::rig
