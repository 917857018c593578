// Small files that are replaced as one step and checked when they are read: the decisions that the
// journal and the mirror must remember across a crash.
//
// A file is four bytes of crc32c and the content that it covers. It is replaced by writing NAME.new
// and renaming that. Which has to succeed on a full disk too where it is what makes room again: a
// trim gives the journal a new beginning before anything of it goes. So NAME.new can be made
// beforehand; then the two change their names, and go on doing so: replacing takes no new block and
// frees none, which a file system that is full might not give back.
//
// Thread safety: one writer at a time of a name; readers at any time see the old or the new one.
#pragma once

#include <string>
#include <vector>

#include "host/journal/Storage.h"

// Replaces a file of any content, durably: when it returns RC_SUCCESS the new content is there
// after a crash, and before that the old or the new one. folder: "" for the storage's root.
// Statuses of Storage. Uses up what reserveReplacement() made.
RcStatus replaceFile(Storage& storage, const std::string& folder, const std::string& name,
                     const void* content, size_t bytes);

// Takes the room for the next replaceFile() with at most so many bytes. RC_SUCCESS also where there
// is none to be had now: a later call may find some. A crash may take it away again.
RcStatus reserveReplacement(Storage& storage, const std::string& folder, const std::string& name,
                            size_t bytes);

// The same for a checked file, of which `bytes` is the content. Where there is one already, and the
// storage can exchange names, what was made beforehand is not used up.
RcStatus storeCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                          const void* content, size_t bytes);
RcStatus reserveCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                            size_t bytes);

// RC_NOT_FOUND: no such file; RC_DAMAGED: it is not what was stored; RC_IO_ERROR.
RcStatus loadCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                         std::vector<u8>* content);
