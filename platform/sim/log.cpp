// The kernel log and text formatting. No switch happens here: a line printed is a line read.
#include "platform/log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kernel.h"

namespace snbf::sim {

int Log::count(std::string_view part, int level) const {
  int found = 0;
  for (const LogLine& line : lines_) {
    if (level != -2 && line.level != level) continue;
    if (line.text.find(part) != std::string::npos) ++found;
  }
  return found;
}

std::string Log::last(std::string_view part) const {
  for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
    if (line->text.find(part) != std::string::npos) return line->text;
  }
  return "";
}

std::string Log::dump() const {
  std::string text;
  for (const LogLine& line : lines_) text += line.text + "\n";
  return text;
}

void Kernel::print(const char* raw) {
  LogLine line;
  line.raw = raw;
  line.level = -1;
  const char* text = raw;
  if (text[0] == '<' && text[1] >= '0' && text[1] <= '7' && text[2] == '>') {
    line.level = text[1] - '0';
    text += 3;
  }
  line.text = text;
  if (!line.text.empty() && line.text.back() == '\n') line.text.pop_back();
  line.pid = current != nullptr ? current->pid : 0;
  line.interrupt = in_interrupt();
  line.time_us = now_us();
  static const bool echo = getenv("SNBF_SIM_LOG") != nullptr;
  if (echo) {
    fprintf(stderr, "[%8llu.%06llu] %s\n", static_cast<unsigned long long>(line.time_us / 1000000),
            static_cast<unsigned long long>(line.time_us % 1000000), line.text.c_str());
  }
  log.lines_.push_back(std::move(line));
}

}  // namespace snbf::sim

extern "C" {

void snbf_plat_print(const char* line) {
  snbf::sim::Kernel* k = snbf::sim::kernel_or_null();
  if (k != nullptr) {
    k->print(line);
  } else {
    fputs(line, stderr);
  }
}

int snbf_plat_vsnprintf(char* to, plat_size bytes, const char* format, va_list arguments) {
  return vsnprintf(to, bytes, format, arguments);
}

int snbf_plat_snprintf(char* to, plat_size bytes, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(to, bytes, format, arguments);
  va_end(arguments);
  return length;
}

// One fiber runs at a time.
void snbf_plat_races_begin() {}
void snbf_plat_races_end() {}

void snbf_plat_bug(const char* file, int line, const char* what) {
  snbf::sim::Kernel* k = snbf::sim::kernel_or_null();
  if (k != nullptr && k->current != nullptr) k->fatal("BUG at %s:%d: %s", file, line, what);
  fprintf(stderr, "BUG at %s:%d: %s\n", file, line, what);
  abort();
}

const char* snbf_plat_kernel_release(void) { return "6.1.0-sim"; }
const char* snbf_plat_build_date(void) { return __DATE__; }
const char* snbf_plat_build_time(void) { return __TIME__; }
}
