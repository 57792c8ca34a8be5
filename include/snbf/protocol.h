/* SPDX-License-Identifier: GPL-2.0-only WITH Linux-syscall-note */
/*
 * The contract between the driver and its agent: commands on the control device, and their
 * records. Plain C; every number, size and offset is checked by the compiler. All integers are
 * little-endian; all text is terminated within its field.
 */
#ifndef SNBF_PROTOCOL_H
#define SNBF_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define SNBF_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define SNBF_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

/* Node kinds. */
#define SNBF_DEV_FILTER 1
#define SNBF_DEV_SNAP 2

/* Bitmap types. */
#define SNBF_BMP_DIFF 0u
#define SNBF_BMP_INCR 1u

#define SNBF_PATH_BYTES 1024
#define SNBF_UUID_BYTES 39
#define SNBF_NAME_BYTES 128
#define SNBF_LIST_CAPACITY 256
#define SNBF_MAX_SNAPS 256

/* Command numbers: bits 0-7 number, 8-15 type 'C', 16-29 record size, 30 in, 31 out. */
#define SNBF_ADD_FILTER_NODE 0xc8b04301u
#define SNBF_ADD_SNAP_NODE 0xc8b44302u
#define SNBF_DEL_NODE 0x40044303u
#define SNBF_START_NODE 0x40044304u
#define SNBF_STOP_NODE 0x40044305u
#define SNBF_GET_DEVICE_LIST 0xc4084306u
#define SNBF_GET_INFO 0xd9084307u
#define SNBF_LOAD_BMP 0x40084308u
#define SNBF_SAVE_BMP 0x40084309u
#define SNBF_CLR_BMP 0x4008430au
#define SNBF_SET_BMP 0x4018430bu
#define SNBF_MERGE_BMP 0x4018430cu
#define SNBF_GET_BMP 0xc018430du
#define SNBF_GET_AND_CLR_BMP 0xc018430eu
#define SNBF_GET_DATABLOCK_BMP 0xc018430fu
#define SNBF_TEST_DATABLOCK 0x44004310u
#define SNBF_RESUME_SNAP 0x40104311u

#define SNBF_CMD_IN 0x40000000u
#define SNBF_CMD_OUT 0x80000000u
#define SNBF_CMD_SIZE(command) (((command) >> 16) & 0x3fffu)
#define SNBF_CMD_TYPE(command) (((command) >> 8) & 0xffu)

/* SNBF_ADD_FILTER_NODE */
struct snbf_filter_node_cmd {
  char hdd_name[SNBF_PATH_BYTES]; /* the partition's device file */
  int32_t minor;                  /* negative: the lowest free one; out: the one used */
  uint32_t extent_size;           /* bytes */
  char bmp_dir[SNBF_PATH_BYTES];  /* directory of the bitmap files */
  char uuid[SNBF_UUID_BYTES];     /* empty: made and returned */
  char name[SNBF_NAME_BYTES];     /* empty: "snbf%d" of the minor */
  char reserved;
};

/* SNBF_ADD_SNAP_NODE */
struct snbf_snap_node_cmd {
  uint32_t snbf_minor; /* the filter node's */
  int32_t snap_minor;  /* negative: the lowest free one; out: the one used */
  uint32_t chunk_size; /* bytes; out: as enlarged for a large volume */
  char cow_bmp_fname[SNBF_PATH_BYTES];
  char cow_data_fname[SNBF_PATH_BYTES];
  char uuid[SNBF_UUID_BYTES];
  char name[SNBF_NAME_BYTES];
  char reserved;
};

/* SNBF_DEL_NODE, SNBF_START_NODE, SNBF_STOP_NODE */
struct snbf_minor_cmd {
  uint32_t minor;
};

/* SNBF_GET_DEVICE_LIST */
struct snbf_device_list {
  uint32_t dev_type; /* in */
  uint32_t count;
  uint32_t minors[SNBF_LIST_CAPACITY]; /* the first `count`, increasing; the highest minor is never listed */
};

