// Frames: the resumable operations of a task, written as state machines.
//
//   RcStatus Reader::read(AsyncTask* task, AsyncFrame* frame)
//   {
//       FrameGuard fg(task, frame);
//       while (fg.loop()) {
//           switch (fg.getState()) {
//           case 0:
//               fg.execute(startSomething(task)); // RC_WAIT suspends the frame here
//               fg.setState(1);
//               break;
//           case 1:
//               ... fg.getRc() is the outcome of startSomething ...
//               break; // no next state: the frame ends with its status
//           }
//       }
//       return fg.getRc();
//   }
//
// The function runs for the first time where the operation is started, and again from the frame's
// callback each time the task is resumed.
#pragma once

#include "common/headers/AsyncTask.h"
#include "common/infra/Future.h"
#include "common/infra/MemShield.h"

// What a frame keeps between its runs; owned by the frame.
class FrameLocals
{
public:
    virtual ~FrameLocals() = default;
};

// One operation of a task. Made with SHIELD_NEW by who starts the operation; the guard of its last
// run deletes it, with its locals.
class AsyncFrame
{
public:
    // name: for reports; a string literal.
    explicit AsyncFrame(const char* name) : m_name(name) {}
    virtual ~AsyncFrame() { SHIELD_DELETE(m_locals); }
    AsyncFrame(const AsyncFrame&) = delete;
    AsyncFrame& operator=(const AsyncFrame&) = delete;

    // Runs the operation until it waits (RC_WAIT) or ends (its status).
    virtual RcStatus callback(AsyncTask* pAsyncTask) = 0;

    const char* getName() const { return m_name; }

    // locals: made with SHIELD_NEW; the frame takes ownership.
    void setLocals(FrameLocals* locals) { m_locals = locals; }
    FrameLocals* getLocals() const { return m_locals; }

private:
    friend class TaskRunner;
    friend class FrameGuard;

    const char* m_name;
    FrameLocals* m_locals = nullptr;
    AsyncFrame* m_below = nullptr; // the frame that waits for this one
    int m_state = 0;
    RcStatus m_rc = RC_SUCCESS;
    bool m_onStack = false;
};

// A frame that runs a member function.
template <class T> class AsyncFrameCallback : public AsyncFrame
{
public:
    using Operation = RcStatus (T::*)(AsyncTask*, AsyncFrame*);

    AsyncFrameCallback(const char* name, T* obj, Operation func)
        : AsyncFrame(name), m_obj(obj), m_pFunc(func)
    {}

    RcStatus callback(AsyncTask* pAsyncTask) override
    {
        return (m_obj->*m_pFunc)(pAsyncTask, this);
    }

private:
    T* m_obj;
    Operation m_pFunc;
};

// One run of a frame.
//
// The first guard puts the frame on top of the task's frames. A guard that is destroyed while its
// frame is not suspended takes the frame off and deletes it.
class FrameGuard
{
public:
    FrameGuard(AsyncTask* task, AsyncFrame* frame);
    ~FrameGuard();
    FrameGuard(const FrameGuard&) = delete;
    FrameGuard& operator=(const FrameGuard&) = delete;

    // True while the frame is to go on in this run: at its start, and after each step that named
    // the next state and was not suspended.
    bool loop();

    int getState() const;
    void setState(int state);

    // Records the status of a step. RC_WAIT: something will put the task back on a queue with the
    // step's status, and the frame is suspended until then.
    void execute(RcStatus rc);

    // Suspends the frame until the future is set; its value becomes the frame's status.
    // timeout: absolute monotonic milliseconds, after which the status is RC_TIMED_OUT; all ones
    // for none.
    void executeFuture(FutureStatus future, u64 timeout);

    // The frame's status: of the last step; RC_WAIT while it is suspended.
    RcStatus getRc() const;

private:
    AsyncTask* m_task;
    AsyncFrame* m_frame;
    bool m_goOn = true; // the next loop() is to answer true
};
