#include "RegionLocator/RegionDescent.h"

void RegionDescent::lastAtOrBefore(const u64* offsetsBlocks, u32 count, RegionNode** found) const
{
    // Searches that still go on: where each is, what it looks for, and which one it is.
    RegionNode* nodes[MAX_LOCKSTEP];
    u64 offsets[MAX_LOCKSTEP];
    u32 searches[MAX_LOCKSTEP];
    for (u32 i = 0; i < count; ++i) {
        nodes[i] = m_root;
        offsets[i] = offsetsBlocks[i];
        searches[i] = i;
        found[i] = nullptr;
    }
    u32 going = m_root == nullptr ? 0 : count;
    while (going > 0) {
        u32 kept = 0;
        for (u32 i = 0; i < going; ++i) {
            RegionNode* const node = nodes[i];
            const u64 offset = offsets[i];
            const u32 search = searches[i];
            const uintptr_t right = startOf(node) <= offset ? ~uintptr_t{0} : 0;
            RegionNode* const next = choose(right, node->_M_right, node->_M_left);
            prefetch(next);
            found[search] = choose(right, node, found[search]);
            nodes[kept] = next;
            offsets[kept] = offset;
            searches[kept] = search;
            kept += next != nullptr ? 1 : 0;
        }
        going = kept;
    }
}

void RegionDescent::warmRange(u64 firstBlocks, u64 endBlocks) const
{
    // Down to the first node inside the range; all others inside it are below that one.
    RegionNode* top = m_root;
    while (top != nullptr) {
        const u64 start = startOf(top);
        if (start >= endBlocks)
            top = top->_M_left;
        else if (start < firstBlocks)
            top = top->_M_right;
        else
            break;
    }
    if (top == nullptr)
        return;
    constexpr u32 MOST_NODES = 512;
    RegionNode* queue[MOST_NODES];
    queue[0] = top;
    u32 queued = 1;
    const auto add = [&queue, &queued](RegionNode* node) {
        if (node == nullptr || queued == MOST_NODES)
            return;
        prefetch(node);
        queue[queued++] = node;
    };
    for (u32 next = 0; next < queued; ++next) {
        RegionNode* const node = queue[next];
        const u64 start = startOf(node);
        if (start >= firstBlocks)
            add(node->_M_left);
        if (start < endBlocks)
            add(node->_M_right);
    }
}
