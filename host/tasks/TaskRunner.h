// The engine's hands on a task: its place in a queue, its state, its frames.
//
// The state says where the engine has the task, and settles the race between the completion of an
// operation and the call that answered RC_WAIT for it:
//
//   state                | completed()                     | the run comes back with RC_WAIT
//   Idle                 | Queued: goes on a queue         | cannot be
//   Running              | RunningAndEnqueued: remembered  | Idle: parked
//   RunningAndEnqueued   | a second completion: a defect   | Queued: goes on a queue
//   Queued               | a second completion: a defect   | cannot be
#pragma once

#include "common/headers/AsyncFrame.h"
#include "common/headers/AsyncTask.h"

// Thread safety: run() on the one thread that took the task from a queue; completed() on any.
class TaskRunner
{
public:
    enum RunResult
    {
        Parked,  // it waits; not to be touched any more, for it may run elsewhere already
        Ready,   // it waited, and the operation has completed: to be put on a queue
        Finished // *outcome is set; it is as if never started, and is to be told
    };

    // Makes an idle task ready for its first run.
    static void begin(AsyncTask* task);

    // Takes the outcome of the operation that the task waits for. True: the task is to be put on a
    // queue; false: the thread that runs it does so.
    static bool completed(AsyncTask* task, RcStatus rc);

    // Runs a ready task until it waits or ends: its body the first time, later its frames from the
    // top down, each with the status of the one above.
    static RunResult run(AsyncTask* task, RcStatus* outcome);

    static void tellFinished(AsyncTask* task, RcStatus outcome) { task->finished(outcome); }

    // The link of the ready queue that holds the task.
    static AsyncTask*& nextReady(AsyncTask* task) { return task->m_nextReady; }

private:
    static RcStatus runFrames(AsyncTask* task, RcStatus rc);
};
