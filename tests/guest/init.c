// The first process of a guest. It loads the modules that reach the machine's own root over 9p, lays
// a RAM overlay above it, runs one job there, and tells the runner how the job ended.
//
// Three virtio ports lead out: "out" (the job's output), "log" (the kernel log) and "ctl" (events,
// one a line). The kernel log is read record by record, so that a gap in its sequence numbers is
// seen and reported; a serial console alone is both slower and silent about what it dropped.
//
// On a machine with a system of its own (machine.py) it is a service of that, and turns the machine off
// in the end.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define COUNT(array) (sizeof(array) / sizeof((array)[0]))

static int kmsg_fd = -1;

static void say(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  int size = vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (size > (int)sizeof(line) - 2) size = sizeof(line) - 2;
  line[size++] = '\n';  // without it the kernel keeps the line back for more
  if (write(kmsg_fd, line, size) < 0) return;
}

// A guest that cannot start has nothing to test: the panic ends QEMU at once, and the serial
// console, which no module is needed for, has the reason.
static void need(int ok, const char* what) {
  if (ok) return;
  say("<0>guest: cannot start: %s: %s", what, strerror(errno));
  sleep(1);
  _exit(1);
}

static void mount_at(const char* source, const char* target, const char* type, unsigned long flags,
                     const char* options) {
  mkdir(target, 0755);
  need(mount(source, target, type, flags, options) == 0, target);
}

static void load_modules(void) {
  FILE* list = fopen("/modules", "re");
  need(list != NULL, "/modules");
  char path[512];
  while (fgets(path, sizeof(path), list) != NULL) {
    path[strcspn(path, "\n")] = 0;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    need(fd >= 0, path);
    need(syscall(SYS_finit_module, fd, "", 0) == 0 || errno == EEXIST, path);
    close(fd);
  }
  fclose(list);
}

// The value of a word of the kernel's command line, or the fallback.
static void option(const char* name, char* value, size_t size, const char* fallback) {
  static char line[4096];
  if (line[0] == 0) {
    int fd = open("/proc/cmdline", O_RDONLY | O_CLOEXEC);
    ssize_t length = read(fd, line, sizeof(line) - 1);
    need(length > 0, "/proc/cmdline");
    close(fd);
  }
  snprintf(value, size, "%s", fallback);
  const char* at = strstr(line, name);
  if (at == NULL) return;
  at += strlen(name);
  snprintf(value, size, "%.*s", (int)strcspn(at, " \n"), at);
}

static void enter_root(void) {
  mount_at("root", "/lower", "9p", MS_RDONLY,
           "trans=virtio,version=9p2000.L,msize=512000,cache=loose,access=any");
  mount_at("tmpfs", "/ram", "tmpfs", 0, "size=75%");
  mkdir("/ram/upper", 0755);
  mkdir("/ram/work", 0755);
  mount_at("overlay", "/root", "overlay", 0, "lowerdir=/lower,upperdir=/ram/upper,workdir=/ram/work");
  mount_at("proc", "/root/proc", "proc", 0, NULL);
  mount_at("sysfs", "/root/sys", "sysfs", 0, NULL);
  mount_at("devtmpfs", "/root/dev", "devtmpfs", 0, NULL);
  mount_at("devpts", "/root/dev/pts", "devpts", 0, NULL);
  mount_at("shm", "/root/dev/shm", "tmpfs", 0, NULL);
  mount_at("run", "/root/run", "tmpfs", 0, NULL);
  // Nothing over the other folders: the checkout may lie in any of them, and the overlay keeps them in RAM as it is.
  mount_at("share", "/root/run/guest", "9p", 0, "trans=virtio,version=9p2000.L,msize=512000,access=any");
  mount("debugfs", "/root/sys/kernel/debug", "debugfs", 0, NULL);

  char release[128];
  char tree[512];
  option("guest.kernel=", release, sizeof(release), "");
  option("guest.tree=", tree, sizeof(tree), "");
  if (tree[0] != 0) {  // a kernel that is unpacked, not installed: its modules where tools look
    char from[1024];
    char to[256];
    snprintf(from, sizeof(from), "/root%s/lib/modules/%s", tree, release);
    snprintf(to, sizeof(to), "/root/lib/modules/%s", release);
    mkdir(to, 0755);
    need(mount(from, to, NULL, MS_BIND, NULL) == 0, to);
  }
  need(chdir("/root") == 0 && mount(".", "/", NULL, MS_MOVE, NULL) == 0, "new root");
  need(chroot(".") == 0 && chdir("/") == 0, "chroot");
}

