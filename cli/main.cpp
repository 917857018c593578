// rlctl: captures, records and reads back mirrors from the command line.

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

#include "cli/Commands.h"

namespace {

constexpr const char* VERSION = "0.1.0";

// A file that is opened takes the lowest number that is free: with a standard descriptor closed
// that would be a file of the mirror, and what is meant for people would be written over its
// content. So the number is taken before, by one that refuses as a closed one does.
void takeStandardDescriptors()
{
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
        if (fcntl(number, F_GETFD) >= 0)
            continue;
        const int flags = number == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (open("/dev/null", flags) != number)
            std::_Exit(EXIT_FAILURE);
    }
}

bool wantsJson(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0)
            return true;
    }
    return false;
}

int runMain(int argc, char** argv)
{
    CLI::App app("rlctl: every moment of a protected volume, read back", "rlctl");
    Context context;
    app.set_version_flag("--version", std::string("rlctl ") + VERSION);
    app.require_subcommand(1);
    app.footer("Sizes: 512, 64K, 1MiB, 2s (sectors). Points in time: latest, cp:ID, tag:NAME,\n"
               "time:RFC3339, item:N. Each command has its own --help.\n\n"
               "Examples:\n  rlctl create backup.mirror --size 40G\n"
               "  rlctl checkpoints backup.mirror --json");
    addCreate(app, context);
    addCapture(app, context);
    addRecord(app, context);
    addCheckpoint(app, context);
    addCheckpoints(app, context);
    addInfo(app, context);
    addStats(app, context);
    addLookup(app, context);
    addRead(app, context);
    addExport(app, context);
    addDiff(app, context);
    addHistory(app, context);
    addBackup(app, context);
    addRestore(app, context);
    addSet(app, context);
    addHold(app, context);
    addRelease(app, context);
    addApply(app, context);
    addTrim(app, context);
    addServe(app, context);
    addVerify(app, context);
    addEvents(app, context);
    addCompletion(app, context);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version come this way too, with the code 0.
        if (error.get_exit_code() == 0)
            return app.exit(error);
        context.options().m_json = wantsJson(argc, argv);
        return context.tell(Result::usage(std::string(error.what()) + "; see rlctl --help"));
    }
    return context.run();
}

} // namespace

int main(int argc, char** argv)
{
    takeStandardDescriptors();
    // A file that may not grow is told of as a full disk is, and nobody is killed for it.
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        return runMain(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "rlctl: unexpected: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "rlctl: unexpected failure" << std::endl;
    }
    return 1;
}
