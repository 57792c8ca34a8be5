// SPDX-License-Identifier: GPL-2.0-only
// Files and processes, as the verbs need them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace snbf {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd();
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  int get() const { return fd_; }
  int release();
  void reset();
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// After a crash the file holds the old contents or the new, whole. The umask takes its part of `mode`.
void replace_file(const std::string& path, const std::string& contents, unsigned mode = 0600);
// Nothing if the file does not exist; throws if it cannot be read.
bool read_file(const std::string& path, std::string* contents);
// The directory that a file lies in.
std::string folder_of(const std::string& path);
void sync_file(const std::string& path);
void sync_directory(const std::string& path);
void remove_file(const std::string& path);  // gone, or was not there
// For files that hold what a partition holds: nobody but the owner reads in it. Its parent has to be
// there. One that is there stays as it is. Throws Failure.
void make_private_folder(const std::string& path);

// An exclusive lock that ends with the process; throws kBusy when another has it.
UniqueFd lock_file(const std::string& path, const std::string& doing);
// Whether somebody has that file locked for himself alone. It is asked by holding it for a moment;
// a file that is not there, or cannot be read, is not locked.
bool is_locked(const std::string& path);

// XXH3-128 of the whole file, in hexadecimal. Throws, too, once a signal is noted (signals.h).
std::string hash_file(const std::string& path);

// Waits for the end. The program's stdout goes to `output` if given, else to stderr; its stderr
// is kept for `errors`.
struct Ran {
  int status = 0;  // exit status; 128 + signal
  std::string output;
  std::string errors;
};
Ran run(const std::vector<std::string>& arguments);
// Throws unless the status is 0. `package`: where the program comes from. `remedy`: what to do when
// it fails.
void require_success(const std::vector<std::string>& arguments, const Ran& ran,
                     const char* package = "qemu-utils", const char* remedy = "");
std::string run_or_throw(const std::vector<std::string>& arguments,
                         const char* package = "qemu-utils", const char* remedy = "");

}  // namespace snbf
