// Where analytics parcels go.
#pragma once

#include <functional>
#include <mutex>
#include <utility>

#include "common/Analytics/AnalyticsParcel.h"
#include "common/infra/MemShield.h"
#include "common/infra/RcStatus.h"

// Thread safety: any thread.
class AnalyticsParcelSender
{
public:
    // Takes ownership of the parcel (made with SHIELD_NEW, given back with SHIELD_DELETE).
    using Sender = std::function<RcStatus(AnalyticsParcel* parcel)>;

    // Hands the parcel to the sender, which owns it from then on, and returns the sender's status.
    // Without a sender the parcel is deleted, with RC_SUCCESS.
    static RcStatus sendAnalyticsParcel(AnalyticsParcel* parcel)
    {
        Sender sender;
        {
            std::lock_guard<std::mutex> lock(s_mutex);
            sender = s_sender;
        }
        if (sender)
            return sender(parcel);
        SHIELD_DELETE(parcel);
        return RC_SUCCESS;
    }

    // Replaces the process-wide sender and returns the one before; empty for none.
    static Sender setSender(Sender sender)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        std::swap(s_sender, sender);
        return sender;
    }

private:
    static inline std::mutex s_mutex;
    static inline Sender s_sender;
};
