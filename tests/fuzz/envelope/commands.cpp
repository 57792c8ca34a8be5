// A command as a caller sends it, and what may come of it.
#include "base/errno.h"
#include "block/node.h"
#include "envelope/machine.h"

namespace snbf::fuzz {

namespace {

// ENXIO: the module is going or gone.
constexpr int kAnswers[] = {0,       -ENOENT, -EIO,    -ENOMEM,     -EFAULT,   -EBUSY,
                            -EINVAL, -ENOTTY, -ENOSPC, -EOPNOTSUPP, -EALREADY, -ENXIO};

// The refusals that leave the node table locked, by their texts.
struct KeptLock {
  const char* text;
  bool is_write;
};
constexpr KeptLock kKeptLocks[] = {
    {"snbf_ioctl_add_snap_node(): Memory allocation failure", true},
    {"All snaps must have identical chunk sizes.", true},
    {"snbf_ioctl_resume_snap(): Nothing is known about", false},
    {"snbf_ioctl_resume_snap(): snbf(", false},
    {"snbf_ioctl_resume_snap(): Can't resume snap", false},
};

bool is_about_bitmap(u32 number) {
  return number == SNBF_SET_BMP || number == SNBF_MERGE_BMP || number == SNBF_GET_BMP ||
         number == SNBF_GET_AND_CLR_BMP;
}

}  // namespace

// Byte 2, low nibble: the size that the record tells of its buffer.
s64 Machine::size_of(const Step& step, u32 number) {
  const u32 bitmap_bytes = geometry_of(minor_of(step)).bitmap_bytes;
  if (number == SNBF_GET_DATABLOCK_BMP) return 4 << (step.byte[2] & 7);
  switch (step.byte[2] & 15) {
    case 8:
      return 0;
    case 9:
      return bitmap_bytes + 1;
    case 10:
      return bitmap_bytes - 1;
    case 11:
      return -1;
    case 12:
      return 1 << 30;
    case 13:
      return step.byte[4];
    default:
      return bitmap_bytes;
  }
}

Call Machine::call_of(const Step& step, u32 number, const Placed& buffer, s64 size) {
  Call call = {number, plain_record(step, number), 0, 0, {}};
  if (is_about_bitmap(number) || number == SNBF_GET_DATABLOCK_BMP) {
    const u32 second =
        number == SNBF_GET_DATABLOCK_BMP ? some_size(step.byte[5]) : step.byte[1] >> 3 & 1;
    snbf_bmp_cmd record = {minor_of(step), second, static_cast<int>(size), 0,
                           size != 0 ? buffer.address() : 0};
    call.record = bytes_of(record);
  }
  spoil(step, call.record);
  if (call.record.size() >= 4) memcpy(&call.minor, call.record.data(), 4);
  if (call.record.size() >= 8) memcpy(&call.type, call.record.data() + 4, 4);
  return call;
}

void Machine::command(const Step& step, u32 number) {
  const s64 size = size_of(step, number);
  Bytes data(static_cast<size_t>(std::clamp<s64>(size, 0, 4096)), step.byte[4]);
  const Placed buffer{sim_, data, place_of(step.byte[3] >> 4), step.byte[5]};
  Call call = call_of(step, number, buffer, size);
  call.data = data;
  const int rc = send_and_follow(step, call, buffer);
  if (!has_two_ && rc == 0 && is_about_bitmap(number)) {
    snbf_bmp_cmd record = {};
    memcpy(&record, call.record.data(), sizeof(record));
    const bool is_fill = number == SNBF_SET_BMP && record.size == 0 && record.data == 0;
    need(is_fill || record.size == static_cast<int>(geometry_of(call.minor).bitmap_bytes),
         "a wrong size is taken", record.size);
  }
}

// Sends it, and keeps the marks up to date.
int Machine::send_and_follow(const Step& step, const Call& call, const Placed& buffer) {
  if (call.minor > kHighestMinor) return send(step, call);
  if (call.number == SNBF_RESUME_SNAP && has_faults_) {
    // It may start the snap's filter, with bitmaps from files that could not be written.
    const auto takings = begin_taking_all();
    const int rc = send(step, call);
    end_taking_all(takings, false);
    return rc;
  }
  Follower followers[] = {{marks_[call.minor][0], call, 0, has_faults_},
                          {marks_[call.minor][1], call, 1, has_faults_}};
  const int rc = send(step, call);
  const Bytes told = buffer.is_there() ? buffer.bytes() : Bytes{};
  for (Follower& follower : followers) {
    const char* wrong = follower.end(rc, told);
    need(wrong == nullptr, wrong, static_cast<int>(call.minor));
  }
  return rc;
}

// Byte 1, high nibble: where the record is; byte 5: where a copy of it ends.
int Machine::send(const Step& step, const Call& call) {
  const Placed record{sim_, call.record, place_of(step.byte[1] >> 4), step.byte[5]};
  const size_t first_line = sim_.log().lines().size();
  const int rc = sim_.ioctl_at(call.number, record.address());
  release_table(first_line);
  need(std::count(std::begin(kAnswers), std::end(kAnswers), rc) > 0,
       "an answer that is not documented", rc);
  if (!record.is_readable() && !call.record.empty()) {
    need(rc == -EFAULT || rc == -ENOTTY || rc == -ENXIO, "a record that cannot be read is taken",
         rc);
  }
  if (rc == 0 && call.number == SNBF_ADD_FILTER_NODE && !has_two_) {
    snbf_filter_node_cmd made;
    const Bytes after = record.bytes();
    memcpy(&made, after.data(), sizeof(made));
    need(geometry_of(static_cast<u32>(made.minor)).extent_bytes == made.extent_size,
         "no node is made", made.minor);
  }
  if (rc != 0 && rc != -EFAULT && record.is_there()) {
    need(record.bytes() == call.record, "a refused command changes the caller's record", rc);
  }
  return rc;
}

void Machine::release_table(size_t first_line) {
  const auto& lines = sim_.log().lines();
  const int me = sim::Sim::pid_of(sim::Sim::current());
  for (size_t n = first_line; n < lines.size(); ++n) {
    if (lines[n].pid != me || lines[n].level != 3) continue;
    for (const KeptLock& kept : kKeptLocks) {
      if (lines[n].text.find(kept.text) == std::string::npos) continue;
      if (kept.is_write) {
        snbf_blkdev_rwlock.write_unlock();
      } else {
        snbf_blkdev_rwlock.read_unlock();
      }
      break;
    }
  }
}

}  // namespace snbf::fuzz
