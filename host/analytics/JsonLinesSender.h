// Analytics parcels as JSON lines in a file.
#pragma once

#include <string>

#include "common/Analytics/AnalyticsParcelSender.h"
#include "host/infra/Outcome.h"

// Appends one object a parcel: "schema", "time" (RFC 3339), "event", "category", "account",
// "priority", and "entries" with every entry by its key.
// Thread safety: any thread; one sender in a process at a time.
class JsonLinesSender
{
public:
    // Makes the file, which is kept when it exists, where parcels go. RC_IO_ERROR, RC_IN_USE:
    // nothing has changed. A parcel that cannot be written is answered with RC_IO_ERROR.
    static Outcome open(const std::string& path);

    // Closes the file and brings the sender from before back.
    static void close();

    // The line without its end.
    static std::string format(const AnalyticsParcel& parcel);
};
