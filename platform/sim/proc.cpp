// The /proc tree.
#include <algorithm>
#include <cstring>

#include "platform/control.h"
#include "proc_state.h"

namespace snbf::sim {

namespace {

constexpr int kPageBytes = 4096;
constexpr u8 kGuard = 0xC3;

std::vector<plat_proc_entry*>& siblings(Kernel& k, plat_proc_entry* parent) {
  return parent == nullptr ? k.proc->root : parent->children;
}

plat_proc_entry* create(Kernel& k, const char* call, const char* name, plat_proc_entry* parent) {
  if (k.fault(Fault::ProcCreate, -ENOMEM) != 0) return nullptr;
  if (parent != nullptr && (parent->gone || !parent->directory)) {
    k.fatal("%s() of '%s' in what is no directory or gone", call, name);
  }
  for (const plat_proc_entry* other : siblings(k, parent)) {
    if (other->name == name) return nullptr;
  }
  k.proc->all.push_back(std::make_unique<plat_proc_entry>());
  plat_proc_entry* entry = k.proc->all.back().get();
  entry->name = name;
  entry->parent = parent;
  siblings(k, parent).push_back(entry);
  return entry;
}

plat_proc_entry* find(const Kernel& k, const std::string& path) {
  std::string rest = path;
  if (rest.rfind("/proc/", 0) == 0) rest = rest.substr(6);
  const std::vector<plat_proc_entry*>* level = &k.proc->root;
  plat_proc_entry* found = nullptr;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string part = rest.substr(0, end);
    rest = end < rest.size() ? rest.substr(end + 1) : "";
    auto at = std::find_if(level->begin(), level->end(),
                           [&](auto* entry) { return entry->name == part; });
    if (at == level->end()) return nullptr;
    found = *at;
    level = &found->children;
  }
  return found;
}

// While somebody is inside the driver through an entry, its removal waits.
class Inside {
 public:
  Inside(Kernel& k, plat_proc_entry* entry) : k_(k), entry_(entry) { ++entry_->readers; }
  ~Inside() {
    if (--entry_->readers == 0) k_.wake_all(entry_->drain);
  }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  Kernel& k_;
  plat_proc_entry* entry_;
};

}  // namespace

void Kernel::proc_leftovers(std::string& text) const {
  for (const auto& entry : proc->all) {
    if (!entry->gone) text += "  the /proc entry " + entry->name + "\n";
  }
}

int Sim::read_proc(const std::string& path, std::string* text) {
  Kernel& k = enter_sleeping("read_proc");
  text->clear();
  plat_proc_entry* entry = find(k, path);
  if (entry == nullptr) return -ENOENT;
  if (entry->directory) return -EISDIR;
  if (k.entries.read_proc == nullptr) k.fatal("a /proc file is read, but no driver is in use");
  k.point();
  if (entry->gone) return -EIO;
  Inside inside(k, entry);
  std::vector<char> page(kPageBytes + 64, static_cast<char>(kGuard));
  char* start = nullptr;
  int eof = 0;
  int length;
  {
    InDriver in_driver(k);
    length = k.entries.read_proc(page.data(), &start, 0, kPageBytes, &eof, entry->context);
  }
  for (int i = 0; i < 64; ++i) {
    if (static_cast<u8>(page[static_cast<std::size_t>(kPageBytes + i)]) != kGuard) {
      k.fatal("read_proc writes behind its page for '%s'", path.c_str());
    }
  }
  if (length < 0) return length;
  if (length > kPageBytes) k.fatal("read_proc answers %d bytes for '%s'", length, path.c_str());
  text->assign(page.data(), static_cast<std::size_t>(length));
  return 0;
}

std::string Sim::proc(const std::string& path) {
  std::string text;
  const int error = read_proc(path, &text);
  return error == 0 ? text : "<error " + std::to_string(error) + ">";
}

int Sim::write_proc(const std::string& path, std::string_view text) {
  Kernel& k = enter_sleeping("write_proc");
  plat_proc_entry* entry = find(k, path);
  if (entry == nullptr) return -ENOENT;
  if (entry->directory || !entry->writable) return -EACCES;
  UserBuffer buffer = user({reinterpret_cast<const u8*>(text.data()), text.size()});
  Inside inside(k, entry);
  int answer;
  {
    InDriver in_driver(k);
    answer = k.entries.write_proc(entry, buffer.address(), text.size(), entry->context);
  }
  buffer.unmap();
  return answer < 0 ? answer : 0;
}

bool Sim::proc_exists(const std::string& path) const { return find(*kernel_, path) != nullptr; }

std::vector<std::string> Sim::list_proc(const std::string& path) const {
  std::vector<std::string> names;
  const plat_proc_entry* entry = find(*kernel_, path);
  if (entry == nullptr) return names;
  for (const plat_proc_entry* child : entry->children) names.push_back(child->name);
  return names;
}

}  // namespace snbf::sim

using namespace snbf::sim;

extern "C" {

plat_proc_entry* snbf_plat_proc_mkdir(const char* name, plat_proc_entry* parent) {
  Kernel& k = enter_sleeping("proc_mkdir");
  plat_proc_entry* entry = create(k, "proc_mkdir", name, parent);
  if (entry == nullptr) return nullptr;
  entry->directory = true;
  entry->mode = 0555;
  return entry;
}

plat_proc_entry* snbf_plat_proc_create(const char* name, int mode, plat_proc_entry* parent,
                                       int writable, void* context) {
  Kernel& k = enter_sleeping("proc_create");
  plat_proc_entry* entry = create(k, "proc_create", name, parent);
  if (entry == nullptr) return nullptr;
  entry->directory = false;
  entry->mode = mode;
  entry->writable = writable != 0;
  entry->context = context;
  return entry;
}

void snbf_plat_proc_remove(plat_proc_entry* entry) {
  Kernel& k = enter_sleeping("proc_remove");
  const bool known = std::any_of(k.proc->all.begin(), k.proc->all.end(),
                                 [&](const auto& other) { return other.get() == entry; });
  if (!known || entry->gone) k.fatal("proc_remove() of an entry that is gone");
  if (!entry->children.empty())
    k.fatal("proc_remove() of '%s', which has children", entry->name.c_str());
  entry->gone = true;
  auto& level = siblings(k, entry->parent);
  level.erase(std::find(level.begin(), level.end(), entry));
  while (entry->readers > 0) {
    k.sleep_in(entry->drain, "the readers inside of /proc entry", entry, entry->name.c_str());
  }
}
}
