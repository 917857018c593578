#include "appliance/ControlCall.h"

#include <nlohmann/json.hpp>

#include "appliance/ControlSocket.h"

namespace {

constexpr int MAX_DEPTH = 32;

} // namespace

Result parseControlLine(const std::string& line, JsonValue* value)
{
    bool tooDeep = false;
    const auto keep = [&](int depth, JsonValue::parse_event_t, JsonValue&) {
        tooDeep = tooDeep || depth > MAX_DEPTH;
        return !tooDeep;
    };
    *value = JsonValue::parse(line, keep, false);
    if (tooDeep)
        return Result::usage("the line is nested too deeply for a command");
    return value->is_discarded() ? Result::usage("the line is no JSON") : Result();
}

std::string controlLine(const JsonValue& fields)
{
    JsonValue line = {{"version", CONTROL_VERSION}};
    line.update(fields);
    return line.dump(-1, ' ', false, JsonValue::error_handler_t::replace) + "\n";
}

std::string controlError(const Result& result)
{
    return controlLine(JsonValue{{"type", "error"},
                                 {"code", static_cast<int>(result.code())},
                                 {"message", result.message()}});
}

ControlCall::ControlCall(const ControlHandler& handler, std::string command,
                         const JsonValue& arguments, std::function<void()> wake)
    : m_wake(std::move(wake))
{
    m_thread = std::thread(
        [this, handler, name = std::move(command), arguments] { run(handler, name, arguments); });
}

ControlCall::~ControlCall()
{
    m_thread.join();
}

void ControlCall::run(const ControlHandler& handler, const std::string& command,
                      const JsonValue& arguments)
{
    std::string last;
    try {
        JsonValue fields;
        const Result result = handler(command, arguments, *this, &fields);
        last = result.ok()
                   ? controlLine(JsonValue{{"type", "result"}, {"fields", std::move(fields)}})
                   : controlError(result);
    } catch (const std::exception& error) {
        last = controlError(Result::failed(std::string("unexpected: ") + error.what()));
    }
    {
        MutexGuard guard(m_mutex);
        m_progressIsNew = false;
        m_lines += last;
        m_done = true;
    }
    m_wake();
}

void ControlCall::add(const std::string& line)
{
    {
        MutexGuard guard(m_mutex);
        m_lines += line;
    }
    m_wake();
}

void ControlCall::say(const std::string& line)
{
    add(controlLine(JsonValue{{"type", "say"}, {"text", line}}));
}

void ControlCall::detail(const std::string& line)
{
    add(controlLine(JsonValue{{"type", "detail"}, {"text", line}}));
}

void ControlCall::progress(u64 done, u64 total)
{
    // The server looks for it from time to time.
    MutexGuard guard(m_mutex);
    m_progressDone = done;
    m_progressTotal = total;
    m_progressIsNew = true;
}

void ControlCall::takeLines(bool withProgress, std::string* lines)
{
    MutexGuard guard(m_mutex);
    if (withProgress && m_progressIsNew) {
        *lines += controlLine(
            JsonValue{{"type", "progress"}, {"done", m_progressDone}, {"total", m_progressTotal}});
        m_progressIsNew = false;
    }
    *lines += m_lines;
    m_lines.clear();
}
