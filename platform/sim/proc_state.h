// The /proc tree and the control device inside.
#pragma once

#include <list>

#include "kernel.h"

struct plat_proc_entry {
  std::string name;
  bool directory;
  int mode;
  bool writable;
  void* context;
  plat_proc_entry* parent;
  std::vector<plat_proc_entry*> children;
  bool gone = false;
  int readers = 0;
  WaitList drain = {};
};

namespace snbf::sim {

struct ProcState {
  std::vector<plat_proc_entry*> root;
  std::vector<std::unique_ptr<plat_proc_entry>>
      all;  // the removed ones too: readers may still be inside
};

struct ControlState {
  bool registered = false;
  int major = 0;
  std::string name;
  struct File {
    bool open;
  };
  std::list<File> files;
  int open_files = 0;
};

}  // namespace snbf::sim
