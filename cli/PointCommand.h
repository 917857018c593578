// The commands that move a mirror on to a point in time, after which nothing before it can be had:
// `apply` and `trim`.
//
// Thread safety: the main thread only.
#pragma once

#include <string>

#include "cli/Context.h"

struct PointArguments
{
    std::string m_mirror;
    std::string m_to;
    bool m_retention = false;
    bool m_dryRun = false;
    bool m_yes = false;
};

struct PointCommand
{
    const char* m_name;     // with "-point" behind it: the command that only finds the point
    const char* m_activity; // what the progress shows
    // What is lost by it, for a point as the command that finds it answers; empty: nothing.
    std::string (*m_loss)(const Json& point);
};

// The help texts of the options that differ.
struct PointOptionTexts
{
    const char* m_to;
    const char* m_retention;
    const char* m_dryRun;
};

// Adds MIRROR, --to, --retention, --dry-run and --yes to a command.
void addPointOptions(CLI::App* command, PointArguments* arguments, const PointOptionTexts& texts);

// Finds the point, asks when something would be lost, and goes there; in a dry run nothing is asked
// or changed. *done: what the command answered. Its result, or what kept it from being durable.
Result runToPoint(Context& context, const PointArguments& arguments, const PointCommand& command,
                  Json* done);
