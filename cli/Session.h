// The mirror that a command is about: through the control socket of the process that serves it, or,
// when nobody does, opened here. Whichever it is, the same commands do the same.
//
// Thread safety: the main thread only.
#pragma once

#include <memory>
#include <string>

#include "appliance/ControlClient.h"
#include "appliance/MirrorCommands.h"
#include "cli/Context.h"

class Session
{
public:
    // access: what the command needs of a mirror that nobody serves. Failed: a process serves it
    // that cannot be reached; else as Mirror::open().
    static Result open(Context& context, const std::string& folder, MirrorAccess access,
                       std::unique_ptr<Session>* session);

    // Runs a command, as MirrorCommands::run(). reporter: null for one that takes no time.
    Result run(const std::string& command, const Json& arguments, ProgressReporter* reporter,
               Json* result);

    // Makes what was changed durable, and says how that went.
    Result close();

private:
    Session(Context& context, std::string folder) : m_context(context), m_folder(std::move(folder))
    {}

    Context& m_context;
    const std::string m_folder;
    std::unique_ptr<ControlClient> m_client; // of a served mirror, until a command has been run
    std::unique_ptr<Mirror> m_mirror;        // null for a served one
    std::unique_ptr<MirrorJobs> m_jobs;
};

// Runs one command in a session of its own.
Result runCommand(Context& context, const std::string& folder, MirrorAccess access,
                  const std::string& command, const Json& arguments, ProgressReporter* reporter,
                  Json* result);
