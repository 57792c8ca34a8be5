// Requests: the contract's view of them, and their ends.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

#include "block_dev.h"

namespace snbf::sim {

namespace {

constexpr std::size_t kDeadBios = 512;

}  // namespace

// What a power cut left in flight. Two parts of a split request share the page that the cut goes through.
BlockState::~BlockState() {
  std::set<void*> pages;
  for (plat_bio* bio : bios) {
    if (bio->kind == plat_bio::Kind::Caller && !bio->borrows_pages) {
      for (auto& piece : bio->pieces) pages.insert(piece.page);
    }
    delete bio;
  }
  for (void* page : pages) free(page);
  for (plat_bio* bio : dead_bios) delete bio;
}

plat_bio* Kernel::new_bio(plat_bio::Kind kind) {
  auto* bio = new plat_bio;
  bio->magic = kBioMagic;
  bio->id = block_state->next_bio++;
  bio->kind = kind;
  block_state->bios.insert(bio);
  return bio;
}

// The shell stays for a while, so that a use of it is noticed.
void Kernel::free_bio(plat_bio* bio) {
  if (bio->original != nullptr) --bio->original->clones;
  block_state->bios.erase(bio);
  bio->magic = kDeadBioMagic;
  bio->pieces.clear();
  bio->on_end = nullptr;
  block_state->dead_bios.push_back(bio);
  if (block_state->dead_bios.size() > kDeadBios) {
    delete block_state->dead_bios.front();
    block_state->dead_bios.pop_front();
  }
}

plat_bio* Kernel::check_bio(const plat_bio* bio, const char* call) const {
  auto& self = const_cast<Kernel&>(*this);
  if (bio == nullptr) self.fatal("%s() of no request", call);
  if (bio->magic == kDeadBioMagic) {
    self.fatal("%s() of request #%llu, which is gone", call,
               static_cast<unsigned long long>(bio->id));
  }
  if (bio->magic != kBioMagic) self.fatal("%s() of something that is no request", call);
  return const_cast<plat_bio*>(bio);
}

void Kernel::free_pieces(plat_bio* bio) {
  for (auto& piece : bio->pieces) free(piece.page);
  bio->pieces.clear();
}

plat_bio* Kernel::make_caller_bio(const Request& request, plat_devt sent_to) {
  plat_bio* bio = new_bio(plat_bio::Kind::Caller);
  bio->op = request.op;
  bio->fua = request.fua;
  bio->preflush = request.preflush || request.op == Op::Flush;
  bio->sector = request.sector;
  bio->bytes = request.op == Op::Write && !request.data.empty()
                   ? static_cast<u32>(request.data.size())
                   : request.bytes;
  if (request.op == Op::Flush) bio->bytes = 0;
  bio->left = bio->bytes;
  bio->sent_to = sent_to;
  if (request.op != Op::Read && request.op != Op::Write) return bio;
  u32 offset = request.first_piece_offset % 4096;
  for (u32 done = 0; done < bio->bytes;) {
    const u32 bytes = std::min<u32>(4096 - offset, bio->bytes - done);
    auto* page = static_cast<u8*>(aligned_alloc(4096, 4096));
    memset(page, 0, 4096);
    if (!request.data.empty()) memcpy(page + offset, request.data.data() + done, bytes);
    bio->pieces.push_back({page, offset, bytes});
    done += bytes;
    offset = 0;
  }
  return bio;
}

void Kernel::finish_caller(plat_bio* bio, int error) {
  if (bio->clones > 0) {
    for (plat_bio* other : block_state->bios) {
      if (other->original == bio && other->in_flight) {
        fatal("request #%llu is completed while its clone #%llu is in flight",
              static_cast<unsigned long long>(bio->id), static_cast<unsigned long long>(other->id));
      }
    }
    for (plat_bio* other : block_state->bios) {
      if (other->original == bio) other->original = nullptr;
    }
    bio->clones = 0;
  }
  if (bio->node != nullptr) {
    --bio->node->outstanding;
    bio->node = nullptr;
  }
  bio->completed = true;
  bio->status = error;
  auto on_end = std::move(bio->on_end);
  if (on_end) on_end(bio, error);
  free_pieces(bio);
  free_bio(bio);
}

// Called where a device is done with a request.
void Kernel::end_bio(plat_bio* bio, int error) {
  const bool call = bio->hooks != nullptr && bio->hooks->end_io != nullptr;
  bio->in_flight = false;
  if (bio->kind == plat_bio::Kind::Caller) {
    finish_caller(bio, error);
    return;
  }
  if (call && error == 0 && bio->bytes >= 1024 && io_rng.one_in(6)) {
    const u32 part =
        static_cast<u32>(1 + io_rng.below(bio->bytes / kSectorBytes - 1)) * kSectorBytes;
    bio->left = bio->bytes - part;
    bio->in_flight = true;
    const int more = bio->hooks->end_io(bio, part, 0);
    if (more != 1) fatal("end_io answers %d with %u bytes outstanding", more, bio->left);
    bio->in_flight = false;
  }
  const u32 last = bio->left;
  bio->left = 0;
  bio->status = error;
  bio->completed = true;
  if (!call) return;
  const u64 id = bio->id;
  if (const int more = bio->hooks->end_io(bio, last, error); more != 0) {
    fatal("end_io answers %d for request #%llu, which has completed", more,
          static_cast<unsigned long long>(id));
  }
}

}  // namespace snbf::sim

