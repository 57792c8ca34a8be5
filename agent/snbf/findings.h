// SPDX-License-Identifier: GPL-2.0-only
// What `snbf doctor` makes of what it sees: each finding with its one fix.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace snbf {

enum class Grade { Good, Warning, Bad };

struct Finding {
  std::string what;
  Grade grade;
  std::string text;
  std::string fix;  // empty: nothing needs to be done
};

// `release` as uname(2) has it.
Finding judge_kernel(const std::string& release);
// Whether the driver's sources are meant to build for it.
bool is_supported_kernel(const std::string& release);

enum class SecureBoot { Off, On, Unknown };
// `firmware`: the directory /sys/firmware.
SecureBoot secure_boot_of(const std::string& firmware);

struct ModuleFacts {
  bool loaded = false;
  bool control = false;   // its control device is there
  std::string taints;     // of the loaded one, as /sys/module/snbf/taint has them
  std::string file;       // that would be loaded now; empty: there is none for this kernel
  std::string signer;     // of that file; empty: nobody
  std::string release;    // of the running kernel
  bool packaged = false;  // dkms has its sources
  SecureBoot secure_boot = SecureBoot::Off;  // on: the kernel takes signed modules alone
};
Finding judge_module(const ModuleFacts& facts);

// `devices` is the text of /proc/devices. The majors are the driver's default ones. `early`: the
// initramfs loads it too.
Finding judge_majors(bool loaded, const std::string& devices, bool early);

// `type` as blkid(8) names it, empty if none is recognised for certain; `end_known`: its superblock
// says where it ends.
Finding judge_free_chunks(const std::string& type, bool end_known);

// `others`: devices whose file systems have the same UUID.
Finding judge_uuid(const std::string& type, const std::vector<std::string>& others);

// Room for bitmaps or COW files. `exists`: the directory does.
Finding judge_room(const std::string& what, const std::string& directory, bool exists,
                   uint64_t free_bytes, uint64_t wanted_bytes, const std::string& fix);

}  // namespace snbf
