// SPDX-License-Identifier: GPL-2.0-only
#include "control/procfields.h"

#include "platform/log.h"

namespace snbf {

void ProcText::number(int value) { number64(value); }

void ProcText::number64(s64 value) {
  const int added = snbf_plat_snprintf(page_ + length_, kPageBytes - length_, "%lld\n",
                                       static_cast<long long>(value));
  // A line that no longer fits is left out whole.
  if (added > 0 && length_ + static_cast<size_t>(added) < kPageBytes) {
    length_ += static_cast<size_t>(added);
  }
  page_[length_] = '\0';
}

void ProcText::text(const char* value) {
  const int added = snbf_plat_snprintf(page_ + length_, kPageBytes - length_, "%s\n", value);
  if (added > 0 && length_ + static_cast<size_t>(added) < kPageBytes) {
    length_ += static_cast<size_t>(added);
  }
  page_[length_] = '\0';
}

namespace {

void show_dev_type(ProcText& out, Node& node) {
  out.text(node.dev_type == kFilterNode ? "filter" : "snap");
}
void show_minor(ProcText& out, Node& node) { out.number(static_cast<int>(node.minor)); }
void show_uuid(ProcText& out, Node& node) { out.text(node.uuid); }
void show_name(ProcText& out, Node& node) { out.text(node.name); }
void show_dev_name(ProcText& out, Node& node) { out.text(node.dev_name); }
void show_started(ProcText& out, Node& node) { out.number(node.started.load()); }
void show_use_cnt(ProcText& out, Node& node) { out.number(node.use_cnt.load()); }

// The filter that the node is or hangs on; null for a detached snap.
FilterNode* filter_of(Node& node) {
  return node.dev_type == kFilterNode ? &as_filter(node) : as_snap(node).filter_node;
}

void show_hdd_major(ProcText& out, Node& node) {
  if (FilterNode* filter = filter_of(node))
    out.number(static_cast<int>(dev_major(filter->hdd_dev)));
}
void show_hdd_minor(ProcText& out, Node& node) {
  if (FilterNode* filter = filter_of(node))
    out.number(static_cast<int>(dev_minor(filter->hdd_dev)));
}
void show_hdd_name(ProcText& out, Node& node) {
  if (FilterNode* filter = filter_of(node)) out.text(filter->hdd_name);
}

void show_snaps(ProcText& out, Node& node) {
  for (SnapNode* snap = as_filter(node).snaps.first(); snap != nullptr;
       snap = List<SnapNode, BySnapOrder>::next(snap)) {
    out.number(static_cast<int>(snap->minor));
  }
}
void show_extent_size(ProcText& out, Node& node) {
  out.number(static_cast<int>(as_filter(node).extent_size));
}
void show_extent_cnt(ProcText& out, Node& node) {
  out.number(static_cast<int>(as_filter(node).extent_cnt));
}
void show_dev_size(ProcText& out, Node& node) {
  out.number64(static_cast<s64>(as_filter(node).dev_size));
}
void show_bmp_dir(ProcText& out, Node& node) { out.text(as_filter(node).bmp_dir); }
void show_incr_bmp_size(ProcText& out, Node& node) {
  out.number(static_cast<int>(as_filter(node).incr_bmp_size));
}
void show_diff_bmp_size(ProcText& out, Node& node) {
  out.number(static_cast<int>(as_filter(node).diff_bmp_size));
}
void show_incr_bmp_dirty(ProcText& out, Node& node) {
  FilterNode& filter = as_filter(node);
  SpinGuard bits{filter.bmp_spin};
  out.number(filter.incr_bmp_dirty);
}
void show_diff_bmp_dirty(ProcText& out, Node& node) {
  FilterNode& filter = as_filter(node);
  SpinGuard bits{filter.bmp_spin};
  out.number(filter.diff_bmp_dirty);
}
void show_cowqueue_len(ProcText& out, Node& node) { out.number(as_filter(node).cowqueue.length()); }

void show_stop_pending(ProcText& out, Node& node) { out.number(as_snap(node).stop_pending.load()); }
void show_del_pending(ProcText& out, Node& node) { out.number(as_snap(node).del_pending.load()); }
void show_filter_minor(ProcText& out, Node& node) {
  if (FilterNode* filter = filter_of(node)) out.number(static_cast<int>(filter->minor));
}
void show_chunk_size(ProcText& out, Node& node) {
  out.number(static_cast<int>(as_snap(node).chunk_size));
}
void show_cow_bmp_fname(ProcText& out, Node& node) { out.text(as_snap(node).cow_bmp_fname); }
void show_cow_data_fname(ProcText& out, Node& node) { out.text(as_snap(node).cow_data_fname); }
void show_cow_bmp_size(ProcText& out, Node& node) { out.number64(as_snap(node).cow_bmp_size); }
void show_cow_data_size(ProcText& out, Node& node) {
  out.number64(static_cast<s64>(as_snap(node).cow_data_size));
}
void show_snap_valid(ProcText& out, Node& node) { out.number(as_snap(node).snap_valid.load()); }

constexpr ProcField kFilterFields[] = {
    {"dev_type", show_dev_type},
    {"minor", show_minor},
    {"uuid", show_uuid},
    {"name", show_name},
    {"dev_name", show_dev_name},
    {"started", show_started},
    {"use_cnt", show_use_cnt},
    {"hdd_major", show_hdd_major},
    {"hdd_minor", show_hdd_minor},
    {"hdd_name", show_hdd_name},
    {"snap_minor", show_snaps},
    {"extent_size", show_extent_size},
    {"extent_cnt", show_extent_cnt},
    {"dev_size", show_dev_size},
    {"bmp_dir", show_bmp_dir},
    {"incr_bmp_size", show_incr_bmp_size},
    {"incr_bmp_dirty", show_incr_bmp_dirty},
    {"diff_bmp_size", show_diff_bmp_size},
    {"diff_bmp_dirty", show_diff_bmp_dirty},
    {"cowqueue_len", show_cowqueue_len},
    {"snaps", show_snaps},
};

constexpr ProcField kSnapFields[] = {
    {"dev_type", show_dev_type},
    {"minor", show_minor},
    {"uuid", show_uuid},
    {"name", show_name},
    {"dev_name", show_dev_name},
    {"started", show_started},
    {"stop_pending", show_stop_pending},
    {"del_pending", show_del_pending},
    {"use_cnt", show_use_cnt},
    {"filter_minor", show_filter_minor},
    {"hdd_major", show_hdd_major},
    {"hdd_minor", show_hdd_minor},
    {"hdd_name", show_hdd_name},
    {"chunk_size", show_chunk_size},
    {"cow_bmp_fname", show_cow_bmp_fname},
    {"cow_data_fname", show_cow_data_fname},
    {"cow_bmp_size", show_cow_bmp_size},
    {"cow_data_size", show_cow_data_size},
    {"snap_valid", show_snap_valid},
};

}  // namespace

std::span<const ProcField> proc_fields(const Node& node) {
  if (node.dev_type == kFilterNode) return kFilterFields;
  return kSnapFields;
}

}  // namespace snbf
