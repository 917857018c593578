// Tells on stderr how far a long command is, and whether a signal asked it to stop.
//
//   mode     what
//   auto     a bar when stderr is a terminal, else as plain
//   plain    one line every 30 seconds
//   json     the same as one JSON object a line
//   none     nothing
//   a number that file descriptor gets "N/100" lines
//
// In every mode but none, SIGUSR1 asks for one line at once. What is told never goes back, and ends
// at 100 when the command is done.
//
// Thread safety: the thread that runs the command.
#pragma once

#include <chrono>
#include <string>

#include "appliance/FlowControl.h"
#include "appliance/Result.h"

class ProgressReporter : public FlowControl
{
public:
    // what: names the work, as in "exporting". SIGINT and SIGTERM are caught from here on.
    ProgressReporter(std::string what, const std::string& mode, bool quiet, bool color);
    ~ProgressReporter() override;
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    // Whether a --progress value is one of the modes.
    static Result checkMode(const std::string& mode);

    // What is told from now on is this part of the whole work, in percent: one bar for a command of
    // several steps.
    void setPart(unsigned fromPercent, unsigned toPercent);

    void progress(u64 done, u64 total) override;
    bool stopRequested() override;

    // The work is done: tells 100. Without it nothing more is told.
    void finish();

private:
    enum class Mode
    {
        None,
        Bar,
        Plain,
        Json,
        Descriptor,
    };
    using Clock = std::chrono::steady_clock;

    void tell(unsigned percent, bool asked);
    std::string remaining(unsigned percent) const;

    std::string m_what;
    Mode m_mode;
    bool m_color;
    int m_fd = 2;
    Clock::time_point m_started = Clock::now();
    Clock::time_point m_lastLine = Clock::now();
    unsigned m_partFrom = 0;
    unsigned m_partTo = 100;
    unsigned m_percent = 0;
    unsigned m_told = 0; // last percentage told, plus one
};
