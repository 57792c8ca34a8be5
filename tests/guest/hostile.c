// Callers that nobody would want: hostile SEED THREADS COMMANDS FOLDER DEVICE...
//
// Each thread sends commands whose records are random, or nearly right and then spoilt: numbers out of
// range, text without an end, addresses that are null, unmapped, read-only, of the kernel, or that end in
// the middle of a copy. Prints how often each answer came, and how many commands each thread had done.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "snbf/protocol.h"

#define PAGE 4096

// Not SNBF_RESUME_SNAP, which refuses with the node table left locked: nothing could be sent after it.
static const unsigned commands[] = {
    SNBF_ADD_FILTER_NODE, SNBF_ADD_SNAP_NODE,   SNBF_DEL_NODE,          SNBF_START_NODE,
    SNBF_STOP_NODE,       SNBF_GET_DEVICE_LIST, SNBF_GET_INFO,          SNBF_LOAD_BMP,
    SNBF_SAVE_BMP,        SNBF_CLR_BMP,         SNBF_SET_BMP,           SNBF_MERGE_BMP,
    SNBF_GET_BMP,         SNBF_GET_AND_CLR_BMP, SNBF_GET_DATABLOCK_BMP, SNBF_TEST_DATABLOCK};

static int rounds;
static const char* folder;
static char** devices;
static int device_count;
static unsigned long answers[256];

struct caller {
  pthread_t thread;
  uint64_t state;
  char* edge;       // two pages, and behind them nothing
  char* read_only;  // a page
  unsigned long done;
};

static uint64_t next(struct caller* caller) {
  uint64_t x = caller->state;
  x ^= x << 13;
  x ^= x >> 7;
  x ^= x << 17;
  return caller->state = x;
}

static unsigned below(struct caller* caller, unsigned limit) { return next(caller) % limit; }

static void fill(struct caller* caller, void* to, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) ((char*)to)[i] = (char)next(caller);
}

static uint32_t some_minor(struct caller* caller) {
  static const uint32_t odd[] = {255, 256, 0x7fffffff, 0x80000000, 0xffffffff};
  return below(caller, 8) ? below(caller, 4) : odd[below(caller, 5)];
}

static uint64_t some_address(struct caller* caller) {
  switch (below(caller, 8)) {
    case 0:
      return 0;
    case 1:
      return 0xffff888000000000ull + below(caller, 1 << 20);
    case 2:
      return (uint64_t)caller->read_only;
    case 3:
      return (uint64_t)caller->edge + 2 * PAGE - below(caller, 64);
    case 4:
      return next(caller);
    default:
      return (uint64_t)caller->edge + below(caller, PAGE);
  }
}

static void nearly_right(struct caller* caller, unsigned command, void* record) {
  memset(record, 0, SNBF_CMD_SIZE(command));
  switch (command) {
    case SNBF_ADD_FILTER_NODE: {
      struct snbf_filter_node_cmd* add = record;
      if (below(caller, 8))
        strcpy(add->hdd_name, devices[below(caller, device_count)]);
      else
        fill(caller, add->hdd_name, sizeof(add->hdd_name));
      add->minor = below(caller, 3) ? -1 : (int32_t)some_minor(caller);
      add->extent_size = 1u << below(caller, 32);
      strcpy(add->bmp_dir, folder);
      if (!below(caller, 4)) fill(caller, add->uuid, sizeof(add->uuid));
      if (!below(caller, 4)) memset(add->name, 'n', sizeof(add->name));
      return;
    }
    case SNBF_ADD_SNAP_NODE: {
      struct snbf_snap_node_cmd* add = record;
      add->snbf_minor = some_minor(caller);
      add->snap_minor = below(caller, 3) ? -1 : (int32_t)some_minor(caller);
      unsigned number = below(caller, 4);
      snprintf(add->cow_bmp_fname, sizeof(add->cow_bmp_fname), "%s/cow%u.bmp", folder, number);
      snprintf(add->cow_data_fname, sizeof(add->cow_data_fname), "%s/cow%u.data", folder, number);
      if (!below(caller, 4)) memset(add->name, 'n', sizeof(add->name));
      return;
    }
    case SNBF_GET_DEVICE_LIST:
      *(uint32_t*)record = below(caller, 4);
      return;
    case SNBF_TEST_DATABLOCK:
      strcpy(record, devices[0]);
      return;
    default: {
      uint32_t* words = record;
      words[0] = some_minor(caller);
      if (SNBF_CMD_SIZE(command) >= 8)
        words[1] = below(caller, 8) ? below(caller, 2) : next(caller);
      if (SNBF_CMD_SIZE(command) == 24) {
        struct snbf_bmp_cmd* bmp = record;
        bmp->size = below(caller, 3) ? 1 << below(caller, 14) : (int32_t)next(caller);
        bmp->data = some_address(caller);
      }
    }
  }
}

static void* call(void* argument) {
  struct caller* caller = argument;
  int fd = open("/dev/snbf/control", O_RDWR);
  if (fd < 0) return argument;
  static __thread char record[16384] __attribute__((aligned(8)));
  for (int i = 0; i < rounds; ++i) {
    unsigned command = commands[below(caller, sizeof(commands) / sizeof(commands[0]))];
    if (command == SNBF_DEL_NODE && below(caller, 4))
      command = SNBF_START_NODE;  // or most minors are nobody's
    if (below(caller, 10))
      nearly_right(caller, command, record);
    else
      fill(caller, record, sizeof(record));
    for (unsigned spoilt = below(caller, 4); spoilt > 1; --spoilt) {
      record[below(caller, SNBF_CMD_SIZE(command))] = (char)next(caller);
    }
    // A second size of chunks is refused with the node table left locked, too.
    if (command == SNBF_ADD_SNAP_NODE) ((struct snbf_snap_node_cmd*)record)->chunk_size = 4096;
    if (!below(caller, 30)) command ^= 1u << below(caller, 32);
    uint64_t address = below(caller, 12) ? (uint64_t)record : some_address(caller);
    int rc = ioctl(fd, command, address) == 0 ? 0 : errno;
    caller->done += rc == 0;
    __atomic_fetch_add(&answers[rc & 255], 1, __ATOMIC_RELAXED);
  }
  close(fd);
  return NULL;
}

int main(int argc, char** argv) {
  if (argc < 6) return 2;
  int threads = atoi(argv[2]);
  rounds = atoi(argv[3]);
  folder = argv[4];
  devices = argv + 5;
  device_count = argc - 5;
  struct caller* callers = calloc(threads, sizeof(*callers));
  for (int i = 0; i < threads; ++i) {
    callers[i].state = strtoull(argv[1], NULL, 10) * 1000003 + i + 1;
    callers[i].edge =
        mmap(NULL, 3 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    munmap(callers[i].edge + 2 * PAGE, PAGE);
    callers[i].read_only = mmap(NULL, PAGE, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    pthread_create(&callers[i].thread, NULL, call, &callers[i]);
  }
  int failed = 0;
  for (int i = 0; i < threads; ++i) {
    void* result;
    pthread_join(callers[i].thread, &result);
    if (result != NULL) failed = 1;
  }
  for (int rc = 0; rc < 256; ++rc) {
    if (answers[rc] != 0) printf("%d %lu\n", rc, answers[rc]);
  }
  for (int i = 0; i < threads; ++i) printf("done %lu\n", callers[i].done);
  return failed;
}
