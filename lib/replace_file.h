// Replaces the content of a file so that a reader, or the next start after a kill or a power cut at
// any moment, finds the old or the new content and never a part.
#pragma once

#include <string_view>

#include "lib/file.h"

// Replaces the content of `path`, creating the file (mode 0666 less the umask) when it is missing,
// and returns 0 once the new content is on the disk: a power cut afterwards does not undo it. The
// `stamp` of the file that now stands is stored unless it is null. Any other result is the errno
// value of the step that failed.
//
// The content goes to a second file ".NAME.dovmad-new" in the same folder, for which room is
// reserved and which is on the disk before it takes the name. Symbolic links are followed to their
// end: the file that they lead to is replaced, and the links stay. Mode, owner, access control list
// and the extended attributes that can be read are kept. Other hard links keep the old content.
//
// Where the folder takes no second file, or the new file can't be given the old one's properties,
// the old one is overwritten in place: a kill or a power cut in that moment can cut it short. Room
// for the content is reserved first.
//
// What stands after an error: the old content, with two exceptions. When only the sync of the
// folder failed, the new one, though a power cut may bring the old one back. When an overwriting in
// place failed half-way although its room was reserved (a disk that goes bad, a network file system
// that cannot reserve), a mixture.
//
// The path must be writable by the process even when its folder is; otherwise nothing is written.
// Two processes that replace the same file do so one after the other; EBUSY when the other one, or
// a lock that somebody holds on the file (flock), does not give way within two seconds. As long is
// waited where the process is out of descriptors.
[[nodiscard]] int replace_file(const char* path, std::string_view content,
                               file_stamp* stamp = nullptr) noexcept;
