// How an operation of the appliance ended: done, or a code that a program acts on with one line
// that a person reads.
//
// Thread safety: plain values.
#pragma once

#include <string>
#include <utility>

#include "common/infra/RcStatus.h"

// The numbers are the exit codes of the command-line tool.
enum class ResultCode : int
{
    Done = 0,
    Failed = 1,
    WrongUsage = 2,
    DoneInPart = 3,  // the message repeats the reasons
    Differences = 4, // a comparison or verification found some
    NotFound = 10,   // no such mirror, volume or checkpoint
    InUse = 11,      // another process owns it
    Damaged = 12,    // the journal or the mirror's description is damaged
    NoSpace = 13,
    Interrupted = 130,
};

class [[nodiscard]] Result
{
public:
    Result() = default;
    // message: one line, without a full stop or line end.
    Result(ResultCode code, std::string message) : m_code(code), m_message(std::move(message)) {}

    bool ok() const { return m_code == ResultCode::Done; }
    ResultCode code() const { return m_code; }
    const std::string& message() const { return m_message; }

    static Result failed(std::string message)
    {
        return Result(ResultCode::Failed, std::move(message));
    }
    static Result usage(std::string message)
    {
        return Result(ResultCode::WrongUsage, std::move(message));
    }

    // The result of a host operation that answered `rc`: done for RC_SUCCESS, else the matching
    // code and "what: status".
    static Result fromStatus(RcStatus rc, const std::string& what);

    // The result of a system call that set errno to `error`.
    static Result fromErrno(int error, const std::string& what);

private:
    ResultCode m_code = ResultCode::Done;
    std::string m_message;
};
