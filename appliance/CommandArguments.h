// The arguments of a command, taken out of a JSON object that anybody may have written.
//
// A missing argument has its default; one of another type is a fault, and the first fault is
// remembered.
//
// Thread safety: one thread.
#pragma once

#include <optional>
#include <string>

#include "appliance/JsonValue.h"
#include "appliance/Result.h"
#include "common/infra/Types.h"

class CommandArguments
{
public:
    // json: outlives this object; null stands for no arguments.
    explicit CommandArguments(const JsonValue& json);

    std::string text(const char* name, const std::string& otherwise = "");
    bool flag(const char* name);
    std::optional<u64> number(const char* name);

    // WrongUsage: what the first fault was.
    const Result& fault() const { return m_fault; }

private:
    const JsonValue* find(const char* name) const;
    void blame(const char* name, const char* wanted);

    const JsonValue& m_json;
    Result m_fault;
};