using namespace snbf::sim;

extern "C" {

void snbf_plat_bio_info(const plat_bio* bio, plat_bio_info* info) {
  Kernel& k = enter("bio_info");
  k.check_bio(bio, "bio_info");
  info->sector = bio->sector;
  info->size_bytes = bio->bytes;
  info->device = bio->sent_to;
  info->is_write = bio->op != Op::Read ? 1 : 0;
}

int snbf_plat_bio_is_write(const plat_bio* bio) {
  return kernel().check_bio(bio, "bio_is_write")->op != Op::Read ? 1 : 0;
}

void snbf_plat_bio_set_next(plat_bio* bio, plat_bio* next) {
  Kernel& k = kernel();
  k.check_bio(bio, "bio_set_next");
  if (next != nullptr) k.check_bio(next, "bio_set_next");
  if (bio->kind != plat_bio::Kind::Caller || bio->in_flight) {
    k.fatal("bio_set_next() of a request that the driver does not keep");
  }
  bio->next = next;
}

plat_bio* snbf_plat_bio_next(const plat_bio* bio) {
  return kernel().check_bio(bio, "bio_next")->next;
}

int snbf_plat_bio_may_be_throttled(const plat_bio* bio) {
  kernel().check_bio(bio, "bio_may_be_throttled");
  return 0;
}

void snbf_plat_bio_forward(plat_bio* bio, plat_bdev* bdev) {
  Kernel& k = enter_sleeping("bio_forward");
  k.check_bio(bio, "bio_forward");
  k.check_bdev(bdev, "bio_forward");
  if (bio->kind != plat_bio::Kind::Caller)
    k.fatal("bio_forward() of a request of the driver's own");
  if (bio->in_flight) k.fatal("bio_forward() of a request that is on its way already");
  if (bio->next != nullptr) k.fatal("bio_forward() of a request that is still linked");
  if (bio->node != nullptr) {
    --bio->node->outstanding;
    bio->node = nullptr;
  }
  // Without the task's list it is sent at once, and not when the submit function has returned.
  BioLists* pending = k.current->bio_lists;
  if (k.can_drain(*bdev->dev)) k.current->bio_lists = nullptr;
  k.submit(bio, bdev->dev);
  k.current->bio_lists = pending;
}

void snbf_plat_bio_complete(plat_bio* bio, int error) {
  Kernel& k = enter("bio_complete");
  k.check_bio(bio, "bio_complete");
  if (bio->kind != plat_bio::Kind::Caller)
    k.fatal("bio_complete() of a request of the driver's own");
  if (bio->in_flight) k.fatal("bio_complete() of a request that was passed on");
  if (bio->next != nullptr) k.fatal("bio_complete() of a request that is still linked");
  if (error > 0) k.fatal("bio_complete() with the error %d, which is not negative", error);
  k.finish_caller(bio, error);
}

plat_bio* snbf_plat_bio_clone(plat_bio* original, plat_alloc_mode mode) {
  Kernel& k = mode == PLAT_ALLOC_ATOMIC ? enter("bio_clone") : enter_sleeping("bio_clone");
  k.reclaim(mode);
  k.check_bio(original, "bio_clone");
  // A clone that may wait for memory gets it, as on a real kernel.
  const bool fails = mode == PLAT_ALLOC_ATOMIC ? k.fault_memory(Fault::BioClone)
                                               : k.fault(Fault::BioClone, -ENOMEM) != 0;
  if (fails) return nullptr;
  plat_bio* bio = k.new_bio(plat_bio::Kind::Clone);
  bio->op = original->op;
  bio->fua = original->fua;
  bio->preflush = original->preflush;
  bio->sector = original->sector;
  bio->bytes = bio->left = original->bytes;
  bio->sent_to = original->sent_to;
  bio->pieces = original->pieces;
  bio->original = original;
  ++original->clones;
  return bio;
}

plat_bio* snbf_plat_bio_alloc(plat_alloc_mode mode) {
  Kernel& k = mode == PLAT_ALLOC_ATOMIC ? enter("bio_alloc") : enter_sleeping("bio_alloc");
  k.reclaim(mode);
  if (k.fault_memory(Fault::BioAlloc)) return nullptr;
  return k.new_bio(plat_bio::Kind::Own);
}

void snbf_plat_bio_set_page(plat_bio* bio, int write, plat_u64 sector, void* data, plat_u32 bytes) {
  Kernel& k = enter("bio_set_page");
  k.check_bio(bio, "bio_set_page");
  if (bio->kind != plat_bio::Kind::Own)
    k.fatal("bio_set_page() of a request that bio_alloc did not make");
  if (bio->in_flight) k.fatal("bio_set_page() of a request in flight");
  if (bytes == 0 || bytes > 4096 || bytes % kSectorBytes != 0)
    k.fatal("bio_set_page() of %u bytes", bytes);
  const u32 offset = static_cast<u32>(reinterpret_cast<std::uintptr_t>(data) % 4096);
  if (offset + bytes > 4096) k.fatal("bio_set_page() of what lies in two pages");
  bio->op = write ? Op::Write : Op::Read;
  bio->sector = sector;
  bio->bytes = bio->left = bytes;
  bio->completed = false;
  bio->status = 0;
  bio->pieces.assign(1, {static_cast<unsigned char*>(data) - offset, offset, bytes});
}

void snbf_plat_bio_set_hooks(plat_bio* bio, const plat_bio_hooks* hooks, void* context) {
  Kernel& k = enter("bio_set_hooks");
  k.check_bio(bio, "bio_set_hooks");
  if (bio->kind == plat_bio::Kind::Caller) k.fatal("bio_set_hooks() of a caller's request");
  bio->hooks = hooks;
  bio->context = context;
}

const plat_bio_hooks* snbf_plat_bio_hooks(const plat_bio* bio) {
  return kernel().check_bio(bio, "bio_hooks")->hooks;
}

void* snbf_plat_bio_context(const plat_bio* bio) {
  return kernel().check_bio(bio, "bio_context")->context;
}

plat_u32 snbf_plat_bio_bytes_left(const plat_bio* bio) {
  return kernel().check_bio(bio, "bio_bytes_left")->left;
}

int snbf_plat_bio_is_uptodate(const plat_bio* bio) {
  Kernel& k = enter("bio_is_uptodate");
  k.check_bio(bio, "bio_is_uptodate");
  return bio->completed && bio->status == 0 ? 1 : 0;
}

void snbf_plat_bio_submit(plat_bio* bio, plat_bdev* bdev) {
  Kernel& k = enter_sleeping("bio_submit");
  k.check_bio(bio, "bio_submit");
  k.check_bdev(bdev, "bio_submit");
  if (bio->kind == plat_bio::Kind::Caller)
    k.fatal("bio_submit() of a caller's request; it is forwarded");
  if (bio->in_flight) k.fatal("bio_submit() of a request in flight");
  if (bio->kind == plat_bio::Kind::Own && bio->pieces.empty())
    k.fatal("bio_submit() of an empty request");
  if (bio->kind == plat_bio::Kind::Clone && bio->completed)
    k.fatal("bio_submit() of a clone a second time");
  k.submit(bio, bdev->dev);
}

void snbf_plat_bio_submit_all(plat_bio* const* bios, int count, plat_bdev* bdev) {
  Sim::Plug plug(enter_sleeping("bio_submit_all").sim);
  for (int i = 0; i < count; ++i) snbf_plat_bio_submit(bios[i], bdev);
}

void snbf_plat_bio_put(plat_bio* bio) {
  Kernel& k = enter("bio_put");
  k.check_bio(bio, "bio_put");
  if (bio->kind == plat_bio::Kind::Caller)
    k.fatal("bio_put() of a caller's request; it is completed");
  if (bio->in_flight) k.fatal("bio_put() of a request in flight");
  if (bio->hooks != nullptr && bio->hooks->destroy != nullptr) bio->hooks->destroy(bio);
  k.free_bio(bio);
}

void snbf_plat_bio_cursor_init(const plat_bio* bio, plat_bio_cursor* cursor) {
  kernel().check_bio(bio, "bio_cursor_init");
  cursor->opaque[0] = 0;  // piece
  cursor->opaque[1] = bio->sector;
}

int snbf_plat_bio_next_segment(plat_bio* bio, plat_bio_cursor* cursor, plat_segment* segment) {
  kernel().check_bio(bio, "bio_next_segment");
  if (cursor->opaque[0] >= bio->pieces.size()) return 0;
  const plat_bio::Piece& piece = bio->pieces[cursor->opaque[0]++];
  segment->sector = cursor->opaque[1];
  segment->bytes = piece.bytes;
  segment->data = piece.page + piece.offset;
  cursor->opaque[1] += piece.bytes / kSectorBytes;
  return 1;
}
}
