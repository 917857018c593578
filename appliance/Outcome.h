// How an operation of the appliance ended: done, or a code that a program acts on with one line
// that a person reads.
//
// Thread safety: plain values.
#pragma once

#include <string>
#include <utility>

#include "common/infra/RcStatus.h"

// The numbers are the exit codes of the command-line tool.
enum class OutcomeCode : int
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

class [[nodiscard]] Outcome
{
public:
    Outcome() = default;
    // message: one line, without a full stop or line end.
    Outcome(OutcomeCode code, std::string message) : m_code(code), m_message(std::move(message)) {}

    bool ok() const { return m_code == OutcomeCode::Done; }
    OutcomeCode code() const { return m_code; }
    const std::string& message() const { return m_message; }

    static Outcome failed(std::string message)
    {
        return Outcome(OutcomeCode::Failed, std::move(message));
    }
    static Outcome usage(std::string message)
    {
        return Outcome(OutcomeCode::WrongUsage, std::move(message));
    }

    // The outcome of a host operation that answered `rc`: done for RC_SUCCESS, else the matching
    // code and "what: status".
    static Outcome fromStatus(RcStatus rc, const std::string& what);

    // The outcome of a system call that set errno to `error`.
    static Outcome fromErrno(int error, const std::string& what);

private:
    OutcomeCode m_code = OutcomeCode::Done;
    std::string m_message;
};
