// What a simulated device holds, and what of it a power cut leaves.
#include <algorithm>
#include <cstring>

#include "block_dev.h"

namespace snbf::sim {

namespace {

constexpr u64 kSectorsPerPage = 8;

const Page* find(const std::unordered_map<u64, std::unique_ptr<Page>>& pages, u64 index) {
  auto at = pages.find(index);
  return at == pages.end() ? nullptr : at->second.get();
}

}  // namespace

Page& Storage::page(u64 index) {
  auto& slot = current[index];
  if (slot == nullptr) {
    slot = std::make_unique<Page>();
    slot->fill(blank);
  }
  return *slot;
}

void Storage::read(u64 sector, u8* to, u64 bytes) const {
  u64 at = sector * kSectorBytes;
  while (bytes > 0) {
    const u64 in_page = std::min<u64>(bytes, 4096 - at % 4096);
    const Page* from = find(current, at / 4096);
    if (from != nullptr) {
      memcpy(to, from->data() + at % 4096, in_page);
    } else {
      memset(to, blank, in_page);
    }
    to += in_page;
    at += in_page;
    bytes -= in_page;
  }
}

void Storage::read_durable(u64 sector, u8* to, u64 bytes) const {
  for (u64 done = 0; done < bytes; done += kSectorBytes, ++sector) {
    const Page* from = find(older, sector / kSectorsPerPage);
    if (from == nullptr) from = find(current, sector / kSectorsPerPage);
    if (from != nullptr) {
      memcpy(to + done, from->data() + sector % kSectorsPerPage * kSectorBytes, kSectorBytes);
    } else {
      memset(to + done, blank, kSectorBytes);
    }
  }
}

void Storage::write(u64 number, u64 sector, const u8* from, u64 bytes) {
  for (u64 done = 0; done < bytes; done += kSectorBytes, ++sector) {
    const u64 index = sector / kSectorsPerPage;
    Page& to = page(index);
    if (number != 0) {
      auto& before = older[index];
      if (before == nullptr) before = std::make_unique<Page>(to);
      Version version{number, {}};
      memcpy(version.data.data(), from + done, kSectorBytes);
      pending[sector].push_back(version);
    } else {
      pending.erase(sector);
      Sector data;
      memcpy(data.data(), from + done, kSectorBytes);
      put_older(sector, data);
    }
    memcpy(to.data() + sector % kSectorsPerPage * kSectorBytes, from + done, kSectorBytes);
  }
}

void Storage::put_older(u64 sector, const Sector& data) {
  auto at = older.find(sector / kSectorsPerPage);
  if (at == older.end()) return;
  memcpy(at->second->data() + sector % kSectorsPerPage * kSectorBytes, data.data(), kSectorBytes);
}

void Storage::harden_up_to(u64 number) {
  for (auto at = pending.begin(); at != pending.end();) {
    auto& versions = at->second;
    std::size_t hard = 0;
    for (std::size_t i = 0; i < versions.size(); ++i) {
      if (versions[i].write <= number) hard = i + 1;
    }
    if (hard > 0) {
      put_older(at->first, versions[hard - 1].data);
      versions.erase(versions.begin(), versions.begin() + static_cast<std::ptrdiff_t>(hard));
    }
    at = versions.empty() ? pending.erase(at) : std::next(at);
  }
  if (pending.empty()) older.clear();
}

void Storage::harden_range(u64 sector, u64 sectors) {
  for (u64 i = 0; i < sectors; ++i) {
    auto at = pending.find(sector + i);
    if (at == pending.end()) continue;
    put_older(at->first, at->second.back().data);
    pending.erase(at);
  }
  if (pending.empty()) older.clear();
}

std::shared_ptr<Storage> Storage::copy() const {
  auto image = std::make_shared<Storage>();
  image->blank = blank;
  for (const auto& [index, page] : current) image->current[index] = std::make_unique<Page>(*page);
  return image;
}

std::shared_ptr<Storage> Storage::cut(Rng& rng) const {
  auto image = copy();
  for (const auto& [index, page] : older) image->current[index] = std::make_unique<Page>(*page);
  enum class Fate { Kept, Lost, Torn };
  std::map<u64, Fate> fates;
  // Drawn in the order of the writes, so that the same seed gives the same image.
  for (const auto& [sector, versions] : pending) {
    for (const Version& version : versions) fates.emplace(version.write, Fate::Lost);
  }
  for (auto& [number, fate] : fates) fate = static_cast<Fate>(rng.below(3));
  for (const auto& [sector, versions] : pending) {
    for (const Version& version : versions) {
      const Fate fate = fates[version.write];
      if (fate == Fate::Lost || (fate == Fate::Torn && rng.one_in(2))) continue;
      image->write(0, sector, version.data.data(), kSectorBytes);
    }
  }
  return image;
}

}  // namespace snbf::sim
