// One command that a client of the control socket gave, while it runs on a thread of its own, and
// what it has to tell the client.
//
//   command's thread: say, progress -> lines that wait <- server's thread: takeLines
//
// Thread safety: CommandControl's calls from the command's thread, the rest from the server's.
// Invariants: 1. the last line is the result or an error, and comes once;
//             2. of progress only the newest is kept, so a slow client costs no memory.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "appliance/CommandControl.h"
#include "appliance/JsonValue.h"
#include "appliance/Result.h"
#include "common/infra/Mutex.h"

// Runs one command; as MirrorCommands::run().
using ControlHandler = std::function<Result(const std::string& command, const JsonValue& arguments,
                                            CommandControl& control, JsonValue* result)>;

// Reads a line of the protocol. WrongUsage: it is no JSON, or nested deeper than any command or
// answer is: to copy such a value takes stack for each level, and a line has room for more levels
// than a thread has stack.
Result parseControlLine(const std::string& line, JsonValue* value);

// The lines of the protocol, with their ends.
std::string controlError(const Result& result);
std::string controlLine(const JsonValue& fields);

class ControlCall : public CommandControl
{
public:
    // Starts the command. wake: called when there is something to take, from the command's thread.
    ControlCall(const ControlHandler& handler, std::string command, const JsonValue& arguments,
                std::function<void()> wake);
    // REQUIRES: isDone().
    ~ControlCall() override;
    ControlCall(const ControlCall&) = delete;
    ControlCall& operator=(const ControlCall&) = delete;

    void progress(u64 done, u64 total) override;
    bool stopRequested() override { return m_cancelled; }
    void say(const std::string& line) override;
    void detail(const std::string& line) override;

    // Asks the command to stop at its next safe point.
    void cancel() { m_cancelled = true; }

    // Whether it has come to its end, with all its lines there to be taken.
    bool isDone() const { return m_done; }

    // Appends the lines that wait. withProgress: also how far it is, if that is news.
    void takeLines(bool withProgress, std::string* lines);

private:
    void run(const ControlHandler& handler, const std::string& command, const JsonValue& arguments);
    void add(const std::string& line);

    const std::function<void()> m_wake;
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_done{false};
    Mutex m_mutex;
    std::string m_lines RL_GUARDED_BY(m_mutex);
    u64 m_progressDone RL_GUARDED_BY(m_mutex) = 0;
    u64 m_progressTotal RL_GUARDED_BY(m_mutex) = 0;
    bool m_progressIsNew RL_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};
