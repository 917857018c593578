// Wakes a sanitizer's runtime before any other library of a process that it was preloaded into.
//
// The runtime wakes at the first allocation. In nbdkit that is a locale which one of the libraries
// makes in its constructor: the C library holds its lock of locales then, the runtime looks for a
// symbol that is not there, and the message about that, which may be one to translate, takes and
// gives back the same lock. From then on the lock counts one reader too few; once a message has
// been asked for, whoever frees a locale waits for ever, as that library does in its destructor
// when the process ends. So the first allocation is made here, in a library that is linked to be
// initialised first (-z initfirst).

#include <cstdlib>

__attribute__((constructor)) static void wakeRuntime()
{
    void* volatile first = std::malloc(1);
    std::free(first);
}