// /dev/guest/NAME for each disk, by the serial number that the runner gave it.
static void name_disks(void) {
  mkdir("/dev/guest", 0755);
  DIR* folder = opendir("/sys/block");
  need(folder != NULL, "/sys/block");
  for (struct dirent* entry; (entry = readdir(folder)) != NULL;) {
    char path[512];
    char serial[64] = "";
    snprintf(path, sizeof(path), "/sys/block/%s/serial", entry->d_name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (read(fd, serial, sizeof(serial) - 1) > 0 && serial[0] != 0) {
      char link[512];
      char target[512];
      snprintf(link, sizeof(link), "/dev/guest/%s", serial);
      snprintf(target, sizeof(target), "../%s", entry->d_name);
      need(symlink(target, link) == 0, link);
    }
    close(fd);
  }
  closedir(folder);
}

// Whether the class's `entry` is the port of this name.
static int port_is(const char* entry, const char* wanted) {
  char path[512];
  char name[64] = "";
  snprintf(path, sizeof(path), "/sys/class/virtio-ports/%s/name", entry);
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  ssize_t size = read(fd, name, sizeof(name) - 1);
  close(fd);
  if (size <= 0) return 0;
  name[strcspn(name, "\n")] = 0;
  return strcmp(name, wanted) == 0;
}

// The host announces the ports one by one, after the driver's probe: they are waited for.
static int open_port(const char* wanted) {
  for (int wait_ms = 0; wait_ms < 20000; wait_ms += 10) {
    DIR* folder = opendir("/sys/class/virtio-ports");
    for (struct dirent* entry; folder != NULL && (entry = readdir(folder)) != NULL;) {
      if (!port_is(entry->d_name, wanted)) continue;
      char path[512];
      snprintf(path, sizeof(path), "/dev/%s", entry->d_name);
      int fd = open(path, O_RDWR | O_CLOEXEC);
      if (fd < 0) continue;
      closedir(folder);
      return fd;
    }
    if (folder != NULL) closedir(folder);
    usleep(10000);
  }
  need(0, wanted);
  return -1;
}

static void write_all(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t done = write(fd, data, size);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return;
    data += done;
    size -= done;
  }
}

// One record of /dev/kmsg, "level,sequence,microseconds,flags;text\n KEY=value\n", as a line. The
// kernel writes what is not printable as \xNN: undone here, so that patterns see the message itself.
static size_t format_record(char* record, unsigned long long* sequence, char* line, size_t size) {
  unsigned priority = 0;
  unsigned long long at_us = 0;
  char* text = strchr(record, ';');
  if (text == NULL || sscanf(record, "%u,%llu,%llu", &priority, sequence, &at_us) != 3) return 0;
  ++text;
  int used = snprintf(line, size, "<%u>[%5llu.%06llu] ", priority & 7, at_us / 1000000,
                      at_us % 1000000);
  while (*text != 0 && *text != '\n' && used < (int)size - 2) {
    unsigned byte = 0;
    if (text[0] == '\\' && text[1] == 'x' && sscanf(text + 2, "%2x", &byte) == 1) {
      line[used++] = byte == '\n' ? ' ' : (char)byte;
      text += 4;
    } else {
      line[used++] = *text++;
    }
  }
  line[used++] = '\n';
  return used;
}

