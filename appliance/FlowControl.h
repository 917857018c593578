// What a long flow has to do with the outside while it runs: it tells how far it is and what
// it has moved, and asks whether it is to stop.
//
// Thread safety: all calls come from the thread that runs the flow.
#pragma once

#include "common/infra/Types.h"

class FlowControl
{
public:
    virtual ~FlowControl() = default;

    // done of total, in the flow's own unit; done never falls. A total of 0: not known.
    virtual void progress(u64 /*done*/, u64 /*total*/) {}

    // Bytes of data that were read, or written, since the last call. Comes before the progress that
    // was made by it.
    virtual void moved(u64 /*bytes*/) {}

    // True: stop at the next safe point, with what was acknowledged kept.
    virtual bool stopRequested() { return false; }
};
