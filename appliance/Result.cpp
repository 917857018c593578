#include "appliance/Result.h"

#include <cerrno>
#include <system_error>

Result Result::fromStatus(RcStatus rc, const std::string& what)
{
    ResultCode code = ResultCode::Failed;
    switch (rc) {
    case RC_SUCCESS: return Result();
    case RC_NO_SPACE: code = ResultCode::NoSpace; break;
    case RC_NOT_FOUND: code = ResultCode::NotFound; break;
    case RC_IN_USE: code = ResultCode::InUse; break;
    case RC_BAD_CHECKSUM:
    case RC_CORRUPTED_OBJECT:
    case RC_DAMAGED: code = ResultCode::Damaged; break;
    case RC_ABORTED: code = ResultCode::Interrupted; break;
    default: break;
    }
    return Result(code, what + ": " + rcStatusText(rc));
}

Result Result::fromErrno(int error, const std::string& what)
{
    ResultCode code = ResultCode::Failed;
    if (error == ENOSPC || error == EDQUOT)
        code = ResultCode::NoSpace;
    else if (error == ENOENT)
        code = ResultCode::NotFound;
    return Result(code, what + ": " + std::generic_category().message(error));
}
