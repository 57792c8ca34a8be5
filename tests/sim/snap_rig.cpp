#include "snap_rig.h"

#include <algorithm>
#include <cstring>

#include "block/node.h"

namespace snbf::rig {

namespace {

constexpr int kStoreMinor = 200;
constexpr u32 kReadPieceSectors = 2048;
constexpr u64 kFilePages = 24;
constexpr int kStartTries = 3;

bool is_change(sim::Op op) { return op != sim::Op::Read && op != sim::Op::Flush; }

}  // namespace

SnapRig::SnapRig(Sim& kernel, const SnapSetup& options, model::Partition* shared)
    : sim(kernel),
      setup(options),
      base(kernel),
      own_partition_(shared != nullptr ? nullptr
                                       : std::make_unique<model::Partition>(options.bytes / 512)),
      partition(shared != nullptr ? *shared : *own_partition_) {
  if (setup.has_map) lay_out_map();
}

// Chunks in use, free ones, and ones of which only the last block is used.
void SnapRig::lay_out_map() {
  map_.emplace(setup.bytes, setup.small_groups);
  const u64 chunk_blocks = setup.chunk_bytes / model::ExtMap::kBlockBytes;
  for (u64 block = 0; block < map_->blocks(); ++block) {
    const u64 kind = block / chunk_blocks % 4;
    const bool is_last = block % chunk_blocks == chunk_blocks - 1;
    map_->set(block, 1, kind == 0 || (kind == 2 && is_last));
  }
  if (partition.writes() > 1) return;  // it is there since an earlier boot
  Bytes bytes = map_->super();
  const Bytes map = map_->map();
  bytes.insert(bytes.end(), map.begin(), map.end());
  partition.lay_out(model::ExtMap::kSuperSector, bytes);
}

void SnapRig::make_devices() {
  sim::Device* disk = sim.add_device({.name = "sda1",
                                      .bytes = setup.bytes,
                                      .bio_based = setup.bio_based,
                                      .latency_max_us = setup.latency_max_us,
                                      .queue_depth = setup.queue_depth,
                                      .in_place_percent = setup.in_place_percent,
                                      .tears = setup.tears});
  disk->poke(0, partition.initial());
  arrivals_.watch(disk);
  sim::Device* store = sim.add_device({.name = "sdb1",
                                       .bytes = setup.store_bytes,
                                       .latency_max_us = setup.store_latency_max_us,
                                       .blank = 0xA5,
                                       .in_place_percent = setup.in_place_percent,
                                       .tears = setup.tears});
  if (!setup.store_on_node && !setup.store_by_test) sim.add_fs("store", store->number());
}

void SnapRig::mount_and_load(bool fresh) {
  if (setup.store_on_node) {
    base.load({.debug = setup.debug, .max_blk_minor = setup.minor_max});
    if (fresh) {
      ASSERT_EQ(sim.make_dir("/bmp"), 0);
    }
    ASSERT_EQ(base.add("/dev/sdb1", kStoreMinor, "/bmp"), kStoreMinor);
    ASSERT_EQ(base.start(kStoreMinor), 0);
    if (fresh) sim.add_fs("store", node(kStoreMinor));
    sim.fs("store")->set_takes_direct(setup.store_takes_direct);
    ASSERT_EQ(sim.mount(sim.fs("store"), node(kStoreMinor), "/store"), 0);
    return;
  }
  if (!setup.store_by_test) {
    sim.fs("store")->set_takes_direct(setup.store_takes_direct);
    ASSERT_EQ(sim.mount(sim.fs("store"), "/store"), 0);
  }
  base.load({.debug = setup.debug, .max_blk_minor = setup.minor_max});
}

void SnapRig::begin() {
  make_devices();
  mount_and_load(true);
  ASSERT_EQ(base.add("/dev/sda1", 0), 0);
  ASSERT_EQ(base.start(), 0);
  if (setup.fs_blocks == 0) return;
  sim::FileSystem* fs = sim.add_fs("data", node(), setup.fs_blocks);
  ASSERT_EQ(sim.mount(fs, "/data"), 0);
  // The file gets its blocks once and for all; what it holds is then written in place.
  ASSERT_EQ(sim.write_file("/data/file", Bytes(kFilePages * 4096), true), 0);
  file_map_ = fs->map("/data/file");
  for (const auto& [sector, count] : file_map_) file_pages_ += count / 8;
  ASSERT_EQ(file_pages_, kFilePages);
  for (u64 page = 0; page < file_pages_; ++page) ASSERT_EQ(write_file_page(page, false), 0);
  ASSERT_EQ(sim.sync_all(), 0);
}

void SnapRig::judge_cut(const model::Partition& before, u64 fs_blocks) {
  const u64 first = fs_blocks * 8;
  const Bytes all = sim.device("sda1")->all();
  u64 kept = 0;
  EXPECT_EQ(before.check_kept(first, std::span(all).subspan(first * 512), &kept), "");
  tally[Met::Durable] += kept;
}

void SnapRig::begin_again() {
  partition.power_cut();
  if (own_partition_ == nullptr) judge_cut(partition, setup.fs_blocks);
  arrivals_.watch(sim.device("sda1"));
  mount_and_load(false);
  ASSERT_EQ(base.add("/dev/sda1", 0), 0);
}

void SnapRig::end(bool delete_nodes) {
  if (sim::FileSystem* data = sim.fs("data"); data != nullptr && data->mounted()) {
    ASSERT_EQ(sim.unmount(data), 0);
  }
  check_partition();
  if (delete_nodes) {
    ASSERT_EQ(base.remove(), 0);
    for (const auto& snap : snaps) check_files_gone(*snap);
  } else if (setup.store_on_node || sim.random(2) == 0) {
    ASSERT_EQ(base.stop(), 0);  // else the unloading stops it
  }
  if (setup.store_on_node) {
    ASSERT_EQ(sim.unmount(sim.fs("store")), 0);
    ASSERT_EQ(base.remove(kStoreMinor), 0);
  }
  ASSERT_EQ(sim.unload_driver(), 0);
}

int SnapRig::create(const std::string& files, int minor, u32 chunk_bytes) {
  snbf_snap_node_cmd record = {};
  record.snbf_minor = 0;
  record.snap_minor = minor;
  record.chunk_size = chunk_bytes != 0 ? chunk_bytes : setup.chunk_bytes;
  std::strcpy(record.cow_bmp_fname, (files + ".bmp").c_str());
  std::strcpy(record.cow_data_fname, (files + ".data").c_str());
  const int rc = sim.ioctl(SNBF_ADD_SNAP_NODE, &record, sizeof(record));
  // Kept by the driver: without memory for the record this task goes on holding the table.
  if (rc == kNoMemory && snbf_blkdev_rwlock.count() < 0 &&
      sim.log().last("snbf_ioctl_add_snap_node()").ends_with("Memory allocation failure")) {
    snbf_blkdev_rwlock.write_unlock();
  }
  return rc != 0 ? rc : record.snap_minor;
}

int SnapRig::resume(int minor, u32 snap_valid, u32 stop_pending, u32 del_pending) {
  snbf_resume_cmd record = {static_cast<u32>(minor), snap_valid, stop_pending, del_pending};
  return sim.ioctl(SNBF_RESUME_SNAP, &record, sizeof(record));
}

snbf_info SnapRig::info(int minor) {
  snbf_info info = {};
  info.minor = static_cast<u32>(minor);
  if (sim.ioctl(SNBF_GET_INFO, &info, sizeof(info)) != 0) info.dev_type = 0;
  return info;
}

// ---- Requests

void SnapRig::judge_write(int rc, u64 waited_us) {
  longest_wait_us = std::max(longest_wait_us, waited_us);
  if (!partition_may_fail) {
    EXPECT_EQ(rc, 0) << "a write failed";
  }
  if (waits_checked) {
    EXPECT_LE(waited_us, longest_wait_allowed_us) << "a write was held too long";
  }
}

// Memory and device need not be aligned alike.
u32 SnapRig::piece_offset() {
  return sim.random(2) == 0 ? 0 : static_cast<u32>(512 * sim.random(8));
}

int SnapRig::read(plat_devt device, u64 sector, u32 sectors, Bytes* data) {
  const sim::Io io = sim.submit(device, {.op = sim::Op::Read,
                                         .sector = sector,
                                         .bytes = sectors * 512,
                                         .first_piece_offset = piece_offset()});
  const int rc = io.wait();
  *data = io.data();
  return rc;
}

// `bytes` says how long a write is, too; its data is made here. `own`: it is sent already, as far as the model goes.
SnapRig::Sent SnapRig::send(sim::Request request, std::optional<model::WriteTicket> own) {
  Sent sent = {
      .op = request.op, .sector = request.sector, .bytes = request.bytes, .sent_us = sim.now_us()};
  sent.is_flush = request.op == sim::Op::Flush || request.preflush;
  sent.is_fua = request.fua;
  sim::Device::Arrival arrival = {request.op, request.sector, request.bytes, 0, false};
  if (is_change(request.op)) {
    const u64 sectors = request.bytes / 512;
    if (listener != nullptr) sent.told = listener->sent(request.sector, sectors);
    sent.ticket = own ? *own : partition.send(request.sector, sectors, request.op != sim::Op::Write);
  }
  if (request.op == sim::Op::Write) {
    request.data = partition.data(sent.ticket);
    std::memcpy(&arrival.mark, request.data.data(), sizeof(arrival.mark));
  }
  sent.sent = partition.now();
  sent.place = arrivals_.sending(arrival);
  sent.io = sim.submit(node(), request);
  arrivals_.taken(sent.place, sent.io);
  return sent;
}

bool SnapRig::has_moved(const Sent& sent) const {
  const Bytes now = sim.device("sda1")->peek(sent.sector, sent.bytes);
  return partition.shows(sent.ticket, sent.sector, now);
}

int SnapRig::finish(const Sent& sent) {
  const int rc = sent.io.wait();
  arrivals_.ended(sent.place);
  if (is_change(sent.op)) {
    const bool moved = rc == 0 || has_moved(sent);
    if (rc != 0 && moved) ++tally[Met::Moved];
    if (listener != nullptr) listener->ended(sent.told, moved);
    partition.end(sent.ticket, rc == 0, setup.tears);
    judge_write(rc, sent.io.done_at_us() - sent.sent_us);
    if (rc == 0 && sent.is_fua) partition.hardened(sent.ticket);
  } else if (rc != 0) {
    EXPECT_TRUE(partition_may_fail) << "a read or a flush of the origin failed: " << rc;
  } else if (sent.op == sim::Op::Read) {
    EXPECT_EQ(partition.check_read(sent.sector, sent.io.data(), sent.sent), "");
  }
  if (rc == 0 && sent.is_flush) {
    partition.flushed(sent.sent);
    ++tally[Met::Flush];
  }
  return rc;
}

int SnapRig::write(u64 sector, u64 sectors) {
  return finish(send({.op = sim::Op::Write,
                      .sector = sector,
                      .bytes = static_cast<u32>(sectors * 512),
                      .preflush = sim.random(16) == 0,
                      .fua = sim.random(8) == 0,
                      .first_piece_offset = piece_offset()}));
}

int SnapRig::discard(u64 sector, u64 sectors) {
  return finish(send({.op = sim.random(2) == 0 ? sim::Op::Discard : sim::Op::WriteZeroes,
                      .sector = sector,
                      .bytes = static_cast<u32>(sectors * 512)}));
}

int SnapRig::read_origin(u64 sector, u32 sectors) {
  return finish(send({.op = sim::Op::Read,
                      .sector = sector,
                      .bytes = sectors * 512,
                      .first_piece_offset = piece_offset()}));
}

int SnapRig::flush() { return finish(send({.op = sim::Op::Flush})); }

// Within these sectors.
SnapRig::Sent SnapRig::send_one_of(u64 first, u64 sectors) {
  const u64 kind = sim.random(16);
  if (kind == 0) return send({.op = sim::Op::Flush});
  const u64 count = 1 + sim.random(sectors);
  sim::Request request = {.op = sim::Op::Write,
                          .sector = first + sim.random(sectors - count + 1),
                          .bytes = static_cast<u32>(count * 512)};
  if (kind < 4) request.op = sim::Op::Read;
  if (kind == 4 && setup.fs_blocks == 0) request.op = sim::Op::Discard;
  if (request.op == sim::Op::Discard) return send(request);
  request.first_piece_offset = piece_offset();
  if (request.op == sim::Op::Write) {
    request.preflush = sim.random(16) == 0;
    request.fua = sim.random(8) == 0;
  }
  return send(request);
}

void SnapRig::pipeline() {
  const u64 from = first_sector();
  const u64 room = 1 + sim.random(std::min<u64>(sectors() - from, 24));
  const u64 first = from + sim.random(sectors() - from - room + 1);
  std::vector<Sent> under_way;
  for (u64 left = 2 + sim.random(3); left > 0; --left) {
    under_way.push_back(send_one_of(first, room));
    if (sim.random(4) == 0) sim.sleep_us(sim.random(2000));
  }
  for (const Sent& sent : under_way) finish(sent);
}

bool SnapRig::may_refuse(int minor) {
  const snbf_info now = info(minor);
  return now.dev_type != SNBF_DEV_SNAP || now.started == 0 || now.snap_valid == 0 ||
         now.stop_pending != 0;
}

void SnapRig::judge_refusal(Snap& snap, int rc) {
  EXPECT_EQ(rc, kIoError) << "the error of a refused read";
  if (is_mended || (!partition_may_fail && !copies_may_fail)) {
    EXPECT_TRUE(may_refuse(snap.minor)) << "a read of a valid snap was refused: " << snap.minor;
  }
}

bool SnapRig::is_foreign(u64 sector) const {
  if (sector >= setup.fs_blocks * 8) return false;
  return std::none_of(file_map_.begin(), file_map_.end(), [sector](const auto& piece) {
    return sector >= piece.first && sector < piece.first + piece.second;
  });
}

std::string SnapRig::judge_image(SnapImage& image, u64 sector, const Bytes& data) const {
  for (u64 at = 0; at < data.size();) {
    const bool foreign = is_foreign(sector + at / 512);
    u64 end = at;
    while (end < data.size() && is_foreign(sector + end / 512) == foreign) end += 512;
    const std::span<const sim::u8> piece = std::span(data).subspan(at, end - at);
    const u64 first = sector + at / 512;
    const std::string wrong =
        foreign ? image.check_same(first, piece) : image.check_read(first, piece);
    if (!wrong.empty()) return wrong;
    at = end;
  }
  return "";
}

// One at a time, as a file system does it; beside a start of a snap as at any other time. A map that was not
// written whole is written whole with the next change.
int SnapRig::change_map() {
  if (map_changes_) return 0;
  map_changes_ = true;
  const u64 chunk_blocks = setup.chunk_bytes / model::ExtMap::kBlockBytes;
  const u64 chunks = map_->blocks() / chunk_blocks;
  u64 first = sim.random(map_->blocks());
  u64 count = 1 + sim.random(2 * chunk_blocks);
  if (sim.random(4) != 0) {
    first = first / chunk_blocks * chunk_blocks;
    count = (1 + sim.random(chunks / 3 + 1)) * chunk_blocks;
  }
  const bool used = sim.random(2) == 0;
  map_->set(first, count, used);
  if (!used) freed_ = {first, std::min(first + count, map_->blocks()) - first};
  const Bytes map = map_->map();
  const u64 sector = model::ExtMap::kMapSector;
  const int rc = finish(send({.op = sim::Op::Write,
                              .sector = sector,
                              .bytes = static_cast<u32>(map.size()),
                              .fua = sim.random(8) == 0,
                              .first_piece_offset = piece_offset()},
                             partition.send_own(sector, map)));
  map_changes_ = false;
  return rc;
}

int SnapRig::learn_map(Snap& snap, SnapImage& image, std::string* wrong) {
  wrong->clear();
  if (!map_ || !image.promised().empty()) return 0;
  Bytes map;
  const u64 sector = model::ExtMap::kMapSector;
  const int rc = read(node(snap.minor), sector, static_cast<u32>(map_->map_sectors()), &map);
  if (rc != 0) return rc;
  *wrong = image.check_read(sector, map);
  image.promise_only(map_->used_chunks(map, setup.chunk_bytes), setup.chunk_bytes / 512);
  return 0;
}

void SnapRig::check_map(Snap& snap) {
  const std::shared_ptr<SnapImage> image = snap.image;
  const MapState state = snap.map;
  if (!map_ || image == nullptr || state == MapState::Unknown) return;
  std::string wrong;
  if (learn_map(snap, *image, &wrong) != 0) return;
  EXPECT_EQ(wrong, "") << "snap " << snap.minor;
  const std::vector<bool>& used = image->promised();
  const u64 per_bit = u64{1} << sim.random(4);
  const u64 bits = (used.size() + per_bit - 1) / per_bit;
  sim::UserBuffer buffer = sim.user((bits + 7) / 8 + sim.random(4));
  snbf_datablock_cmd record = {static_cast<u32>(snap.minor),
                               static_cast<u32>(setup.chunk_bytes * per_bit),
                               static_cast<u32>(buffer.size()), 0, buffer.address()};
  const int rc = sim.ioctl(SNBF_GET_DATABLOCK_BMP, &record, sizeof(record));
  const Bytes told = buffer.bytes();
  buffer.unmap();
  if (snap.image != image || snap.map != state || info(snap.minor).started == 0) return;
  if (rc != 0) {
    EXPECT_TRUE(memory_may_fail || state == MapState::Building)
        << "snap " << snap.minor << " tells no map: " << rc;
    return;
  }
  EXPECT_EQ(record.size, (bits + 7) / 8);
  const bool may_be_missing =
      state == MapState::Building || copies_may_fail || partition_may_fail || memory_may_fail;
  const bool is_missing =
      std::all_of(told.begin(), told.begin() + record.size, [](u8 byte) { return byte == 0xFF; });
  if (is_missing && may_be_missing) return;
  ++tally[Met::Map];
  for (u64 bit = 0; bit < bits; ++bit) {
    const auto first = used.begin() + static_cast<long>(bit * per_bit);
    const auto end =
        used.begin() + static_cast<long>(std::min<u64>(used.size(), (bit + 1) * per_bit));
    const bool is_used = std::find(first, end, true) != end;
    tally[Met::Free] += is_used ? 0 : per_bit;
    ASSERT_EQ((told[bit / 8] >> bit % 8 & 1) != 0, is_used)
        << "snap " << snap.minor << ": bit " << bit << " of " << bits << ", each for " << per_bit
        << " chunks";
  }
}

int SnapRig::read_snap(Snap& snap, u64 sector, u32 sectors) {
  const std::shared_ptr<SnapImage> image = snap.image;
  std::string wrong;
  if (const int rc = image != nullptr ? learn_map(snap, *image, &wrong) : 0; rc != 0) {
    judge_refusal(snap, rc);
    return rc;
  }
  EXPECT_EQ(wrong, "") << "snap " << snap.minor;
  Bytes data;
  const int rc = read(node(snap.minor), sector, sectors, &data);
  if (rc != 0) {
    judge_refusal(snap, rc);
  } else if (image != nullptr && snap.image == image) {
    EXPECT_EQ(judge_image(*image, sector, data), "") << "snap " << snap.minor;
    ++tally[Met::Image];
  }
  return rc;
}

// As check_snap, for one that need not be right.
bool SnapRig::is_exact(Snap& snap) {
  std::string wrong;
  if (learn_map(snap, *snap.image, &wrong) != 0 || !wrong.empty()) return false;
  Bytes data;
  if (read(node(snap.minor), 0, static_cast<u32>(sectors()), &data) != 0) return false;
  return judge_image(*snap.image, 0, data).empty() && snap.image->check_instant().empty();
}

void SnapRig::check_snap(Snap& snap) {
  const snbf_info before = info(snap.minor);
  if (before.started == 0) return;
  count_copies(snap);
  sim::OpenNode opening;
  ASSERT_EQ(sim.open_node(node(snap.minor), PLAT_MODE_READ, &opening), 0);
  const bool good = before.snap_valid != 0 && before.stop_pending == 0;
  if (!copies_may_fail && !partition_may_fail) {
    EXPECT_EQ(before.snap_valid, 1u) << "snap " << snap.minor;
  }
  for (u64 sector = 0; sector < sectors() && !testing::Test::HasFailure();
       sector += kReadPieceSectors) {
    const u32 count = static_cast<u32>(std::min<u64>(kReadPieceSectors, sectors() - sector));
    const int rc = read_snap(snap, sector, count);
    if (!good) {
      EXPECT_EQ(rc, kIoError) << "snap " << snap.minor << " must refuse reads";
    } else if (is_mended || (!copies_may_fail && !partition_may_fail)) {
      EXPECT_EQ(rc, 0) << "snap " << snap.minor;
    }
    if (rc != 0) break;
  }
  if (snap.image != nullptr) {
    EXPECT_EQ(snap.image->check_instant(), "") << "snap " << snap.minor;
  }
  check_map(snap);
  EXPECT_EQ(sim.close_node(&opening), 0);
}

void SnapRig::check_partition() {
  if (file_pages_ != 0) return;  // its file system has written there too
  EXPECT_EQ(partition.check_read(0, sim.device("sda1")->all(), partition.now()), "");
}

int SnapRig::write_file_page(u64 page, bool sync) {
  u64 sector = 0, left = page;
  for (const auto& [first, count] : file_map_) {
    if (left < count / 8) {
      sector = first + 8 * left;
      break;
    }
    left -= count / 8;
  }
  const u64 sent_us = sim.now_us();
  const model::WriteTicket ticket = partition.send(sector, 8, false);
  const int rc = sim.write_at("/data/file", page * 4096, partition.data(ticket), sync);
  if (rc == 0) partition.end(ticket, true);  // else its file system may write it yet
  // A file's write also waits for its file system to be thawed.
  const bool checked = std::exchange(waits_checked, false);
  judge_write(rc, sim.now_us() - sent_us);
  waits_checked = checked;
  return rc;
}

// ---- Snaps

Snap* SnapRig::add_snap() {
  if (static_cast<int>(snaps.size()) >= snaps_max) return nullptr;
  const std::string files = "/store/cow" + std::to_string(files_made_++);
  const int minor = create(files);
  if (minor < 0) {
    if (!copies_may_fail && !(node_may_go && minor == kInvalid))
      ADD_FAILURE() << "a snap could not be created: " << minor;
    return nullptr;
  }
  // It went with its node, and its minor is another's.
  for (const auto& snap : std::vector<std::shared_ptr<Snap>>(snaps)) {
    if (snap->minor == minor) forget(snap);
  }
  snaps.push_back(std::make_shared<Snap>(Snap{minor, files}));
  return snaps.back().get();
}

int SnapRig::start_snap(Snap& snap) {
  const u32 was_started = info(snap.minor).started;
  auto image = std::make_shared<SnapImage>(partition);
  if (was_started == 0) {
    snap.image = image;
    snap.map = MapState::Building;
    snap.started = true;  // readers may come as soon as it is
  }
  const int rc = base.start(snap.minor);
  if (rc == 0) {
    image->started();
    snap.map = MapState::Built;
    ++tally[Met::Snap];
    if (node_may_go && was_started == 0 &&
        std::ranges::count(snaps, &snap, &std::shared_ptr<Snap>::get) != 0) {
      snap.started = info(snap.minor).started != 0;
      snap.image = snap.started ? image : nullptr;
    }
  } else if (was_started == 0) {
    snap.started = false;
    snap.image = nullptr;
  }
  return rc;
}

// Beside requests that never end the instant may not come within a minute; theirs do end.
void SnapRig::bring_up(Snap& snap) {
  for (int tries = 1;; ++tries) {
    const int rc = start_snap(snap);
    if (rc == 0 || copies_may_fail || testing::Test::HasFailure()) return;
    if (node_may_go && rc == kInvalid) return;
    EXPECT_EQ(rc, kAgain) << "snap " << snap.minor << " could not be started";
    if (tries < kStartTries) continue;
    ADD_FAILURE() << "snap " << snap.minor << " could not be started " << tries << " times";
  }
}

// Postponed while an older one is started; the cascade may take newer ones along.
int SnapRig::stop_snap(Snap& snap) {
  const int minor = snap.minor;
  count_copies(snap);
  const int rc = base.stop(minor);
  if (rc != 0 && !memory_may_fail && !(node_may_go && rc == kInvalid)) {
    EXPECT_EQ(rc, kBusy) << "snap " << minor;
  }
  forget_gone();
  return rc;
}

int SnapRig::delete_snap(Snap& snap) {
  const int minor = snap.minor;
  count_copies(snap);
  arrivals_.snaps_may_go();
  const int rc = base.remove(minor);
  arrivals_.snaps_may_go();  // nor is what was sent meanwhile known to have met one
  if (rc != 0) {
    const bool no_memory = memory_may_fail && (rc == kNoMemory || rc == kFault);
    EXPECT_TRUE(rc == kBusy || rc == -22 || no_memory) << "snap " << minor << ": " << rc;
  }
  forget_gone();
  return rc;
}

void SnapRig::count_copies(Snap& snap) {
  const Sim::Quiet quiet(sim);
  Node* node = find_node(static_cast<u32>(snap.minor));
  if (node == nullptr || node->dev_type != kSnapNode) return;
  const SnapNode& record = as_snap(*node);
  u64 copies = 0;
  for (u64 chunk = 0; record.cow_bmp.pages != nullptr && chunk < record.chunk_cnt; ++chunk)
    copies += snbf_cowbmp_is_set(&record.cow_bmp, chunk) ? 1 : 0;
  if (copies > snap.copies) tally[Met::Copy] += copies - snap.copies;
  snap.copies = copies;
}

void SnapRig::check_files_gone(const Snap& snap) {
  if (memory_may_fail || sim.fs("store")->aborted()) return;
  EXPECT_FALSE(sim.exists(snap.files + ".data")) << snap.files;
  EXPECT_FALSE(sim.exists(snap.files + ".bmp")) << snap.files;
}

void SnapRig::forget(const std::shared_ptr<Snap>& snap) {
  snap->started = false;
  snap->image = nullptr;
  std::erase(snaps, snap);
  gone_.push_back(snap);
}

// Its files go behind it, where another deletes it.
void SnapRig::forget_gone() {
  for (const auto& snap : std::vector<std::shared_ptr<Snap>>(snaps)) {
    const snbf_info now = info(snap->minor);
    if (now.dev_type != SNBF_DEV_SNAP) {
      if (std::ranges::count(snaps, snap) != 0) forget(snap);
      if (!node_may_go) check_files_gone(*snap);
    } else if (now.started == 0) {
      snap->started = false;
      snap->image = nullptr;
    }
  }
}

int SnapRig::stop_node() {
  const int rc = base.stop();
  forget_gone();
  return rc;
}

int SnapRig::remove_node() {
  arrivals_.snaps_may_go();
  const int rc = base.remove();
  arrivals_.snaps_may_go();  // nor is what was sent meanwhile known to have met one
  forget_gone();
  return rc;
}

Snap* SnapRig::any_snap(bool started) {
  std::vector<Snap*> found;
  for (const auto& snap : snaps) {
    if (snap->started == started) found.push_back(snap.get());
  }
  return found.empty() ? nullptr : found[sim.random(found.size())];
}

void SnapRig::stop_all_and_resume(bool reload) {
  const snbf_info before = info(0);
  ASSERT_EQ(base.stop(), 0);
  ++tally[Met::Restart];
  arrivals_.snaps_may_go();
  if (reload) {
    ASSERT_EQ(sim.unload_driver(), 0);
    base.load({.debug = setup.debug, .max_blk_minor = setup.minor_max});
    ASSERT_EQ(base.add("/dev/sda1", 0), 0);
  }
  std::vector<Snap*> order;
  for (u32 i = 0; i < before.snap_cnt; ++i) {
    for (const auto& snap : snaps) {
      if (snap->minor == static_cast<int>(before.snap_minors[i])) order.push_back(snap.get());
    }
  }
  for (Snap* snap : order) {
    if (reload) {
      ASSERT_EQ(create(snap->files, snap->minor), snap->minor);
    }
  }
  // None is written to before all are there, so any order will do; but a map is right only where the newer
  // snaps, which hold what has changed of it, were there before.
  const bool newest_first = map_ && sim.random(2) == 0;
  while (!order.empty()) {
    const u64 number = newest_first ? order.size() - 1 : sim.random(order.size());
    const auto at = order.begin() + static_cast<long>(number);
    if ((*at)->started) {
      ASSERT_EQ(resume((*at)->minor), 0);
      ++tally[Met::Resume];
      const bool is_newest =
          std::none_of(at + 1, order.end(), [](const Snap* newer) { return newer->started; });
      (*at)->map = is_newest ? MapState::Built : MapState::Unknown;
    }
    order.erase(at);
  }
  if (info(0).started == 0) {
    ASSERT_EQ(base.start(), 0);
  }
}

void SnapRig::mount_anew() {
  if (sim::FileSystem* data = sim.fs("data"); data != nullptr && data->mounted()) {
    ASSERT_EQ(sim.unmount(data), 0);
  }
  arrivals_.snaps_may_go();
  for (const auto& snap : std::vector<std::shared_ptr<Snap>>(snaps)) forget(snap);
  ASSERT_EQ(sim.unload_driver(), 0);
  sim.unmount(sim.fs("store"));
  ASSERT_FALSE(sim.fs("store")->mounted());
  mount_and_load(false);
  ASSERT_EQ(base.add("/dev/sda1", 0), 0);
  ASSERT_EQ(base.start(), 0);
}

// Newest image first, as the driver lists them.
void SnapRig::check_snaps() {
  const snbf_info filter = info(0);
  bool newer_invalid = false;
  for (u32 i = filter.snap_cnt; i-- > 0 && !testing::Test::HasFailure();) {
    const snbf_info now = info(static_cast<int>(filter.snap_minors[i]));
    if (now.started == 0) continue;
    if (newer_invalid) {
      EXPECT_EQ(now.snap_valid, 0u) << "snap " << now.minor << " outlives a newer one's end";
    }
    newer_invalid = newer_invalid || now.snap_valid == 0;
    for (const auto& snap : snaps) {
      if (snap->minor == static_cast<int>(now.minor)) check_snap(*snap);
    }
  }
}

}  // namespace snbf::rig
