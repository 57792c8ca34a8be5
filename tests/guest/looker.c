// Looks at every node and at every /proc file of the driver, over and over, as udev and monitoring do
// on a real machine: looker PROCESSES [PAUSE_US]. Ends when it is killed; what it meets on the way is no error.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

static void read_some(const char* path) {
  static char buffer[8192] __attribute__((aligned(4096)));
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  for (int i = 0; i < 4; ++i) {
    if (read(fd, buffer, sizeof(buffer)) <= 0) break;
  }
  close(fd);
}

static void look_into(const char* folder, int depth) {
  DIR* entries = opendir(folder);
  if (entries == NULL) return;
  struct dirent* entry;
  while ((entry = readdir(entries)) != NULL) {
    if (entry->d_name[0] == '.') continue;
    char path[512];
    snprintf(path, sizeof(path), "%s/%s", folder, entry->d_name);
    if (entry->d_type == DT_DIR && depth > 0) look_into(path, depth - 1);
    else read_some(path);
  }
  closedir(entries);
}

int main(int argc, char** argv) {
  int processes = argc > 1 ? atoi(argv[1]) : 2;
  int pause_us = argc > 2 ? atoi(argv[2]) : 0;  // leaves an unload a moment in which nobody looks
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int i = 1; i < processes; ++i) {
    if (fork() == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      break;
    }
  }
  for (;;) {
    look_into("/dev/snbf", 0);
    look_into("/proc/snbf", 1);
    read_some("/proc/partitions");
    read_some("/proc/diskstats");
    if (pause_us > 0) usleep(pause_us);
  }
}
