#include "bench/Contenders.h"

#include "bench/peers/Peers.h"

const std::vector<ContenderKind>& contenderKinds()
{
    static const auto* const KINDS = new std::vector<ContenderKind>{
        {"ours", makeLocatorContender}, {"ours-plain", makePlainLocatorContender},
#ifdef RL_BENCH_ABSL
        {"absl", makeAbslContender},
#endif
#ifdef RL_BENCH_ICL
        {"icl", makeIclContender},
#endif
#ifdef RL_BENCH_LLVM
        {"llvm", makeLlvmContender},
#endif
        {"map", makeMapContender},      {"ideal", makeIdealContender, true},
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
