// A locator and a block-by-block oracle of it, side by side.
//
// Every operation is made on both, and verify() compares all that can be seen: the regions of both
// maps field by field, the totals, the statistics, and the balance of tokens.
#pragma once

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "tests/support/BlockOracle.h"
#include "tests/support/FakeTaskControl.h"

class LocatorModel
{
public:
    using Write = BlockOracle::Write;
    using Regions = std::vector<SubRegionDescriptor>;

    explicit LocatorModel(u32 blocks);
    ~LocatorModel();

    // Each makes one operation on both sides and notes the first difference in problem().
    void insert(const Write& write);
    void feed(const std::vector<Write>& writes);
    void removeRange(u64 offset, u32 length);
    void feedMdOnly(u64 offset, u32 length);
    void lookup(u64 offset, u32 length);
    // Locks a range; parks when it meets a lock. REQUIRES: nothing is parked, or no lock is met.
    void lock(u64 offset, u32 length);
    // Gives back the n-th list that is held: all of it, or only its pieces from `from` to `to`.
    void unlock(size_t held, bool restore);
    void unlockSome(size_t held, size_t from, size_t to, bool restore);
    // Gives back only the middle blocks of one piece.
    void unlockPartOfPiece(size_t held, size_t piece, u32 skip, u32 length, bool restore);
    // Locks the first regions, by a limit of regions or of blocks; parks when all is locked.
    // REQUIRES: the first region fits; nothing is parked, or something is not locked.
    void getFirstRegions(u32 maxRegions) { getFirst(~u32{0}, maxRegions); }
    void getFirstBlocks(u32 maxBlocks) { getFirst(maxBlocks, ~u32{0}); }
    // What is left of one write. removeWrite REQUIRES: nothing is locked; lockAndRemove: nothing is
    // parked, or nothing of the write is locked.
    void removeWrite(const Write& write);
    void lockAndRemove(const Write& write);
    // A reservation that the pool must refuse.
    void failToFill();

    void verify();

    const BlockOracle& oracle() const { return m_oracle; }
    size_t heldLists() const { return m_held.size(); }
    const Regions& held(size_t i) const { return m_held[i]; }
    bool parked() const { return m_parked != nullptr; }
    RegionLocator& locator() { return *m_locator; }

    // Empty as long as both sides agree.
    const std::string& problem() const { return m_problem; }

private:
    struct Parked;

    void getFirst(u32 maxBlocks, u32 maxRegions);
    Regions lockFirst(u32 maxBlocks, u32 maxRegions);
    RegionLocatorVoucher* fill(int tokens);
    void require(bool condition, const std::string& what);
    void requireEqual(const Regions& expected, const Regions& actual, const std::string& what);
    void give(Regions& pieces, bool restore);
    void resumeIfFree();

    FakeTaskControl m_control;
    size_t m_wakeUps = 0; // seen so far
    BlockOracle m_oracle;
    std::unique_ptr<RegionLocator> m_locator;
    std::vector<Regions> m_held;
    std::unique_ptr<Parked> m_parked;
    std::string m_problem;
};

// Random operations on a model, all drawn from one seed.
class ModelRun
{
public:
    ModelRun(u64 seed, u32 blocks);

    // Runs that many operations, verifying after each. Returns the problem, with the seed and the
    // operation at which it showed; empty when there is none.
    std::string run(u64 operations);

    // One more number: equal for equal histories.
    u64 draw() { return m_random(); }

private:
    void step();
    BlockOracle::Write randomWrite();
    u64 below(u64 bound) { return m_random() % bound; }

    u64 m_seed;
    u32 m_blocks;
    std::mt19937_64 m_random;
    u64 m_operationsOn; // bit i: operation i is part of this run
    u64 m_nextAddress = 1;
    std::vector<BlockOracle::Write> m_recent; // writes with data, to be removed again
    LocatorModel m_model;
};
