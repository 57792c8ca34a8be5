#include "swarm.h"

#include <cstdlib>
#include <iterator>
#include <sstream>

namespace snbf::rig {

namespace {

constexpr const char* kNames[] = {
    "agent",      "saver",     "openers", "snaps",    "readers", "files",      "below",
    "restarts",   "reload",    "cut",     "odd",      "procfs",  "filefaults", "nomemory",
    "storefails", "diskfails", "full",    "stall",    "bio",     "slow",       "hurry",
    "map",        "inplace",   "torn",    "syncloss", "aborts"};
static_assert(std::size(kNames) == static_cast<unsigned>(Trait::kCount));

constexpr std::uint32_t bit(Trait trait) { return 1u << static_cast<unsigned>(trait); }

// A stream of its own: a trait that is taken out leaves the run's other choices as they are.
std::uint64_t scramble(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15;
  x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9;
  x = (x ^ x >> 27) * 0x94d049bb133111eb;
  return x ^ x >> 31;
}

// What cannot be judged together.
std::uint32_t reconciled(std::uint32_t traits) {
  const auto drop = [&traits](Trait one, std::uint32_t because_of) {
    if ((traits & because_of) != 0) traits &= ~bit(one);
  };
  // A file system that is mounted on the node keeps it there.
  drop(Trait::Restarts, bit(Trait::Files));
  // A file system over what fails answers errors of its own, at any later time.
  drop(Trait::Files, bit(Trait::DiskFails) | bit(Trait::NoMemory));
  drop(Trait::Below,
       bit(Trait::StoreFails) | bit(Trait::Stall) | bit(Trait::NoMemory) | bit(Trait::Aborts));
  if ((traits & bit(Trait::Snaps)) == 0) traits &= ~bit(Trait::Map);  // nobody would look at it
  drop(Trait::Files, bit(Trait::Map));
  // Where no device fails nothing is torn.
  if ((traits & (bit(Trait::DiskFails) | bit(Trait::StoreFails))) == 0) traits &= ~bit(Trait::Torn);
  return traits;
}

}  // namespace

Plan plan_of_seed(std::uint64_t seed) {
  Plan plan;
  plan.seed = seed;
  const std::uint64_t draw = scramble(seed);
  plan.traits = static_cast<std::uint32_t>(draw) & (bit(Trait::kCount) - 1);
  // All that breaks at once mostly breaks the first snap, and nothing lives on: half of it.
  plan.traits &= static_cast<std::uint32_t>(scramble(draw)) | (bit(Trait::FileFaults) - 1) |
                 bit(Trait::Map) | bit(Trait::InPlace) | bit(Trait::Torn);
  plan.traits = reconciled(plan.traits);
  plan.steps = 8 + static_cast<int>(draw >> 40 & 15);
  plan.lives = 1 + static_cast<int>(draw >> 48 & 1);
  return plan;
}

std::string to_text(const Plan& plan) {
  std::string text = "seed=" + std::to_string(plan.seed) + " on=";
  const char* comma = "";
  for (unsigned i = 0; i < std::size(kNames); ++i) {
    if ((plan.traits >> i & 1) == 0) continue;
    text += comma + std::string(kNames[i]);
    comma = ",";
  }
  return text + " steps=" + std::to_string(plan.steps) + " lives=" + std::to_string(plan.lives);
}

bool parse_plan(const std::string& text, Plan* plan) {
  std::istringstream words(text);
  *plan = {};
  for (std::string word; words >> word;) {
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos) return false;
    const std::string key = word.substr(0, equals);
    const std::string value = word.substr(equals + 1);
    if (key == "seed") {
      plan->seed = std::strtoull(value.c_str(), nullptr, 0);
    } else if (key == "steps") {
      plan->steps = std::atoi(value.c_str());
    } else if (key == "lives") {
      plan->lives = std::atoi(value.c_str());
    } else if (key == "on") {
      std::istringstream names(value);
      for (std::string name; std::getline(names, name, ',');) {
        unsigned i = 0;
        while (i < std::size(kNames) && name != kNames[i]) ++i;
        if (i == std::size(kNames)) return false;
        plan->traits |= 1u << i;
      }
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace snbf::rig
