#include "bench/Contenders.h"

#include "bench/peers/Peers.h"

namespace {

// The bits of t_RlAccelerators.
constexpr u64 DIRECTORY = 1;
constexpr u64 FINGER = 2;
constexpr u64 DESCENT = 4;
constexpr u64 SCANS = 8;
constexpr u64 LOCKS = 16;
constexpr u64 ALL = DIRECTORY | FINGER | DESCENT | SCANS | LOCKS;

template <u64 ACCELERATORS> std::unique_ptr<Contender> make()
{
    return makeLocatorContender(ACCELERATORS);
}

} // namespace

const std::vector<ContenderKind>& contenderKinds()
{
    static const auto* const KINDS = new std::vector<ContenderKind>{
        {"ours", make<ALL>},
        {"ours-no-directory", make<ALL - DIRECTORY>, false, true},
        {"ours-no-finger", make<ALL - FINGER>, false, true},
        {"ours-no-descent", make<ALL - DESCENT>, false, true},
        {"ours-no-batch", make<ALL - SCANS>, false, true},
        {"ours-no-inplace", make<ALL - LOCKS>, false, true},
        {"ours-plain", make<0>},
#ifdef RL_BENCH_ABSL
        {"absl", makeAbslContender},
#endif
#ifdef RL_BENCH_ICL
        {"icl", makeIclContender},
#endif
#ifdef RL_BENCH_LLVM
        {"llvm", makeLlvmContender},
#endif
        {"map", makeMapContender},
        {"ideal", makeIdealContender, true},
    };
    return *KINDS;
}

const ContenderKind* findContenderKind(const std::string& name)
{
    for (const ContenderKind& kind : contenderKinds())
        if (kind.m_name == name)
            return &kind;
    return nullptr;
}
