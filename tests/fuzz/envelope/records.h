// One step of a program of commands, and the records that its bytes stand for: nearly right, and then spoilt.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "sim.h"
#include "snbf/protocol.h"

namespace snbf::fuzz {

using sim::Bytes;
using sim::u32;
using sim::u64;
using sim::u8;

// Byte 0 is the action, in the low 5 bits: the number of a command less one, or one of these. Its top bit says which of
// two callers takes the step. What the others are is told where they are used.
constexpr size_t kStepBytes = 8;
enum Action : u8 {
  kUnknownCommand = 17,
  kOpen,
  kClose,
  kRead,
  kWrite,
  kDiscard,
  kFlush,
  kFault,
  kReload,
  kProc,
  kWait,
  kLook,
  kNodeIoctl,
  kWriteProc,
  kTick,
};

struct Step {
  u8 byte[kStepBytes];
  u8 action() const { return byte[0] & 31; }
  bool is_second_callers() const { return (byte[0] & 0x80) != 0; }
  u32 wide(int at) const { return byte[at] | static_cast<u32>(byte[at + 1]) << 8; }
};

constexpr u32 kCommands[] = {SNBF_ADD_FILTER_NODE, SNBF_ADD_SNAP_NODE,   SNBF_DEL_NODE,
                             SNBF_START_NODE,      SNBF_STOP_NODE,       SNBF_GET_DEVICE_LIST,
                             SNBF_GET_INFO,        SNBF_LOAD_BMP,        SNBF_SAVE_BMP,
                             SNBF_CLR_BMP,         SNBF_SET_BMP,         SNBF_MERGE_BMP,
                             SNBF_GET_BMP,         SNBF_GET_AND_CLR_BMP, SNBF_GET_DATABLOCK_BMP,
                             SNBF_TEST_DATABLOCK,  SNBF_RESUME_SNAP};
static_assert(std::size(kCommands) == kUnknownCommand);

constexpr int kHighestMinor = 7;

// Byte 1, low 3 bits.
inline u32 minor_of(const Step& step) {
  constexpr u32 kMinors[] = {0, 1, 2, 3, 7, 8, 0x80000000, 0xffffffff};
  return kMinors[step.byte[1] & 7];
}

// "~" stands for text that fills its field and has no end.
template <size_t kBytes>
void put_text(char (&field)[kBytes], const std::string& text) {
  if (text == "~") {
    memset(field, 'n', kBytes);
  } else {
    memcpy(field, text.c_str(), std::min(text.size() + 1, kBytes));
  }
}

// Picks the `choice`-th of the texts.
template <size_t kCount>
std::string one_of(const char* const (&texts)[kCount], u32 choice) {
  return texts[choice % kCount];
}

inline u32 some_size(u32 choice) {
  constexpr u32 kSizes[] = {4096, 8192, 65536, 1 << 20, 0x80000000, 0, 512, 3000};
  return kSizes[choice & 7];
}

constexpr const char* kPartitions[] = {"/dev/sda1",       "/dev/sda1", "/dev/sdb1", "/dev/sdc1",
                                       "/dev/snbf/snbf0", "/nowhere",  "",          "~"};
constexpr const char* kNames[] = {"", "", "day", "a/b", "..", "control", "~", "snbf1"};

// Byte 2: extent size and name; byte 3: partition and bitmap folder; byte 1, bit 7: the lowest minor.
inline snbf_filter_node_cmd filter_record(const Step& step) {
  constexpr const char* kFolders[] = {"/var", "/store", "/store",    "/nowhere",
                                      "",     "~",      "/dev/sda1", "/"};
  snbf_filter_node_cmd record = {};
  put_text(record.hdd_name, one_of(kPartitions, step.byte[3]));
  put_text(record.bmp_dir, one_of(kFolders, step.byte[3] >> 3));
  put_text(record.name, one_of(kNames, step.byte[2] >> 3));
  if (step.byte[2] >= 0xC0) put_text(record.uuid, "~");
  record.minor = static_cast<int>(step.byte[1] & 0x80 ? ~0u : minor_of(step));
  record.extent_size = some_size(step.byte[2]);
  return record;
}

// Byte 2: chunk size and name; byte 3: the snap's minor, and where its files are.
inline snbf_snap_node_cmd snap_record(const Step& step) {
  constexpr const char* kFiles[] = {"/store/a", "/store/b",   "/store/c", "/store/d",
                                    "/var/a",   "/nowhere/a", "",         "~"};
  snbf_snap_node_cmd record = {};
  record.snbf_minor = minor_of(step);
  record.snap_minor = step.byte[3] & 0x80 ? -1 : (step.byte[3] & 7) + 1;
  record.chunk_size = some_size(step.byte[2]);
  const std::string files = one_of(kFiles, step.byte[3] >> 3);
  const bool has_tail = files.size() > 1;
  put_text(record.cow_bmp_fname, has_tail ? files + ".bmp" : files);
  put_text(record.cow_data_fname, has_tail && (step.byte[1] & 8) == 0 ? files + ".data" : files);
  put_text(record.name, one_of(kNames, step.byte[2] >> 3));
  return record;
}

template <typename Record>
Bytes bytes_of(const Record& record) {
  const u8* from = reinterpret_cast<const u8*>(&record);
  return Bytes(from, from + sizeof(record));
}

// Of any command that is not about a caller's buffer. Byte 1, bit 3: the second word; byte 2: more words.
inline Bytes plain_record(const Step& step, u32 number) {
  const u32 second = step.byte[1] >> 3 & 1;
  switch (number) {
    case SNBF_ADD_FILTER_NODE:
      return bytes_of(filter_record(step));
    case SNBF_ADD_SNAP_NODE:
      return bytes_of(snap_record(step));
    case SNBF_RESUME_SNAP:
      return bytes_of(snbf_resume_cmd{minor_of(step), step.byte[2] & 1u, step.byte[2] >> 1 & 1u,
                                      step.byte[2] >> 2 & 1u});
    case SNBF_TEST_DATABLOCK: {
      snbf_datablock_test record = {};
      put_text(record.path, one_of(kPartitions, step.byte[3]));
      return bytes_of(record);
    }
    default: {
      Bytes record(SNBF_CMD_SIZE(number));
      const u32 first = number == SNBF_GET_DEVICE_LIST ? step.byte[1] & 3 : minor_of(step);
      if (record.size() >= 4) memcpy(record.data(), &first, 4);
      if (record.size() >= 8) memcpy(record.data() + 4, &second, 4);
      return record;
    }
  }
}

// Bytes 6 and 7: where, and by what. Three in four stay as they are.
inline void spoil(const Step& step, Bytes& record) {
  if (step.byte[7] < 0xC0 || record.empty()) return;
  record[step.byte[6] * record.size() >> 8] ^= step.byte[7];
}

// Byte 1, high nibble, for a record; byte 3, high nibble, for a buffer that it names.
enum class Place { Good, Null, Kernel, ReadOnly, Edge, Untouched, SpaceEnd, Unmapped };
inline Place place_of(u8 nibble) {
  return nibble < 8 ? Place::Good : static_cast<Place>(nibble - 8);
}

// `data` at the place, in a caller's memory of the simulated kernel for as long as this lives.
class Placed {
 public:
  Placed(sim::Sim& sim, const Bytes& data, Place place, u8 edge) : place_(place) {
    if (!data.empty()) buffer_ = sim.user(data);
    if (data.empty()) return;
    if (place == Place::ReadOnly) buffer_.make_read_only();
    if (place == Place::Edge) buffer_.fault_at(edge * data.size() >> 8);
    if (place == Place::Untouched) buffer_.untouch();
  }
  ~Placed() {
    if (buffer_.size() > 0) buffer_.unmap();
  }
  Placed(const Placed&) = delete;
  Placed& operator=(const Placed&) = delete;

  u64 address() const {
    switch (place_) {
      case Place::Null:
        return 0;
      case Place::Kernel:
        return 0xffff'8880'0000'1000;
      case Place::SpaceEnd:
        return 0x7fff'ffff'f000 - 4;
      case Place::Unmapped:
        return sim::Sim::kBadUserAddress;
      default:
        return buffer_.size() > 0 ? buffer_.address() : sim::Sim::kBadUserAddress;
    }
  }
  bool is_there() const { return buffer_.size() > 0 && address() == buffer_.address(); }
  bool is_readable() const { return is_there() && place_ != Place::Edge; }
  Bytes bytes() const { return buffer_.bytes(); }

 private:
  Place place_;
  sim::UserBuffer buffer_;
};

}  // namespace snbf::fuzz
