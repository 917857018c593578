// What every command of rlctl has in common: the options that all of them take, where results and
// talk go, and how an ending becomes an exit code.
//
// stdout is the result and nothing else; stderr is talk. Thread safety: the main thread only.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "appliance/Mirror.h"
#include "appliance/Result.h"
#include "appliance/View.h"
#include "cli/ProgressReporter.h"
#include "host/Host.h"

using Json = nlohmann::ordered_json;

struct CommonOptions
{
    bool m_json = false;
    bool m_quiet = false;
    bool m_verbose = false;
    bool m_noColor = false;
    std::string m_progress = "auto";
    std::string m_logFormat = "text";
    std::string m_logFile;
    std::string m_logLevel;
    std::string m_recovery = "tail";
    std::vector<std::string> m_tweaks;
    std::string m_tweaksFile;
    std::string m_events;
    std::string m_memoryLimit;
};

class Context
{
public:
    CommonOptions& options() { return m_options; }

    // The command that was chosen; set by its callback while the command line is read, run after.
    void setAction(std::function<Result()> action) { m_action = std::move(action); }

    // The event log is written by a process that the command starts, and not by this one.
    void passEventsOn() { m_eventsArePassedOn = true; }

    // Starts the host as the common options say, and runs the chosen command. Returns the exit
    // code; the error, if any, has been told.
    int run();

    TaskEngine& engine() { return m_host.getEngine(); }

    // Opens a mirror, and tells what recovery found.
    Result openMirror(const std::string& folder, MirrorAccess access,
                      std::unique_ptr<Mirror>* mirror);
    // Chooses a point by its name, tells it, and builds its view.
    Result openView(Mirror& mirror, const std::string& at, ProgressReporter& reporter,
                    std::unique_ptr<View>* view);
    // A reporter as the options want it; `what` as in "exporting".
    std::unique_ptr<ProgressReporter> progress(const std::string& what) const;

    // Writes a result to stdout: as it is, or one JSON object with "schema": 1 in front.
    void result(const std::string& text) const;
    void result(const Json& fields) const;
    bool json() const { return m_options.m_json; }

    // One line of talk, unless --quiet; detail() only with --verbose.
    void say(const std::string& line) const;
    void detail(const std::string& line) const;

    // Tells an error on stderr and returns its exit code; the code of "done" tells nothing.
    int tell(const Result& result) const;

private:
    void flushServed(const std::string& folder) const;
    Result startHost();
    Result applyTweaks();
    bool color() const;

    CommonOptions m_options;
    std::function<Result()> m_action;
    bool m_eventsArePassedOn = false;
    std::string m_leftOut; // what salvage left out of a result; empty for nothing
    Host m_host;
};

// Makes a command: its description, two examples below its help, and the common options.
CLI::App* addCommand(CLI::App& app, Context& context, const std::string& name,
                     const std::string& description, const std::string& firstExample,
                     const std::string& secondExample);