// Waits for records only when the batch is empty: one write a batch keeps up with a driver that logs
// every request, where one write a line does not.
static void stream_log(int port) {
  int fd = open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  need(fd >= 0, "/dev/kmsg");
  static char batch[65536];
  size_t used = 0;
  unsigned long long next = 0;
  for (;;) {
    char record[9000];
    ssize_t size = read(fd, record, sizeof(record) - 1);
    if (size < 0 && errno == EPIPE) continue;  // overwritten: the sequence numbers tell how many
    if (size < 0 || used > sizeof(batch) - 10000) {
      if (used > 0) write_all(port, batch, used);
      used = 0;
      if (size < 0) {
        struct timespec pause = {.tv_nsec = 5000000};
        nanosleep(&pause, NULL);
        continue;
      }
    }
    record[size] = 0;
    char line[9100];
    unsigned long long sequence = next;
    size_t length = format_record(record, &sequence, line, sizeof(line));
    if (sequence > next) {
      used += snprintf(batch + used, 100, "guest: kernel log lost %llu records\n", sequence - next);
    }
    next = sequence + 1;
    memcpy(batch + used, line, length);
    used += length;
  }
}

static void sysrq(const char* key) {
  int fd = open("/proc/sysrq-trigger", O_WRONLY | O_CLOEXEC);
  if (fd < 0) return;
  if (write(fd, key, 1) != 1) say("<3>guest: sysrq %s failed", key);
  close(fd);
}

static pid_t start_job(int out, int ctl) {
  pid_t pid = fork();
  need(pid >= 0, "fork");
  if (pid > 0) return pid;
  setsid();
  int null = open("/dev/null", O_RDONLY);
  dup2(null, 0);
  dup2(out, 1);
  dup2(out, 2);
  dup2(ctl, 3);  // the job's own way to the runner: its cases, or the wish to be cut off
  for (int fd = 4; fd < 64; ++fd) close(fd);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, NULL);
  execl("/bin/sh", "sh", "/run/guest/job", NULL);
  _exit(127);
}

// Answers what became of the job, as the runner reads it.
static void wait_for_job(pid_t job, int limit_s, char* event, size_t size) {
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const time_t deadline = now.tv_sec + limit_s;
  for (;;) {
    int status = 0;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
      if (pid != job) continue;
      if (WIFEXITED(status)) snprintf(event, size, "exit %d\n", WEXITSTATUS(status));
      else snprintf(event, size, "signal %d\n", WTERMSIG(status));
      return;
    }
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec >= deadline) {
      snprintf(event, size, "timeout\n");
      say("<2>guest: the time limit of %d s is over; blocked tasks and running code follow", limit_s);
      sysrq("w");
      sysrq("l");
      return;
    }
    struct timespec tick = {.tv_sec = 1};
    sigtimedwait(&child, NULL, &tick);
  }
}

// What a first process does that has nothing but its initramfs.
static void become_system(void) {
  mkdir("/proc", 0555);
  mount("proc", "/proc", "proc", 0, NULL);
  load_modules();
  enter_root();
  sethostname("guest", 5);
}

int main(int argc, char** argv) {
  const int is_first = getpid() == 1;
  if (is_first) {
    mkdir("/dev", 0755);
    mount("devtmpfs", "/dev", "devtmpfs", 0, NULL);
  }
  kmsg_fd = open("/dev/kmsg", O_WRONLY | O_CLOEXEC);
  if (is_first) become_system();
  name_disks();
  clearenv();
  setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("HOME", "/root", 1);
  setenv("LANG", "C.UTF-8", 1);

  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child, NULL);

  int log = open_port("log");
  // A system's last round of signals leaves processes of this name alone.
  if (argc > 0) argv[0][0] = '@';
  pid_t streamer = fork();
  need(streamer >= 0, "fork");
  if (streamer == 0) stream_log(log);
  close(log);

  char limit[32];
  option("guest.limit=", limit, sizeof(limit), "60");
  int out = open_port("out");
  int ctl = open_port("ctl");
  write_all(ctl, "ready\n", 6);
  pid_t job = start_job(out, ctl);
  char event[64];
  wait_for_job(job, atoi(limit), event, sizeof(event));
  // What a hung driver holds back must not hold back the news of it.
  if (event[0] != 't') sync();
  say("<6>guest: end of log");
  write_all(ctl, event, strlen(event));
  if (!is_first) execlp("systemctl", "systemctl", "poweroff", NULL);
  for (;;) pause();
}
