// The test's side: the kernel as a whole, tasks, fatal ends, leftovers.
#include "sim.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "block_dev.h"
#include "driver_data.h"
#include "files.h"
#include "images.h"
#include "kernel.h"
#include "memory_state.h"
#include "proc_state.h"

namespace snbf::sim {

std::function<void(const std::string&)> Sim::failure_handler;

Sim::Sim(Options options) : kernel_(std::make_unique<Kernel>(*this, options)) {
  reset_driver_data();
  make_root(*kernel_);
  if (options.images != nullptr && options.images->impl != nullptr)
    restore_images(*this, *options.images->impl);
}

Sim::~Sim() = default;

// ---- Tasks

Task* Sim::spawn(const std::string& name, std::function<void()> body, int pid) {
  Task* task = kernel_->new_task(name, std::move(body), pid);
  task->foreground = true;
  ++kernel_->foreground_alive;
  kernel_->task_get(task);  // for join; kept until the kernel goes
  if (kernel_->current != nullptr) kernel_->point();
  return task;
}

void Sim::join(Task* task) {
  wait_until([task] { return task->state == Task::State::Dead; });
}

void Sim::join_all() {
  const Task* me = kernel_->current;
  const u64 mine = me->foreground ? 1 : 0;
  wait_until([this, mine] { return kernel_->foreground_alive == mine; });
}

RunEnd Sim::run() {
  const RunEnd end = kernel_->run();
  if (end != RunEnd::Fatal || fatal_as_expected()) return end;
  if (failure_handler) {
    failure_handler(kernel_->fatal_text);
    return end;
  }
  fprintf(stderr, "SNBF_SEED=%llu: %s\n", static_cast<unsigned long long>(seed()),
          kernel_->fatal_text.c_str());
  abort();
}

RunEnd Sim::run(std::function<void()> body) {
  spawn("test", std::move(body));
  return run();
}

bool Sim::in_task() const { return kernel_->current != nullptr; }
Task* Sim::current() { return kernel().current; }
int Sim::pid_of(const Task* task) { return task->pid; }

void Sim::interrupt(std::function<void()> handler, u32 delay_us) {
  kernel_->add_event(delay_us, [this, handler = std::move(handler)] {
    InDriver in_driver(*kernel_);
    handler();
  });
}

void Sim::in_interrupt(std::function<void()> handler) {
  auto done = std::make_shared<bool>(false);
  interrupt([handler = std::move(handler), done] {
    handler();
    *done = true;
  });
  wait_until([done] { return *done; });
}

void Sim::sleep_us(u64 us) {
  Kernel& k = enter_sleeping("sleep_us");
  k.sleep("the time", nullptr, nullptr, nullptr, static_cast<s64>(us));
}

void Sim::point() { kernel_->point(); }

void Sim::wait_until(std::function<bool()> condition) {
  Kernel& k = enter_sleeping("wait_until");
  Task* me = k.current;
  while (!condition()) {
    me->polling = true;
    k.sleep_in(k.pollers, "a condition of the test", nullptr, nullptr);
  }
  // Others may wait for what it does from here on, be it without another stop.
  if (me->polling) k.progress = true;
  me->polling = false;
}

u64 Sim::now_us() const { return kernel_->now_us(); }
u64 Sim::steps() const { return kernel_->step; }
void Sim::set_step_limit(u64 steps) { kernel_->options.step_limit = steps; }
u64 Sim::seed() const { return kernel_->options.seed; }
u64 Sim::random() { return kernel_->test_rng.next(); }
u64 Sim::trace_hash() const { return kernel_->hash; }

Sim::Quiet::Quiet(Sim& sim) : sim_(sim) { ++sim_.kernel_->current->quiet; }
Sim::Quiet::~Quiet() { --sim_.kernel_->current->quiet; }

Sim::Plug::Plug(Sim& sim) : sim_(sim) { ++sim_.kernel_->current->plug_depth; }
Sim::Plug::~Plug() {
  Kernel& k = *sim_.kernel_;
  if (k.current == nullptr) return;
  if (--k.current->plug_depth == 0) k.flush_plug(k.current, false);
}

std::map<std::string, std::size_t> Sim::stack_use() const {
  std::map<std::string, std::size_t> use = kernel_->stack_by_name;
  for (const Task* task : kernel_->tasks) {
    std::size_t& deepest = use[task->name];
    deepest = std::max(deepest, task->driver_deepest);
  }
  return use;
}

// ---- Fatal ends

void Sim::expect_fatal(const std::string& part) { kernel_->expected_fatal = part; }
bool Sim::expects_fatal() const { return !kernel_->expected_fatal.empty(); }
const std::string& Sim::fatal_message() const { return kernel_->fatal_text; }

bool Sim::fatal_as_expected() const {
  return kernel_->has_fatal && !kernel_->expected_fatal.empty() &&
         kernel_->fatal_text.find(kernel_->expected_fatal) != std::string::npos;
}

void Sim::fatal(const std::string& message) { kernel_->fatal_text_end(message); }

std::string Sim::leftovers() const {
  const Kernel& k = *kernel_;
  std::string text;
  k.memory_leftovers(text);
  k.block_leftovers(text);
  k.files_leftovers(text);
  k.proc_leftovers(text);
  k.control_leftovers(text);
  for (const Task* task : k.tasks) {
    if (task->kthread) text += "  the thread '" + std::string(task->name) + "'\n";
    for (const SpinState* spin : task->spins) {
      text += "  the spin lock '" + std::string(spin->name) + "', held by '" + task->name + "'\n";
    }
    if (task->noio > 0 && !task->kthread)
      text += "  noio_begin by '" + std::string(task->name) + "'\n";
  }
  if (!k.pins.empty()) text += "  " + std::to_string(k.pins.size()) + " pins of user memory\n";
  if (k.task_references > 0)
    text += "  " + std::to_string(k.task_references) + " references on tasks\n";
  if (k.module_refs != 0)
    text += "  " + std::to_string(k.module_refs) + " references on the module\n";
  for (const auto& fs : k.files->all) {
    if (fs->frozen > 0 && !fs->by_hand) text += "  a freeze of the file system " + fs->name + "\n";
  }
  return text;
}

void Sim::check_nothing_left(const std::string& when) {
  const std::string text = leftovers();
  if (!text.empty()) fatal("left over " + when + ":\n" + text);
}

Log& Sim::log() { return kernel_->log; }

// ---- The end of the power

void Sim::power_cut() {
  Kernel& k = *kernel_;
  k.power_off = true;
  k.dead = true;
  if (k.current != nullptr) k.switch_to_main(true);
}

void Sim::power_cut_at_step(u64 step) {
  kernel_->power_cut_step = step;
  kernel_->next_stop = 0;
}

void Sim::power_cut_at_us(u64 time_us) {
  kernel_->power_cut_us = time_us;
  kernel_->next_stop = 0;
}

}  // namespace snbf::sim
