// Small files that are replaced as one step and checked when they are read: the decisions that the
// journal and the mirror must remember across a crash.
//
// A file is four bytes of crc32c and the content that it covers.
//
// Thread safety: one writer at a time of a name; readers at any time see the old or the new one.
#pragma once

#include <string>
#include <vector>

#include "host/journal/Storage.h"

// Replaces the file, durably: when it returns RC_SUCCESS the new content is there after a crash,
// and before that the old or the new one. folder: "" for the storage's root. Statuses of Storage.
RcStatus storeCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                          const void* content, size_t bytes);

// RC_NOT_FOUND: no such file; RC_DAMAGED: it is not what was stored; RC_IO_ERROR.
RcStatus loadCheckedFile(Storage& storage, const std::string& folder, const std::string& name,
                         std::vector<u8>* content);
