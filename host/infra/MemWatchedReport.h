// What the watched containers of the process hold.
#pragma once

#include <string>
#include <vector>

#include "common/infra/Types.h"

// All containers of one name.
struct MemWatchedGroup
{
    std::string m_name;
    u64 m_containers;
    u64 m_items;
    u64 m_sizeBytes; // items and overheads, as the containers state them
};

// Sums up the registered containers by name, in the order of the names. Asks each container while
// none can be unregistered; see getItemCount() on who may change a container meanwhile.
std::vector<MemWatchedGroup> memWatchedReport();

// Writes the report to the log, one record a name.
void logMemWatchedReport();
