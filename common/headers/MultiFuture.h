// Many futures as one.
#pragma once

#include <vector>

#include "common/infra/Future.h"

class MultiFuture_Status
{
public:
    // A future that is set when all are: to RC_SUCCESS, or to the status of the first in the
    // vector that failed. An empty vector gives one that is already successful.
    static FutureStatus createMultiFuture(const std::vector<FutureStatus>& futures);
};
