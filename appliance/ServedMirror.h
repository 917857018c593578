// A mirror while a process serves it: its live volume, the views that its clients have open, and
// what they asked for.
//
//   start: mirror -> live volume (of a writer) -> services      stop: the other way round
//
// Thread safety: start() and stop() from the thread that owns it; all else from any thread between
// the two.
// Invariants: one process owns a mirror that is served for writing.
#pragma once

#include <memory>
#include <string>

#include "appliance/CheckpointTimer.h"
#include "appliance/DiffMaps.h"
#include "appliance/LiveVolume.h"
#include "appliance/Mirror.h"
#include "appliance/OpenViews.h"
#include "appliance/ServedCounters.h"
#include "appliance/ViewShelf.h"
#include "host/tasks/TaskEngine.h"

struct ServedOptions
{
    std::string m_folder;
    bool m_readOnly = false; // no live volume; takes no lock on the folder
    JournalRecovery m_recovery = JournalRecovery::Tail;
    u64 m_viewsBudgetBytes = u64{1} << 30;
    // Of the files that views and connections hold open, as ViewShelf takes it.
    FileBudget* m_files = nullptr;
    CheckpointTimer::Options m_checkpoints; // neither: clients and commands alone set them

    // Of a mirror that is served for writing:
    bool m_control = true;          // take commands through the socket in its folder
    bool m_background = true;       // apply and trim as its settings say
    u64 m_backgroundEveryMs = 5000; // between two looks at what there is to do
    u64 m_applyBytesPerSecond = 0;  // of that; 0: no limit

    std::string m_metricsFile; // empty: none
    u64 m_metricsEveryMs = 10000;
    std::string m_metricsHttp; // "127.0.0.1:9199"; empty: none
};

class ServedServices;

class ServedMirror
{
public:
    // engine: outlives it.
    ServedMirror(TaskEngine& engine, ServedOptions options);
    ~ServedMirror(); // stops
    ServedMirror(const ServedMirror&) = delete;
    ServedMirror& operator=(const ServedMirror&) = delete;

    // Opens all. As Mirror::open() and LiveVolume::open(), and Interrupted after interruptStart();
    // nothing is left open after a failure.
    Result start();

    // Ends a start() that is under way, or comes later, at its next safe point: building the index
    // of a big journal takes its time. From any thread; once start() has returned it does nothing.
    void interruptStart() { m_startInterrupted = true; }

    // Ends what is under way, and closes the mirror: all that was answered is durable after that.
    // What comes later is refused, what was begun waited for. REQUIRES: nobody uses what is open
    // any more, though it need not be closed. Failures of the journal's close.
    Result stop();

    // What a client is told whose request came too late.
    static Result ending() { return Result(ResultCode::Interrupted, "the server is ending"); }

    // For an end that clients stay connected through: answers no request any more, waits for those
    // under way, makes what was answered durable, and closes all views. From any thread; stop()
    // still comes after it where the process goes on. Failed: a request was under way at the
    // deadline (absolute monotonic milliseconds); else as the journal's flush.
    Result seal(u64 deadlineMs);

    // A request of a client, for its length; one that is not admitted came after seal() or stop().
    class Request
    {
    public:
        explicit Request(ServedMirror& served)
            : m_reader(served.m_requests), m_isAdmitted(!served.m_sealed)
        {}
        bool isAdmitted() const { return m_isAdmitted; }

    private:
        const GracePeriod::Reader m_reader;
        const bool m_isAdmitted;
    };

    const ServedOptions& options() const { return m_options; }
    TaskEngine& engine() { return m_engine; }

    // REQUIRES of these: started.
    Mirror& mirror() { return *m_mirror; }
    LiveVolume* live() { return m_live.get(); } // null when read-only
    ViewShelf& views() { return *m_views; }
    OpenViews& openViews() { return m_openViews; }
    DiffMaps& diffs() { return *m_diffs; }

    ServedCounters& counters() { return m_counters; }
    ServedServices& services() { return *m_services; }

private:
    TaskEngine& m_engine;
    const ServedOptions m_options;
    ServedCounters m_counters;
    GracePeriod m_requests; // of clients
    std::atomic<bool> m_sealed{false};
    std::atomic<bool> m_startInterrupted{false};
    std::unique_ptr<Mirror> m_mirror;
    std::unique_ptr<LiveVolume> m_live;
    std::unique_ptr<ViewShelf> m_views;
    OpenViews m_openViews;
    std::unique_ptr<DiffMaps> m_diffs;
    std::unique_ptr<ServedServices> m_services;
};
