// SPDX-License-Identifier: GPL-2.0-only
// snbf watch: a live view of nodes.
#include "watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <map>
#include <thread>

#include "failure.h"
#include "layout.h"
#include "looking.h"
#include "screen.h"
#include "signals.h"
#include "sizes.h"
#include "values.h"

namespace snbf {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kWidthMin = 40;
constexpr size_t kWidthMax = 160;
constexpr double kIntervalMin_s = 0.1;
constexpr double kIntervalMax_s = 86400;
constexpr auto kSignalsAskedEvery = std::chrono::milliseconds(100);

struct Options {
  std::vector<std::string> nodes;
  double interval_s = 1;
  uint64_t count = 0;
  bool json = false;
};

struct Seen {
  NodeFacts facts;
  Rates rates;
  Clock::time_point at;
};

class Watcher {
 public:
  explicit Watcher(const Options& options) : options_(options) {}

  void look() {
    std::map<std::string, Seen> before;
    for (Seen& seen : seen_) before.emplace(seen.facts.uuid, std::move(seen));
    seen_.clear();
    for (NodeFacts& node : nodes()) {
      Seen now{std::move(node), {}, Clock::now()};
      const auto known = before.find(now.facts.uuid);
      if (known != before.end()) {
        const std::chrono::duration<double> passed = now.at - known->second.at;
        now.rates = rates_between(known->second.facts, now.facts, passed.count());
      }
      seen_.push_back(std::move(now));
    }
  }

  std::string page() const {
    const size_t width = std::clamp(terminal_columns(), kWidthMin, kWidthMax);
    std::string out = show_time(::time(nullptr)) + "  Ctrl-C ends\n";
    if (seen_.empty()) out += "\nno nodes; `snbf attach` makes one\n";
    for (const Seen& seen : seen_) {
      out += "\n" + watch_panel(seen.facts, seen.rates, width, terminal_out());
    }
    return out;
  }

  std::string lines() const {
    std::string out;
    const int64_t now = ::time(nullptr);
    constexpr auto kReplace = Json::error_handler_t::replace;  // of a path that is not UTF-8
    for (const Seen& seen : seen_) {
      out += options_.json
                 ? watch_json(seen.facts, seen.rates, now).dump(-1, ' ', false, kReplace) + "\n"
                 : watch_line(seen.facts, seen.rates, now);
    }
    return out;
  }

 private:
  std::vector<NodeFacts> nodes() const {
    if (options_.nodes.empty()) return look_at_all(driver_);
    std::vector<NodeFacts> found;
    for (const std::string& name : options_.nodes) {
      found.push_back(look_at(driver_, driver_.find(name)));
    }
    return found;
  }

  const Options& options_;
  const Driver driver_;
  std::vector<Seen> seen_;
};

// False: somebody wants the end.
bool pause_until(Clock::time_point end) {
  while (!SignalsNoted::any()) {
    const auto left = end - Clock::now();
    if (left <= Clock::duration::zero()) return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(left, kSignalsAskedEvery));
  }
  return false;
}

int watch(const Options& options) {
  const char* kind = std::getenv("TERM");
  const bool live = terminal_columns() != 0 && !options.json && kind && std::string(kind) != "dumb";
  const auto interval = milliseconds_of(options.interval_s);
  Watcher watcher(options);
  watcher.look();  // what fails at once fails before the screen is taken
  const SignalsNoted signals;
  std::optional<Screen> screen;
  if (live) screen.emplace();
  for (uint64_t looks = 1;; ++looks) {
    const auto next = Clock::now() + interval;
    if (!(live ? screen->show(watcher.page()) : write_out(watcher.lines()))) break;
    if (looks == options.count || !pause_until(next)) break;
    watcher.look();
  }
  return kDone;
}

}  // namespace

void add_watch(CLI::App& app, Chosen& chosen) {
  auto options = std::make_shared<Options>();
  CLI::App* verb = add_verb(
      app, chosen, "watch", "Show nodes live: what changes, how fast, and how long COW room lasts",
      "Examples:\n  snbf watch data\n  snbf watch data --interval 10 --count 6 --json\n"
      "On a terminal the view is drawn anew at each look until Ctrl-C; elsewhere each look prints "
      "a line for each node.",
      options, watch);
  verb->add_option("nodes", options->nodes,
                   "Names, minors, device files or partitions; all if none is named");
  verb->add_option("--interval", options->interval_s,
                   "Time between two looks, such as 500ms or 1m (default 1s)")
      ->transform(seconds_between(kIntervalMin_s, kIntervalMax_s));
  verb->add_option("--count", options->count, "End after so many looks")->check(count());
  verb->add_flag("--json", options->json, "Print a line of JSON for each node and look");
}

}  // namespace snbf
