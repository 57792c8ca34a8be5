// SPDX-License-Identifier: GPL-2.0-only
#include "reasons.h"

#include <utility>

#include "libsnbf.h"
#include "store.h"

namespace snbf {

std::string reason_text(const std::string& code) {
  static constexpr std::pair<const char*, const char*> kTexts[] = {
      {kWhyAsked, "it was asked for"},
      {kWhyWhole, "a program is given the whole image"},
      {kWhyFirst, "there is no earlier backup at the destination"},
      {kWhyChain, "the chain at the destination is broken"},
      {kWhyOtherChain, "the bitmap counts from a backup at another destination"},
      {kWhySize, "the partition's size is another than in the last backup"},
      {kWhyExtent, "the extent size is another than in the last backup"},
      {kWhyByHand, "the bitmap was changed by hand"},
      {kWhyCrash, "an earlier backup was cut off while it took the bitmap"},
      {LIBSNBF_WHY_MISSING, "there were no bitmap files"},
      {LIBSNBF_WHY_CORRUPT, "a bitmap file could not be read"},
      {LIBSNBF_WHY_DIRTY,
       "a bitmap file was dirty: the machine went down while the node was in use"},
      {LIBSNBF_WHY_SIZE, "a bitmap file was of another size"},
      {LIBSNBF_WHY_CHECKSUM, "a bitmap file failed its checksum"},
      {LIBSNBF_WHY_UNCLEAN, "the node was not stopped cleanly before the machine went down"},
      {LIBSNBF_WHY_OUTSIDE, "the partition was changed while it was not tracked"},
      {LIBSNBF_WHY_OTHER_NODE, "the bitmap files belong to a node of another name"},
      {LIBSNBF_WHY_OTHER_MINOR, "its bitmap files are those of another minor"},
      {LIBSNBF_WHY_ADOPTED, "the bitmap files were taken over from another partition"},
      {LIBSNBF_SNAP_UNCLEAN, "it was not stopped cleanly with its node"},
      {LIBSNBF_SNAP_RUNS, "it is started"},
      {LIBSNBF_SNAP_NODE_STARTED, "its node has been started without it"},
      {LIBSNBF_SNAP_NODE_WRITTEN, "the partition was written since"},
      {LIBSNBF_SNAP_NODE_SIZE, "the partition's size is another"},
      {LIBSNBF_SNAP_FILES, "its COW files are missing or cut"},
      {LIBSNBF_SNAP_FILES_CHANGED, "its COW files are not as they were left"},
      {LIBSNBF_SNAP_PLACE, "its COW files lie where they cannot be used"},
      {LIBSNBF_SNAP_NAME, "another node has its name"},
      {LIBSNBF_SNAP_NEWER, "a newer snap is gone that held parts of it"},
  };
  for (const auto& [known, text] : kTexts) {
    if (code == known) return text;
  }
  return code;
}

}  // namespace snbf
