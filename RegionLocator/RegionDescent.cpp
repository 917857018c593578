#include "RegionLocator/RegionDescent.h"

#include <cstddef>

namespace {

// A node's two children lie side by side, so the way is a place in memory: nothing has to be
// chosen.
constexpr size_t LEFT_BYTES = offsetof(std::_Rb_tree_node_base, _M_left);
static_assert(offsetof(std::_Rb_tree_node_base, _M_right) == LEFT_BYTES + sizeof(RegionNode*));

inline RegionNode* childOf(RegionNode* node, size_t right)
{
    const auto* const bytes = reinterpret_cast<const std::byte*>(node);
    return *reinterpret_cast<RegionNode* const*>(bytes + LEFT_BYTES + right * sizeof(RegionNode*));
}

// Fewer searches end sooner than the levels have been counted.
constexpr u32 FEW = 8;

// Levels of the tree that have all their nodes: no way down has fewer nodes than the leftmost one
// has black ones.
u32 fullLevels(RegionNode* root)
{
    u32 levels = 0;
    for (RegionNode* node = root; node != nullptr; node = node->_M_left)
        levels += node->_M_color == std::_S_black ? 1 : 0;
    return levels;
}

} // namespace

void RegionDescent::lastAtOrBefore(const u64* offsetsBlocks, u32 count, RegionNode** found) const
{
    // Where each search is, and the last nodes from which it went left and right: the latter is
    // what it finds.
    RegionNode* nodes[MAX_LOCKSTEP];
    RegionNode* last[MAX_LOCKSTEP][2];
    for (u32 i = 0; i < count; ++i) {
        nodes[i] = m_root;
        last[i][1] = nullptr;
    }
    for (u32 level = count < FEW ? 0 : fullLevels(m_root); level > 0; --level) {
        for (u32 i = 0; i < count; ++i) {
            RegionNode* const node = nodes[i];
            const size_t right = startOf(node) <= offsetsBlocks[i] ? 1 : 0;
            RegionNode* const next = childOf(node, right);
            prefetch(next);
            last[i][right] = node;
            nodes[i] = next;
        }
    }
    // From here on they end one after the other: those that go on, and which each is.
    u32 searches[MAX_LOCKSTEP];
    u32 going = 0;
    for (u32 i = 0; i < count; ++i) {
        searches[going] = i;
        nodes[going] = nodes[i];
        going += nodes[going] != nullptr ? 1 : 0;
    }
    while (going > 0) {
        u32 kept = 0;
        for (u32 i = 0; i < going; ++i) {
            RegionNode* const node = nodes[i];
            const u32 search = searches[i];
            const size_t right = startOf(node) <= offsetsBlocks[search] ? 1 : 0;
            RegionNode* const next = childOf(node, right);
            prefetch(next);
            last[search][right] = node;
            nodes[kept] = next;
            searches[kept] = search;
            kept += next != nullptr ? 1 : 0;
        }
        going = kept;
    }
    for (u32 i = 0; i < count; ++i)
        found[i] = last[i][1];
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
