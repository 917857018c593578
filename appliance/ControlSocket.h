// The Unix socket "control" in a mirror's folder, through which the process that serves the mirror
// takes commands.
//
//   to the server     {"version": 1, "command": "apply", "arguments": {...}}
//                     {"version": 1, "command": "cancel"}
//   from the server   {"version": 1, "type": "accepted"}
//                     {"version": 1, "type": "progress", "done": N, "total": N}
//                     {"version": 1, "type": "say" or "detail", "text": "..."}
//                     {"version": 1, "type": "result", "fields": {...}}
//                     {"version": 1, "type": "error", "code": N, "message": "..."}
//
// One JSON object a line. A connection takes one command after another; each is answered by
// "accepted", any number of "progress", "say" and "detail", and in the end "result" or "error".
//
// Thread safety: pure functions.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "common/infra/Types.h"

constexpr u64 CONTROL_VERSION = 1;
constexpr const char* CONTROL_SOCKET_NAME = "control";

// Listens on the folder's socket, which only the owner may open; one that a dead process has left
// is replaced. REQUIRES: nobody else serves the mirror. *fd: non-blocking, the caller's.
Result listenOnControl(const std::string& folder, int* fd);

// Connects. NotFound: nobody listens there. *fd: blocking, the caller's.
Result connectToControl(const std::string& folder, int* fd);

// Takes the socket's name away from the folder that a descriptor is of, whatever its path is by
// now. Failures are of no matter: the next server replaces it.
void removeControl(int folderFd);
