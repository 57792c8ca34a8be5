// What it costs to ask a data-block map whether a chunk is used: once for each chunk of each write.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "fsread/blkbmp.h"

namespace {

constexpr unsigned kFragChunks = 1u << kBlkbmpFragShift;

enum class Kind { Free, Runs, Random };

// A map without a device below it: `fragments` of 2^20 chunks each, all cut as is cheapest for the
// first.
class Map {
 public:
  Map(Kind kind, int fragments) : frags_(static_cast<size_t>(fragments)) {
    snbf_blkbmp_init(&map);
    map.chunks = fragments << kBlkbmpFragShift;
    map.frag_cnt = fragments;
    map.frags = frags_.data();
    int pieces = 0;
    for (snbf_blkbmp_frag& frag : frags_) {
      fill(kind);
      if (pieces == 0) pieces = cheapest_cut();
      create_sa(&frag, pieces, kBytes / pieces, bits_.data(), 0);
    }
    map.valid = 1;
  }

  snbf_blkbmp map;

 private:
  static constexpr int kBytes = kFragChunks / 8;

  void fill(Kind kind) {
    if (kind == Kind::Free) return;
    snbf::u8 run = 0;
    for (snbf::u8& byte : bits_) {
      if (random_() % 64 == 0) run = static_cast<snbf::u8>(~run);
      byte = kind == Kind::Runs ? run : static_cast<snbf::u8>(random_());
    }
  }
  int cheapest_cut() {
    snbf_blkbmp_frag none = {};
    int best = 1;
    int best_cost = kBytes * 2;
    for (int count = 1; count <= kBytes / 4; count *= 2) {
      const int cost = create_sa(&none, count, kBytes / count, bits_.data(), 1);
      if (cost < best_cost) {
        best = count;
        best_cost = cost;
      }
    }
    return best;
  }

  std::vector<snbf_blkbmp_frag> frags_;
  std::vector<snbf::u8> bits_ = std::vector<snbf::u8>(kBytes);
  std::mt19937_64 random_{1};
};

// Made once each, and kept until the end.
const Map& map_of(Kind kind, int fragments) {
  static std::map<std::pair<Kind, int>, std::unique_ptr<Map>> maps;
  std::unique_ptr<Map>& found = maps[{kind, fragments}];
  if (!found) found = std::make_unique<Map>(kind, fragments);
  return *found;
}

void ask(benchmark::State& state, Kind kind, bool in_order) {
  const Map& map = map_of(kind, static_cast<int>(state.range(0)));
  // Where the writes go: prepared, so that only the lookup is measured.
  std::mt19937_64 random(2);
  std::vector<snbf::u32> chunks(1 << 16);
  for (size_t n = 0; n < chunks.size(); ++n) {
    chunks[n] =
        static_cast<snbf::u32>((in_order ? n : random()) % static_cast<unsigned>(map.map.chunks));
  }
  size_t n = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(snbf_blkbmp_is_used(&map.map, chunks[n]));
    n = (n + 1) & (chunks.size() - 1);
  }
}

BENCHMARK_CAPTURE(ask, free_in_order, Kind::Free, true)->Arg(2)->Arg(512);
BENCHMARK_CAPTURE(ask, free_at_random, Kind::Free, false)->Arg(2)->Arg(512);
BENCHMARK_CAPTURE(ask, runs_in_order, Kind::Runs, true)->Arg(2)->Arg(512);
BENCHMARK_CAPTURE(ask, runs_at_random, Kind::Runs, false)->Arg(2)->Arg(512);
BENCHMARK_CAPTURE(ask, mixed_in_order, Kind::Random, true)->Arg(2)->Arg(512);
BENCHMARK_CAPTURE(ask, mixed_at_random, Kind::Random, false)->Arg(2)->Arg(512);

// While nothing is known every chunk counts as used.
void ask_without_map(benchmark::State& state) {
  snbf_blkbmp map;
  snbf_blkbmp_init(&map);
  for (auto _ : state) benchmark::DoNotOptimize(snbf_blkbmp_is_used(&map, 5));
}
BENCHMARK(ask_without_map);

}  // namespace

BENCHMARK_MAIN();
