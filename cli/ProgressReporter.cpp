#include "cli/ProgressReporter.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <csignal>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

// Set on whichever thread the signal comes to.
std::atomic<bool> g_stop{false};
std::atomic<bool> g_asked{false};
static_assert(std::atomic<bool>::is_always_lock_free, "or a handler may not touch them");

void onStop(int)
{
    g_stop = true;
}
void onAsked(int)
{
    g_asked = true;
}

void catchSignal(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    // A second Ctrl-C ends the process at once, for who cannot wait for the safe point.
    if (number != SIGUSR1)
        action.sa_flags |= static_cast<int>(SA_RESETHAND);
    sigaction(number, &action, nullptr);
}

void writeAll(int fd, const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote <= 0)
            return; // whoever asked for progress went away; the work goes on
        done += static_cast<size_t>(wrote);
    }
}

bool parseDescriptor(const std::string& mode, int* fd)
{
    const char* end = mode.data() + mode.size();
    const auto [stop, error] = std::from_chars(mode.data(), end, *fd);
    return error == std::errc() && stop == end && *fd >= 0;
}

} // namespace

Result ProgressReporter::checkMode(const std::string& mode)
{
    int fd = -1;
    if (mode == "auto" || mode == "none" || mode == "plain" || mode == "json" ||
        parseDescriptor(mode, &fd))
        return Result();
    return Result::usage("--progress takes auto, none, plain, json or a file descriptor, not '" +
                         mode + "'");
}

ProgressReporter::ProgressReporter(std::string what, const std::string& mode, bool quiet,
                                   bool color)
    : m_what(std::move(what)), m_mode(Mode::Plain), m_color(color)
{
    if (parseDescriptor(mode, &m_fd))
        m_mode = Mode::Descriptor;
    else if (mode == "none" || quiet)
        m_mode = Mode::None;
    else if (mode == "json")
        m_mode = Mode::Json;
    else if (mode == "auto" && isatty(2) != 0)
        m_mode = Mode::Bar;
    catchSignal(SIGINT, onStop);
    catchSignal(SIGTERM, onStop);
    catchSignal(SIGUSR1, onAsked);
}

ProgressReporter::~ProgressReporter()
{
    if (m_mode == Mode::Bar && m_told > 0)
        writeAll(2, "\n");
}

bool ProgressReporter::stopRequested()
{
    return g_stop;
}

void ProgressReporter::setPart(unsigned fromPercent, unsigned toPercent)
{
    m_partFrom = fromPercent;
    m_partTo = toPercent;
}

void ProgressReporter::progress(u64 done, u64 total)
{
    const double share = total == 0 ? 0 : static_cast<double>(done) / static_cast<double>(total);
    // The last percent is finish()'s.
    const double percent = m_partFrom + share * (m_partTo - m_partFrom);
    m_percent = std::max(m_percent, std::min(99u, static_cast<unsigned>(percent)));
    const bool asked = g_asked.exchange(false);
    const Clock::time_point now = Clock::now();
    const bool changed = m_told != m_percent + 1;
    const bool due = m_mode == Mode::Bar          ? changed
                     : m_mode == Mode::Descriptor ? changed
                                                  : now - m_lastLine >= std::chrono::seconds(30);
    if (asked || due) {
        m_lastLine = now;
        tell(m_percent, asked);
    }
}

void ProgressReporter::finish()
{
    m_percent = 100;
    // A short command with nobody watching a bar says nothing about its progress.
    if (m_mode == Mode::Plain && m_told == 0)
        return;
    tell(100, false);
}

std::string ProgressReporter::remaining(unsigned percent) const
{
    if (percent == 0 || percent >= 100)
        return "";
    const double passed = std::chrono::duration<double>(Clock::now() - m_started).count();
    return fmt::format(", about {:.0f} s to go", passed * (100 - percent) / percent);
}

void ProgressReporter::tell(unsigned percent, bool asked)
{
    m_told = percent + 1;
    switch (m_mode) {
    case Mode::None: break;
    case Mode::Bar: {
        const std::string full(percent / 4, '#');
        const std::string bar = m_color ? "\x1b[32m" + full + "\x1b[0m" : full;
        writeAll(2, fmt::format("\r{} [{}{}] {:3}%{}\x1b[K", m_what, bar,
                                std::string(25 - percent / 4, ' '), percent, remaining(percent)));
        if (asked)
            writeAll(2, "\n");
        break;
    }
    case Mode::Plain:
        writeAll(2, fmt::format("{}: {}%{}\n", m_what, percent, remaining(percent)));
        break;
    case Mode::Json:
        writeAll(
            2, nlohmann::ordered_json{{"type", "progress"}, {"what", m_what}, {"percent", percent}}
                       .dump() +
                   "\n");
        break;
    case Mode::Descriptor: writeAll(m_fd, fmt::format("{}/100\n", percent)); break;
    }
}
