// The indexes by name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bench/Contender.h"

struct ContenderKind
{
    const char* m_name;
    std::unique_ptr<Contender> (*m_make)();
    bool m_lookupsOnly = false;
    bool m_onRequest = false; // measured only where it is asked for by its name
};

// In the order of the reports; the locator comes first. Those whose library was not there when the
// build was configured are missing.
const std::vector<ContenderKind>& contenderKinds();

// Null when there is none of that name.
const ContenderKind* findContenderKind(const std::string& name);

// The locator with some of its accelerators, as the tweak t_RlAccelerators has them; holds from
// then on for every locator that the process makes.
std::unique_ptr<Contender> makeLocatorContender(u64 accelerators);
