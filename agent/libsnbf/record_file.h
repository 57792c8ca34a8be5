// SPDX-License-Identifier: GPL-2.0-only
// Small files of "key=value" lines between a heading and "end": whole, or not believed.
#pragma once

#include <cerrno>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace snbf::lib {

using Fields = std::vector<std::pair<const char*, std::string>>;

// New contents or the old ones after a crash, never a mixture. -EINVAL: a value has a line's end.
int write_record(const std::string& path, const char* heading, const Fields& fields);

// `take` answers false for a value that cannot be. -ENOENT: no file; -EBADMSG: not one of ours, or
// cut. Any other error is of the reading: nobody knows what it says, and it must not be written over.
int read_record(const std::string& path, const char* heading,
                const std::function<bool(const std::string& key, const std::string& value)>& take);

// Of a read: it failed, and so says nothing of the file, not even that it is damaged or not there.
inline bool is_unread(int rc) { return rc != 0 && rc != -ENOENT && rc != -EBADMSG; }

// The whole of a file; `out` may have a part of it after a failure.
int read_file(const std::string& path, std::string* out);

// New contents or the old ones after a crash, whole: written aside, synced, renamed.
int replace_file(const std::string& path, const std::string& contents);

// The directory's entries survive a crash.
int sync_directory(const std::string& path);

}  // namespace snbf::lib
