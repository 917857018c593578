// The ready queues of the asynchronous engine, one control object a priority.
#pragma once

#include "common/headers/AsyncTask.h"

struct AsyncTaskQueue
{
    enum AsyncTaskQueueID : u32
    {
        ASYNC_TASK_Q_ID__RDY_DATA = 0,    // tasks that start
        ASYNC_TASK_Q_ID__RDY_CONTROL = 1, // tasks that go on; served first
    };
};

// Thread safety: any thread.
class AsyncTaskControl
{
public:
    virtual ~AsyncTaskControl() = default;

    // Puts a parked task on the queue; it goes on with `status` as the outcome of the operation
    // that answered RC_WAIT. The task may still be on its way back from that operation. Allocates
    // nothing. Not owned.
    virtual void enqueueToReadyQueue(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue,
                                     RcStatus status) = 0;
};

class AsyncTaskControlPriority
{
public:
    // The control object of that priority. REQUIRES: an engine is running, or setControl() has
    // named one.
    static AsyncTaskControl* getControl(AsyncTaskPriority priority);

    // Names the control object of a priority and returns the one before (null for none). Not owned.
    static AsyncTaskControl* setControl(AsyncTaskPriority priority, AsyncTaskControl* control);
};
