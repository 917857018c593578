// A control checkpoint.
#pragma once

#include "Sfs/SfsDiskMetaItem.h"

struct CtrlCp
{
    CtrlCp(CpId_t id, u64 timestamp) : m_id(id), m_timestamp(timestamp) {}

    CpId_t m_id;
    u64 m_timestamp; // microseconds since 1970 in UTC
};
