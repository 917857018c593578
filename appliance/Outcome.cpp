#include "appliance/Outcome.h"

#include <cerrno>
#include <system_error>

Outcome Outcome::fromStatus(RcStatus rc, const std::string& what)
{
    OutcomeCode code = OutcomeCode::Failed;
    switch (rc) {
    case RC_SUCCESS: return Outcome();
    case RC_NO_SPACE: code = OutcomeCode::NoSpace; break;
    case RC_NOT_FOUND: code = OutcomeCode::NotFound; break;
    case RC_IN_USE: code = OutcomeCode::InUse; break;
    case RC_BAD_CHECKSUM:
    case RC_CORRUPTED_OBJECT:
    case RC_DAMAGED: code = OutcomeCode::Damaged; break;
    case RC_ABORTED: code = OutcomeCode::Interrupted; break;
    default: break;
    }
    return Outcome(code, what + ": " + rcStatusText(rc));
}

Outcome Outcome::fromErrno(int error, const std::string& what)
{
    OutcomeCode code = OutcomeCode::Failed;
    if (error == ENOSPC || error == EDQUOT)
        code = OutcomeCode::NoSpace;
    else if (error == ENOENT)
        code = OutcomeCode::NotFound;
    return Outcome(code, what + ": " + std::generic_category().message(error));
}
