// Where a file may be written to: what a mistyped name must not cost.
//
// Thread safety: pure functions.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "common/infra/Types.h"

// WrongUsage: the path lies in the folder of a mirror, whose files nobody but the mirror may
// replace; or it is `target`, the volume that a mirror stands on (empty for none). "-" may always
// be written to. What cannot be looked at is left to who opens it.
Result checkOutputPath(const std::string& path, const std::string& target);

// Failed: there is a regular file of another size, so it is not an image that was made before of
// the same volume. An empty one holds nothing to lose.
Result checkReplaceableImage(const std::string& path, u64 sizeBytes);
