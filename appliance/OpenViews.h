// The views that clients of a served mirror have open. They lie here and not in the exports, as a
// server may end before its clients have closed these, or without their ever being closed.
//
// Thread safety: any thread. A view is used, and removed, by a request that was admitted
// (ServedMirror::Request); clear() comes when there is none any more.
#pragma once

#include <list>

#include "appliance/ViewShelf.h"

class OpenViews
{
public:
    using Entry = std::list<ViewShelf::Lease>::iterator;

    Entry add(ViewShelf::Lease view)
    {
        MutexGuard guard(m_mutex);
        return m_views.insert(m_views.end(), std::move(view));
    }

    void remove(Entry view)
    {
        std::list<ViewShelf::Lease> gone; // closed without the lock
        MutexGuard guard(m_mutex);
        gone.splice(gone.end(), m_views, view);
    }

    // No entry is anything any more.
    void clear()
    {
        std::list<ViewShelf::Lease> gone;
        MutexGuard guard(m_mutex);
        gone.swap(m_views);
    }

private:
    Mutex m_mutex;
    std::list<ViewShelf::Lease> m_views RL_GUARDED_BY(m_mutex);
};
