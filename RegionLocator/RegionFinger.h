// Where the last operation on a map was, for the next one that goes on from there.
//
// A sequential run asks each time for the region behind the last one. A finger finds it in a step
// or two. Where operations jump about, every look at it is in vain, so it switches itself off after
// a few misses in a row and is tried again only now and then.
#pragma once

#include "RegionLocator/RegionNodes.h"

// Thread safety: none; the owning locator's mutex guards it.
// Invariants: holds a node of the map or null.
class RegionFinger
{
public:
    // The node to try; null when there is none, or while the finger is off.
    RegionNode* get()
    {
        if (m_rest == 0)
            return m_node;
        --m_rest;
        return nullptr;
    }

    // What get() returned was near, or was not.
    void hit() { m_misses = 0; }
    void missed()
    {
        if (++m_misses < MISSES_IN_A_ROW)
            return;
        m_misses = MISSES_IN_A_ROW - 1; // the next trial counts for all
        m_rest = REST_OPERATIONS;
    }

    bool isOff() const { return m_rest != 0; }

    void set(RegionNode* node) { m_node = node; }
    void forget(RegionNode* node)
    {
        if (m_node == node)
            m_node = nullptr;
    }
    void forgetAll() { m_node = nullptr; }

private:
    static constexpr u32 MISSES_IN_A_ROW = 8;
    static constexpr u32 REST_OPERATIONS = 64;

    RegionNode* m_node = nullptr;
    u32 m_misses = 0;
    u32 m_rest = 0;
};