/* SNBF_GET_INFO. Fields of the other kind stay as the caller passed them. */
struct snbf_info {
  uint32_t minor; /* in */
  uint32_t dev_type;
  uint64_t dev_size; /* bytes of the partition */
  uint32_t started;
  uint32_t use_cnt;
  char uuid[SNBF_UUID_BYTES];
  char name[SNBF_NAME_BYTES];
  char hdd_name[SNBF_PATH_BYTES]; /* from here to diff_bmp_full: filter nodes */
  char reserved1;
  uint32_t extent_size;
  uint32_t extent_cnt;
  uint32_t snap_minors[SNBF_MAX_SNAPS];
  uint32_t snap_cnt;
  uint32_t incr_bmp_size; /* bytes */
  uint32_t diff_bmp_size;
  char incr_bmp_fname[SNBF_PATH_BYTES];
  char diff_bmp_fname[SNBF_PATH_BYTES];
  uint32_t incr_bmp_empty;
  uint32_t diff_bmp_empty;
  uint32_t incr_bmp_full;
  uint32_t diff_bmp_full;
  uint32_t snap_valid; /* from here: snap nodes */
  uint32_t stop_pending;
  uint32_t del_pending;
  uint32_t chunk_size;
  uint32_t chunk_cnt; /* low 32 bits */
  uint32_t cow_bmp_size;
  uint32_t reserved2;
  uint64_t cow_data_size;
  char cow_bmp_fname[SNBF_PATH_BYTES];
  char cow_data_fname[SNBF_PATH_BYTES];
};

/* SNBF_LOAD_BMP, SNBF_SAVE_BMP, SNBF_CLR_BMP */
struct snbf_bmp_sel {
  uint32_t minor;
  uint32_t type;
};

/* SNBF_GET_BMP, SNBF_GET_AND_CLR_BMP, SNBF_SET_BMP, SNBF_MERGE_BMP */
struct snbf_bmp_cmd {
  uint32_t minor;
  uint32_t type;
  int32_t size; /* bytes of the buffer: the bitmap's; 0 with data 0: SET fills with ones */
  uint32_t padding;
  uint64_t data; /* address of the caller's buffer */
};

/* SNBF_GET_DATABLOCK_BMP */
struct snbf_datablock_cmd {
  uint32_t minor;
  uint32_t extent_size; /* bytes of the partition for one bit */
  uint32_t size;        /* in: capacity of the buffer; out: bytes written */
  uint32_t padding;
  uint64_t data;
};

/* SNBF_TEST_DATABLOCK */
struct snbf_datablock_test {
  char path[SNBF_PATH_BYTES];
};

/* SNBF_RESUME_SNAP */
struct snbf_resume_cmd {
  uint32_t minor;
  uint32_t snap_valid;
  uint32_t stop_pending;
  uint32_t del_pending;
};

#define SNBF_ASSERT_AT(record, field, offset) \
  SNBF_STATIC_ASSERT(offsetof(struct record, field) == (offset))
#define SNBF_ASSERT_SIZE(record, command) \
  SNBF_STATIC_ASSERT(sizeof(struct record) == SNBF_CMD_SIZE(command))

SNBF_ASSERT_SIZE(snbf_filter_node_cmd, SNBF_ADD_FILTER_NODE);
SNBF_ASSERT_SIZE(snbf_snap_node_cmd, SNBF_ADD_SNAP_NODE);
SNBF_ASSERT_SIZE(snbf_minor_cmd, SNBF_DEL_NODE);
SNBF_ASSERT_SIZE(snbf_minor_cmd, SNBF_START_NODE);
SNBF_ASSERT_SIZE(snbf_minor_cmd, SNBF_STOP_NODE);
SNBF_ASSERT_SIZE(snbf_device_list, SNBF_GET_DEVICE_LIST);
SNBF_ASSERT_SIZE(snbf_info, SNBF_GET_INFO);
SNBF_ASSERT_SIZE(snbf_bmp_sel, SNBF_LOAD_BMP);
SNBF_ASSERT_SIZE(snbf_bmp_sel, SNBF_SAVE_BMP);
SNBF_ASSERT_SIZE(snbf_bmp_sel, SNBF_CLR_BMP);
SNBF_ASSERT_SIZE(snbf_bmp_cmd, SNBF_SET_BMP);
SNBF_ASSERT_SIZE(snbf_bmp_cmd, SNBF_MERGE_BMP);
SNBF_ASSERT_SIZE(snbf_bmp_cmd, SNBF_GET_BMP);
SNBF_ASSERT_SIZE(snbf_bmp_cmd, SNBF_GET_AND_CLR_BMP);
SNBF_ASSERT_SIZE(snbf_datablock_cmd, SNBF_GET_DATABLOCK_BMP);
SNBF_ASSERT_SIZE(snbf_datablock_test, SNBF_TEST_DATABLOCK);
SNBF_ASSERT_SIZE(snbf_resume_cmd, SNBF_RESUME_SNAP);

