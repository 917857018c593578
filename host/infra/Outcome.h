// A status with a line for people, where a status alone would not say what to do.
#pragma once

#include <string>
#include <utility>

#include "common/infra/RcStatus.h"

// A plain value. The message is empty on success, and says which file or value was wrong and why
// otherwise; it carries no line end.
struct Outcome
{
    Outcome() = default;
    Outcome(RcStatus rc, std::string message) : m_rc(rc), m_message(std::move(message)) {}

    bool ok() const { return m_rc == RC_SUCCESS; }

    RcStatus m_rc = RC_SUCCESS;
    std::string m_message;
};
