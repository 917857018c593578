// A value that is set once, later, and told to whoever waits for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "common/infra/Assert.h"
#include "common/infra/MemShield.h"
#include "common/infra/RcStatus.h"

// Is told the value of a future. May delete itself inside update().
template <class T> class FutureObserver
{
public:
    virtual ~FutureObserver() = default;
    virtual void update(const T& value) = 0;
};

namespace FutureInternal {

// A handle to a shared state; copies refer to the same one.
//
// Thread safety: any thread may use any copy.
// Invariants: 1. the value is set exactly once (a second set() stops the process);
//             2. observers are called with the value in the order of attachment, never two at a
//                time, and without any lock of the future held.
template <class T> class Future
{
public:
    Future() : m_state(SHIELD_NEW_AS(State, "FutureState")) {}
    Future(const Future& other) : m_state(other.m_state) { m_state->retain(); }
    Future& operator=(const Future& other)
    {
        other.m_state->retain();
        m_state->release();
        m_state = other.m_state;
        return *this;
    }
    ~Future() { m_state->release(); }

    // Sets the value and calls the observers on this thread.
    void set(const T& value) const
    {
        // An observer may drop the last other handle.
        Future keep(*this);
        keep.m_state->set(value);
    }

    // Calls observer->update() with the value: at once on this thread when the value is set and
    // every earlier observer has been called, else on the thread that sets it. Not owned.
    void attach(FutureObserver<T>* observer) const
    {
        Future keep(*this);
        keep.m_state->attach(observer);
    }

    bool isSet() const { return m_state->isSet(); }

    // Sleeps until the value is set; returns it. For plain threads: a task never sleeps.
    T get() const { return m_state->get(); }

    // Sleeps at most `milliseconds`; returns whether the value is set.
    bool waitFor(u64 milliseconds) const { return m_state->waitFor(milliseconds); }

private:
    class State
    {
    public:
        void retain()
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_references;
        }

        void release()
        {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (--m_references > 0)
                    return;
            }
            SHIELD_DELETE(this);
        }

        void set(const T& value)
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            HARD_CHECK(!m_isSet);
            m_value = value;
            m_isSet = true;
            m_cond.notify_all();
            drain(lock);
        }

        void attach(FutureObserver<T>* observer)
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            // One that answers somebody else's future has two, and attaching them cannot fail for
            // want of heap.
            if (m_first == nullptr)
                m_first = observer;
            else if (m_second == nullptr && m_observers.empty())
                m_second = observer;
            else
                m_observers.push_back(observer);
            // While another call drains, it takes this observer too, in its turn.
            if (m_isSet && !m_draining)
                drain(lock);
        }

        bool isSet()
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            return m_isSet;
        }

        T get()
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_cond.wait(lock, [this] { return m_isSet; });
            return m_value;
        }

        bool waitFor(u64 milliseconds)
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            return m_cond.wait_until(
                lock, std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds),
                [this] { return m_isSet; });
        }

    private:
        void drain(std::unique_lock<std::mutex>& lock)
        {
            m_draining = true;
            // Those that are called may attach others.
            while (m_first != nullptr)
                call(takeFirst(), lock);
            m_draining = false;
        }

        // The others move up.
        FutureObserver<T>* takeFirst()
        {
            FutureObserver<T>* const first = m_first;
            m_first = std::exchange(m_second, nullptr);
            if (m_first == nullptr && !m_observers.empty()) {
                m_first = m_observers.front();
                m_observers.erase(m_observers.begin());
            }
            return first;
        }

        void call(FutureObserver<T>* observer, std::unique_lock<std::mutex>& lock)
        {
            const T value = m_value;
            lock.unlock();
            observer->update(value);
            lock.lock();
        }

        std::mutex m_mutex;
        std::condition_variable m_cond;
        u32 m_references = 1;
        bool m_isSet = false;
        bool m_draining = false;
        T m_value{};
        FutureObserver<T>* m_first = nullptr; // null: nobody waits
        FutureObserver<T>* m_second = nullptr;
        std::vector<FutureObserver<T>*> m_observers; // those behind the first two
    };

    State* m_state;
};

} // namespace FutureInternal

using FutureStatus = FutureInternal::Future<RcStatus>;

// A future that is set already.
inline FutureStatus makeSetFuture(RcStatus rc)
{
    FutureStatus future;
    future.set(rc);
    return future;
}
