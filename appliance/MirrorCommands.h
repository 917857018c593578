// What can be asked of a mirror by name, with arguments and results as JSON: by the command line of
// the mirror that it has opened, or through a socket of the process that serves it.
//
//   command       arguments                          result
//   checkpoint    tag                                the checkpoint
//   checkpoints                                      all that can be served
//   info                                             what the mirror is and holds
//   stats         at                                 of the index of that point, which is built
//   apply-point   to, or retention                   the point, and whether it changes anything
//   apply         to, dry_run                        what was done
//   trim-point    to, or retention                   the point
//   trim          to, dry_run                        what was done
//   hold          at, name                           the hold
//   release       name
//   set           keep_checkpoints,                  what holds from now on
//                 keep_for_seconds,
//                 journal_limit_bytes
//   flush                                            all that was written before is durable
//
// The "-point" commands choose what the command itself is then told exactly, so that a person can
// be asked in between.
//
// Thread safety: any thread; commands may run at the same time.
#pragma once

#include <string>

#include "appliance/CommandArguments.h"
#include "appliance/CommandControl.h"
#include "appliance/JsonValue.h"
#include "appliance/MirrorJobs.h"
#include "appliance/ViewShelf.h"

class MirrorCommands
{
public:
    // views: those of the process that serves the mirror. They let go of points that are in the way
    // of an apply, and the indexes that commands build are within their budget. Null where there
    // are none; it outlives this.
    explicit MirrorCommands(MirrorJobs& jobs, ViewShelf* views = nullptr)
        : m_jobs(jobs), m_mirror(jobs.mirror()), m_views(views)
    {}

    // Runs one command to its end. *result: an object; meaningful when it is done. WrongUsage: no
    // such command, or its arguments are wrong; else as what the command does.
    Result run(const std::string& command, const JsonValue& arguments, CommandControl& control,
               JsonValue* result);

private:
    using Arguments = CommandArguments;

    Result checkpoint(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result checkpoints(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result info(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result stats(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result applyPoint(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result apply(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result trimPoint(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result trim(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result hold(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result release(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result set(Arguments& arguments, CommandControl& control, JsonValue* result);
    Result flush(Arguments& arguments, CommandControl& control, JsonValue* result);

    Result choose(const std::string& name, const RecoverableWindow& window, ChosenPoint* point);

    MirrorJobs& m_jobs;
    Mirror& m_mirror;
    ViewShelf* const m_views;
};
