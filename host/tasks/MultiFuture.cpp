#include "common/headers/MultiFuture.h"

#include <atomic>

namespace {

// Observes all futures of one vector; deletes itself when the last of them has been set.
class Collector
{
public:
    explicit Collector(size_t count) : m_observers(count), m_left(count)
    {
        for (Observer& observer : m_observers)
            observer.m_collector = this;
    }

    FutureStatus attachTo(const std::vector<FutureStatus>& futures)
    {
        FutureStatus result = m_result; // the last attach() may delete this
        Observer* observers = m_observers.data();
        for (size_t i = 0; i < futures.size(); ++i)
            futures[i].attach(observers + i);
        return result;
    }

private:
    class Observer : public FutureObserver<RcStatus>
    {
    public:
        void update(const RcStatus& rc) override
        {
            m_rc = rc;
            m_collector->oneIsSet();
        }
        Collector* m_collector = nullptr;
        RcStatus m_rc = RC_WAIT;
    };

    void oneIsSet()
    {
        // Each decrement hands the status written before it to the one that comes last.
        if (m_left.fetch_sub(1, std::memory_order_acq_rel) > 1)
            return;
        RcStatus rc = RC_SUCCESS;
        for (const Observer& observer : m_observers) {
            if (observer.m_rc != RC_SUCCESS) {
                rc = observer.m_rc;
                break;
            }
        }
        const FutureStatus result = m_result;
        SHIELD_DELETE(this);
        result.set(rc);
    }

    std::vector<Observer> m_observers;
    std::atomic<size_t> m_left;
    FutureStatus m_result;
};

} // namespace

FutureStatus MultiFuture_Status::createMultiFuture(const std::vector<FutureStatus>& futures)
{
    if (futures.empty())
        return makeSetFuture(RC_SUCCESS);
    Collector* collector = SHIELD_NEW(Collector, futures.size());
    return collector->attachTo(futures);
}