SNBF_ASSERT_AT(snbf_filter_node_cmd, minor, 1024);
SNBF_ASSERT_AT(snbf_filter_node_cmd, extent_size, 1028);
SNBF_ASSERT_AT(snbf_filter_node_cmd, bmp_dir, 1032);
SNBF_ASSERT_AT(snbf_filter_node_cmd, uuid, 2056);
SNBF_ASSERT_AT(snbf_filter_node_cmd, name, 2095);
SNBF_ASSERT_AT(snbf_snap_node_cmd, snap_minor, 4);
SNBF_ASSERT_AT(snbf_snap_node_cmd, chunk_size, 8);
SNBF_ASSERT_AT(snbf_snap_node_cmd, cow_bmp_fname, 12);
SNBF_ASSERT_AT(snbf_snap_node_cmd, cow_data_fname, 1036);
SNBF_ASSERT_AT(snbf_snap_node_cmd, uuid, 2060);
SNBF_ASSERT_AT(snbf_snap_node_cmd, name, 2099);
SNBF_ASSERT_AT(snbf_device_list, count, 4);
SNBF_ASSERT_AT(snbf_device_list, minors, 8);
SNBF_ASSERT_AT(snbf_info, dev_type, 4);
SNBF_ASSERT_AT(snbf_info, dev_size, 8);
SNBF_ASSERT_AT(snbf_info, started, 16);
SNBF_ASSERT_AT(snbf_info, use_cnt, 20);
SNBF_ASSERT_AT(snbf_info, uuid, 24);
SNBF_ASSERT_AT(snbf_info, name, 63);
SNBF_ASSERT_AT(snbf_info, hdd_name, 191);
SNBF_ASSERT_AT(snbf_info, extent_size, 1216);
SNBF_ASSERT_AT(snbf_info, extent_cnt, 1220);
SNBF_ASSERT_AT(snbf_info, snap_minors, 1224);
SNBF_ASSERT_AT(snbf_info, snap_cnt, 2248);
SNBF_ASSERT_AT(snbf_info, incr_bmp_size, 2252);
SNBF_ASSERT_AT(snbf_info, diff_bmp_size, 2256);
SNBF_ASSERT_AT(snbf_info, incr_bmp_fname, 2260);
SNBF_ASSERT_AT(snbf_info, diff_bmp_fname, 3284);
SNBF_ASSERT_AT(snbf_info, incr_bmp_empty, 4308);
SNBF_ASSERT_AT(snbf_info, diff_bmp_empty, 4312);
SNBF_ASSERT_AT(snbf_info, incr_bmp_full, 4316);
SNBF_ASSERT_AT(snbf_info, diff_bmp_full, 4320);
SNBF_ASSERT_AT(snbf_info, snap_valid, 4324);
SNBF_ASSERT_AT(snbf_info, stop_pending, 4328);
SNBF_ASSERT_AT(snbf_info, del_pending, 4332);
SNBF_ASSERT_AT(snbf_info, chunk_size, 4336);
SNBF_ASSERT_AT(snbf_info, chunk_cnt, 4340);
SNBF_ASSERT_AT(snbf_info, cow_bmp_size, 4344);
SNBF_ASSERT_AT(snbf_info, cow_data_size, 4352);
SNBF_ASSERT_AT(snbf_info, cow_bmp_fname, 4360);
SNBF_ASSERT_AT(snbf_info, cow_data_fname, 5384);
SNBF_ASSERT_AT(snbf_bmp_sel, type, 4);
SNBF_ASSERT_AT(snbf_bmp_cmd, type, 4);
SNBF_ASSERT_AT(snbf_bmp_cmd, size, 8);
SNBF_ASSERT_AT(snbf_bmp_cmd, data, 16);
SNBF_ASSERT_AT(snbf_datablock_cmd, extent_size, 4);
SNBF_ASSERT_AT(snbf_datablock_cmd, size, 8);
SNBF_ASSERT_AT(snbf_datablock_cmd, data, 16);
SNBF_ASSERT_AT(snbf_resume_cmd, del_pending, 12);

#endif
