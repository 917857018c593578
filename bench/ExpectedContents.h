// What an index must hold after a workload's fill, worked out without any index.
//
// Thread safety: a value; one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "bench/Contender.h"
#include "bench/Workload.h"

// The blocks that the first items of a workload write.
class ExpectedContents
{
public:
    // workload: not owned; outlives this.
    explicit ExpectedContents(const Workload& workload);

    u64 coveredBlocks() const { return m_coveredBlocks; }

    // Compares the contender, which holds exactly the workload's fill: every block that is covered
    // is found, and some of them, and the last item, in the version that was written last. Answers
    // "" or what differs.
    std::string compare(Contender& contender) const;

private:
    struct Run
    {
        u64 m_startBlock;
        u64 m_endBlock;
    };

    std::string compareRuns(Contender& contender) const;
    std::string compareBlock(Contender& contender, u64 block) const;

    const Workload& m_workload;
    std::vector<Run> m_runs; // covered, ascending, with gaps between them
    u64 m_coveredBlocks = 0;
};

// A digest of what is stored, view block by view block: two indexes that answer the same have the
// same, however they cut it into regions.
class ContentsDigest
{
public:
    // Pieces that lie behind all those added before, ascending.
    void add(const Contender::Pieces& pieces);
    // Everything that the index holds below a view block.
    void add(Contender& contender, u64 viewBlocks);

    u64 value() const;

private:
    u64 m_digest = 0;
    SubRegionDescriptor m_expected{~0ULL}; // what would go on where the last piece ended
};
