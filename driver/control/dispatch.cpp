// SPDX-License-Identifier: GPL-2.0-only
// The commands of the control device as a table, and the envelope that every call walks through:
// snbf_char_ioctl, declared in platform/entry.h.
#include <span>

#include "base/errno.h"
#include "base/scope_exit.h"
#include "block/create.h"
#include "block/destroy.h"
#include "block/node.h"
#include "block/query.h"
#include "block/start.h"
#include "block/stop.h"
#include "core/log.h"
#include "filter/bmp.h"
#include "filter/bmpfile.h"
#include "fsread/datablock.h"
#include "platform/memory.h"
#include "snap/create.h"
#include "snap/resume.h"
#include "snbf/protocol.h"

namespace snbf {

namespace {

struct Command {
  u32 number;
  const char* name;
  u32 record_bytes;
  bool is_node_bound;  // its record begins with the minor, and the handler gets the node
  int (*handle)(Node* node, void* record);
};

template <typename Record, int (*kHandler)(Node&, Record&)>
constexpr Command node_command(u32 number, const char* name) {
  return {number, name, sizeof(Record), true,
          [](Node* node, void* record) { return kHandler(*node, *static_cast<Record*>(record)); }};
}

template <typename Record, int (*kHandler)(Record&)>
constexpr Command plain_command(u32 number, const char* name) {
  return {number, name, sizeof(Record), false,
          [](Node*, void* record) { return kHandler(*static_cast<Record*>(record)); }};
}

constexpr Command kCommands[] = {
    plain_command<snbf_filter_node_cmd, snbf_ioctl_add_filter_node>(SNBF_ADD_FILTER_NODE,
                                                                    "SNBF_ADD_FILTER_NODE"),
    plain_command<snbf_snap_node_cmd, snbf_ioctl_add_snap_node>(SNBF_ADD_SNAP_NODE,
                                                                "SNBF_ADD_SNAP_NODE"),
    plain_command<snbf_minor_cmd, snbf_ioctl_del_node>(SNBF_DEL_NODE, "SNBF_DEL_NODE"),
    plain_command<snbf_minor_cmd, snbf_ioctl_start_node>(SNBF_START_NODE, "SNBF_START_NODE"),
    plain_command<snbf_minor_cmd, snbf_ioctl_stop_node>(SNBF_STOP_NODE, "SNBF_STOP_NODE"),
    plain_command<snbf_device_list, snbf_ioctl_get_device_list>(SNBF_GET_DEVICE_LIST,
                                                                "SNBF_GET_DEVICE_LIST"),
    node_command<snbf_info, snbf_ioctl_get_info>(SNBF_GET_INFO, "SNBF_GET_INFO"),
    node_command<snbf_bmp_sel, snbf_ioctl_load_bmp>(SNBF_LOAD_BMP, "SNBF_LOAD_BMP"),
    node_command<snbf_bmp_sel, snbf_ioctl_save_bmp>(SNBF_SAVE_BMP, "SNBF_SAVE_BMP"),
    node_command<snbf_bmp_sel, snbf_ioctl_clr_bmp>(SNBF_CLR_BMP, "SNBF_CLR_BMP"),
    node_command<snbf_bmp_cmd, snbf_ioctl_set_bmp>(SNBF_SET_BMP, "SNBF_SET_BMP"),
    node_command<snbf_bmp_cmd, snbf_ioctl_merge_bmp>(SNBF_MERGE_BMP, "SNBF_MERGE_BMP"),
    node_command<snbf_bmp_cmd, snbf_ioctl_get_bmp>(SNBF_GET_BMP, "SNBF_GET_BMP"),
    node_command<snbf_bmp_cmd, snbf_ioctl_get_and_clr_bmp>(SNBF_GET_AND_CLR_BMP,
                                                           "SNBF_GET_AND_CLR_BMP"),
    node_command<snbf_datablock_cmd, snbf_ioctl_get_datablock_bmp>(SNBF_GET_DATABLOCK_BMP,
                                                                   "SNBF_GET_DATABLOCK_BMP"),
    plain_command<snbf_datablock_test, snbf_ioctl_test_datablock>(SNBF_TEST_DATABLOCK,
                                                                  "SNBF_TEST_DATABLOCK"),
    plain_command<snbf_resume_cmd, snbf_ioctl_resume_snap>(SNBF_RESUME_SNAP, "SNBF_RESUME_SNAP"),
};

constexpr u32 kType = 'C';

// Numbers run from 1 in the table's order; the record of each fills what its number says, and is
// copied in.
constexpr bool numbers_match(std::span<const Command> commands) {
  u32 expected = 1;
  for (const Command& command : commands) {
    if ((command.number & 0xff) != expected++) return false;
    if (SNBF_CMD_TYPE(command.number) != kType) return false;
    if (SNBF_CMD_SIZE(command.number) != command.record_bytes) return false;
    if ((command.number & SNBF_CMD_IN) == 0) return false;
  }
  return true;
}
static_assert(std::size(kCommands) == 17);
static_assert(numbers_match(kCommands));

const Command* find_command(u32 number) {
  for (const Command& command : kCommands) {
    if (command.number == number) return &command;
  }
  return nullptr;
}

constexpr const char* kOrigin = "snbf_char_ioctl";

// The table stays locked while the handler works on the node.
int handle_on_node(const Command& command, void* record) {
  KsReadGuard table{snbf_blkdev_rwlock};
  const u32 minor = *static_cast<const u32*>(record);
  Node* node = find_node(minor);
  if (node == nullptr) {
    snbf_log(kLogError, "%s(): Invalid SNBF minor=%d", kOrigin, static_cast<int>(minor));
    return -EINVAL;
  }
  return command.handle(node, record);
}

int run_command(const Command& command, u64 argument) {
  void* record = snbf_plat_heap_alloc(command.record_bytes, PLAT_ALLOC_NORMAL);
  if (record == nullptr) {
    snbf_log(kLogError, "%s(): Memory allocation failed.", kOrigin);
    return -EFAULT;  // Kept: the number of a bad address, not of missing memory.
  }
  ScopeExit free_record{[record] { snbf_plat_heap_free(record); }};
  if (snbf_plat_copy_from_user(record, argument, command.record_bytes) != 0) {
    snbf_log(kLogError, "%s(): copy_from_user() failed.", kOrigin);
    return -EFAULT;
  }
  const int rc =
      command.is_node_bound ? handle_on_node(command, record) : command.handle(nullptr, record);
  if (rc != 0) return rc;
  if ((command.number & SNBF_CMD_OUT) == 0) return 0;
  if (snbf_plat_copy_to_user(argument, record, command.record_bytes) != 0) {
    // Kept: the text of the copy in.
    snbf_log(kLogError, "%s(): copy_from_user() failed.", kOrigin);
    return -EFAULT;
  }
  return 0;
}

}  // namespace

}  // namespace snbf

extern "C" int snbf_char_ioctl(void*, void*, unsigned int cmd, unsigned long arg) {
  const snbf::Command* command = snbf::find_command(cmd);
  snbf_log(2, "%s(): cmd=0x%02x (%s)", snbf::kOrigin, cmd,
           command == nullptr ? "UNKNOWN" : command->name);
  if (SNBF_CMD_TYPE(cmd) != snbf::kType) return -ENOTTY;
  if ((cmd & (SNBF_CMD_IN | SNBF_CMD_OUT)) != 0 &&
      !snbf_plat_user_range_ok(arg, SNBF_CMD_SIZE(cmd))) {
    return -EFAULT;
  }
  if (command == nullptr) {
    snbf_log(snbf::kLogError, "%s(): Inappropriate ioctl cmd=%d", snbf::kOrigin,
             static_cast<int>(cmd));
    return -ENOTTY;
  }
  return snbf::run_command(*command, arg);
}
