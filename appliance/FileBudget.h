// How many files those may have open, all together, whose number clients decide on: each connection
// has a socket, and each view a file that tells other processes of it. What the process needs for
// itself is not counted here, and so is never used up by these.
//
// Thread safety: any thread.
// Invariants: no more than `most` are taken.
#pragma once

#include <atomic>

#include "common/infra/Types.h"

class FileBudget
{
public:
    explicit FileBudget(u64 most) : m_most(most) {}
    FileBudget(const FileBudget&) = delete;
    FileBudget& operator=(const FileBudget&) = delete;

    u64 most() const { return m_most.load(std::memory_order_relaxed); }
    u64 taken() const { return m_taken.load(std::memory_order_relaxed); }

    // From now on; what is taken beyond it stays taken.
    void setMost(u64 most) { m_most.store(most, std::memory_order_relaxed); }

    // Some files of a budget, until they are given back or this is destroyed; none at first.
    class Share
    {
    public:
        Share() = default;
        ~Share() { keep(0); }
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;

        // REQUIRES: has none. False: there are not as many left, and it has none still. budget:
        // outlives the share; null: there is no limit.
        bool take(FileBudget* budget, u64 files)
        {
            if (budget != nullptr && !budget->take(files))
                return false;
            m_budget = budget;
            m_files = files;
            return true;
        }

        // Gives back all but so many. REQUIRES: has at least these.
        void keep(u64 files)
        {
            if (m_budget != nullptr)
                m_budget->m_taken.fetch_sub(m_files - files, std::memory_order_relaxed);
            m_files = files;
        }

    private:
        FileBudget* m_budget = nullptr;
        u64 m_files = 0;
    };

private:
    bool take(u64 files)
    {
        u64 taken = m_taken.load(std::memory_order_relaxed);
        do {
            const u64 most = m_most.load(std::memory_order_relaxed);
            if (files > most || taken > most - files)
                return false;
        } while (!m_taken.compare_exchange_weak(taken, taken + files, std::memory_order_relaxed));
        return true;
    }

    std::atomic<u64> m_most;
    std::atomic<u64> m_taken{0};
};
