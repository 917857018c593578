#include "cli/Session.h"

namespace {

// Hands on what a command tells.
class Talk : public CommandControl
{
public:
    Talk(const Context& context, ProgressReporter* reporter)
        : m_context(context), m_reporter(reporter)
    {}

    void progress(u64 done, u64 total) override
    {
        if (m_reporter != nullptr)
            m_reporter->progress(done, total);
    }
    bool stopRequested() override { return m_reporter != nullptr && m_reporter->stopRequested(); }
    void say(const std::string& line) override { m_context.say(line); }
    void detail(const std::string& line) override { m_context.detail(line); }

private:
    const Context& m_context;
    ProgressReporter* m_reporter;
};

} // namespace

Result Session::open(Context& context, const std::string& folder, MirrorAccess access,
                     std::unique_ptr<Session>* session)
{
    std::unique_ptr<Session> opened(new Session(context, folder));
    Result connected = ControlClient::connect(folder, &opened->m_client);
    // Beside a server that only cannot be reached, a command would change the mirror behind its
    // back or fail for a reason that says nothing.
    if (!connected.ok() && connected.code() != ResultCode::NotFound)
        return connected;
    if (!connected.ok()) {
        if (Result result = context.openMirror(folder, access, &opened->m_mirror); !result.ok())
            return result;
        opened->m_jobs = std::make_unique<MirrorJobs>(*opened->m_mirror, context.engine());
    }
    *session = std::move(opened);
    return Result();
}

Result Session::run(const std::string& command, const Json& arguments, ProgressReporter* reporter,
                    Json* result)
{
    Talk talk(m_context, reporter);
    if (m_mirror != nullptr)
        return MirrorCommands(*m_jobs).run(command, arguments, talk, result);
    // A person may have been asked since the last one, and taken their time; so each has a
    // connection of its own.
    if (m_client == nullptr) {
        if (Result connected = ControlClient::connect(m_folder, &m_client); !connected.ok())
            return Result::failed("the process that served " + m_folder + " is gone; try again");
    }
    Result done = m_client->run(command, arguments, talk, result);
    m_client.reset();
    return done;
}

Result Session::close()
{
    return m_mirror != nullptr ? m_mirror->close() : Result();
}

Result runCommand(Context& context, const std::string& folder, MirrorAccess access,
                  const std::string& command, const Json& arguments, ProgressReporter* reporter,
                  Json* result)
{
    std::unique_ptr<Session> session;
    if (Result opened = Session::open(context, folder, access, &session); !opened.ok())
        return opened;
    Result done = session->run(command, arguments, reporter, result);
    const Result closed = session->close();
    return done.ok() ? closed : done;
}
