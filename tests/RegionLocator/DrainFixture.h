// What the tests of get-first, of exact removal and of their waiters have in common.
#pragma once

#include "tests/RegionLocator/LocatorFixture.h"

class DrainFixture : public LocatorFixture
{
protected:
    std::string punchOutText(const std::string& count, const CountedRegionMap* map)
    {
        return " a_regions.size()=" + count + " a_regionMap=" + address(map);
    }
    // Whether the record is a verbose line of the locator's.
    testing::AssertionResult isTrace(const LogRecord& record, const std::string& signature,
                                     const std::string& text)
    {
        return isRecord(record, LogModuleXel, InfoLevel, 0, signature, prefix() + text);
    }
};
