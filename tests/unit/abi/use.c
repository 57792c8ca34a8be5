/* The library from plain C, over a driver that is a function. */
#include <errno.h>
#include <string.h>

#include "libsnbf.h"

struct asked {
  uint32_t command;
  uint32_t minor;
};

static int answer(void* context, uint32_t command, void* record) {
  struct asked* asked = context;

  asked->command = command;
  asked->minor = ((struct snbf_minor_cmd*)record)->minor;
  return asked->minor == 7 ? 0 : -EINVAL;
}

#define NEED(condition)          \
  do {                           \
    if (!(condition)) {          \
      *failed = #condition;      \
      libsnbf_close(snbf);       \
      return 1;                  \
    }                            \
  } while (0)

int use_from_c(const char** failed) {
  struct asked asked = {0, 0};
  struct libsnbf_options options = {.lock_path = "/tmp/snbf-abi.lock", .ioctl = answer, .ioctl_context = &asked};
  struct libsnbf* snbf = NULL;

  NEED(libsnbf_open(&options, &snbf) == 0);
  NEED(libsnbf_start_node(snbf, 7) == 0);
  NEED(asked.command == SNBF_START_NODE && asked.minor == 7);
  NEED(libsnbf_stop_node(snbf, 8) == -EINVAL);
  NEED(libsnbf_name_is_safe("data") == 1);
  NEED(libsnbf_name_is_safe("../data") == 0);
  NEED(libsnbf_chunk_size_on(4096, 5ull << 40) == 8192);
  libsnbf_close(snbf);
  return 0;
}
