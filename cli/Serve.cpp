// rlctl serve

#include <filesystem>
#include <sys/un.h>

#include "appliance/CheckpointTimer.h"
#include "appliance/HostPort.h"
#include "appliance/Mirror.h"
#include "appliance/MirrorSettings.h"
#include "appliance/Retention.h"
#include "appliance/Sizes.h"
#include "cli/Commands.h"
#include "cli/ServeAddress.h"
#include "cli/ServeProcess.h"
#include "host/journal/FileStorage.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* PLUGIN = "nbdkit-rl-plugin.so";
// Of the socket in a mirror's folder.
constexpr const char* SOCKET = "nbd";
// What the server may take beyond the time that it gives itself.
constexpr u64 MARGIN_SECONDS = 3;

struct ServeArguments
{
    std::string m_mirror;
    std::string m_socket;
    std::string m_tcp;
    bool m_readOnly = false;
    std::vector<std::string> m_checkpointEvery;
    std::string m_viewsBudget;
    std::string m_applyRate;
    std::string m_metrics;
    std::string m_metricsHttp;
    std::string m_stopTimeout = "10s";
    u64 m_connections = 32;
    std::vector<std::string> m_nbdkit;
};

// Beside this program where it was built, else where nbdkit has its plugins.
Result findPlugin(std::string* path)
{
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    const fs::path built = self.parent_path().parent_path() / "nbd" / PLUGIN;
    if (!error && fs::exists(built, error)) {
        *path = built.string();
        return Result();
    }
    const fs::path installed = fs::path(RL_NBDKIT_PLUGIN_DIR) / PLUGIN;
    if (installed.is_absolute() && fs::exists(installed, error)) {
        *path = installed.string();
        return Result();
    }
    return Result::failed(std::string("cannot find ") + PLUGIN + ", neither at " + built.string() +
                          " nor at " + installed.string());
}

Result addressOf(const ServeArguments& arguments, ServeAddress* address)
{
    if (arguments.m_tcp.empty()) {
        address->m_socket =
            fs::absolute(arguments.m_socket.empty() ? fs::path(arguments.m_mirror) / SOCKET
                                                    : fs::path(arguments.m_socket))
                .lexically_normal()
                .string();
        // A longer one could be listened on by a detour, but clients would have to know that too.
        constexpr size_t MOST_BYTES = sizeof(sockaddr_un::sun_path) - 1;
        if (address->m_socket.size() > MOST_BYTES)
            return Result::usage("the socket's path has " +
                                 std::to_string(address->m_socket.size()) +
                                 " bytes, and clients can take " + std::to_string(MOST_BYTES) +
                                 ": " + address->m_socket +
                                 "; give a shorter one with --socket PATH, or --tcp ADDRESS:PORT");
        return Result();
    }
    const size_t colon = arguments.m_tcp.rfind(':');
    if (!arguments.m_socket.empty())
        return Result::usage("--socket and --tcp exclude each other");
    if (colon == std::string::npos || colon == 0 || colon + 1 == arguments.m_tcp.size())
        return Result::usage("--tcp takes ADDRESS:PORT, as 127.0.0.1:10809");
    address->m_host = arguments.m_tcp.substr(0, colon);
    if (address->m_host.front() == '[' && address->m_host.back() == ']')
        address->m_host = address->m_host.substr(1, address->m_host.size() - 2);
    address->m_port = arguments.m_tcp.substr(colon + 1);
    // Any port that is free, as 0 means, would be told to nobody; larger ones would be cut off.
    // What is no number is a service's name.
    const std::string& port = address->m_port;
    const bool isNumber = port.find_first_not_of("0123456789") == std::string::npos;
    if (isNumber && (port.size() > 5 || std::stoul("0" + port) == 0 || std::stoul(port) > 65535))
        return Result::usage("--tcp takes a port from 1 to 65535, not '" + address->m_port + "'");
    return Result();
}

// Told here, with codes of their own, rather than by the server.
Result checkMirror(const ServeArguments& arguments)
{
    FileStorage storage(arguments.m_mirror);
    MirrorSettings settings;
    if (Result result = loadSettings(storage, arguments.m_mirror, &settings); !result.ok())
        return result;
    return arguments.m_readOnly ? Result() : Mirror::checkUnused(arguments.m_mirror);
}

Result commandLine(Context& context, const ServeArguments& arguments, const ServeAddress& address,
                   std::vector<std::string>* line)
{
    std::string plugin;
    if (Result result = findPlugin(&plugin); !result.ok())
        return result;
    *line = {"nbdkit", "--foreground", "--exit-with-parent"};
    if (context.options().m_verbose)
        line->emplace_back("--verbose");
    if (!address.m_socket.empty())
        line->insert(line->end(), {"--unix", address.m_socket});
    else
        line->insert(line->end(), {"--ipaddr", address.m_host, "--port", address.m_port});
    // With several workers on one connection the server aborts when a client vanishes while one of
    // them has an answer to send (seen with nbdkit 1.32.5 and any plugin). Connections run beside
    // each other all the same.
    line->insert(line->end(), {"--threads", "1"});
    // Each connection may keep a buffer as large as the largest request.
    line->emplace_back("--filter=limit");
    line->insert(line->end(), arguments.m_nbdkit.begin(), arguments.m_nbdkit.end());
    line->push_back(plugin);
    line->push_back("limit=" + std::to_string(arguments.m_connections));
    const auto pass = [&](const char* key, const std::string& value) {
        if (!value.empty())
            line->push_back(std::string(key) + "=" + value);
    };
    const auto passPath = [&](const char* key, const std::string& value) {
        pass(key, value.empty() ? "" : fs::absolute(value).string());
    };
    passPath("mirror", arguments.m_mirror);
    pass("readonly", arguments.m_readOnly ? "true" : "");
    pass("recovery", context.options().m_recovery);
    for (const std::string& every : arguments.m_checkpointEvery)
        pass("checkpoint-every", every);
    pass("views-budget", arguments.m_viewsBudget);
    pass("memory-limit", context.options().m_memoryLimit);
    pass("apply-rate", arguments.m_applyRate);
    passPath("metrics", arguments.m_metrics);
    pass("metrics-http", arguments.m_metricsHttp);
    pass("stop-timeout", arguments.m_stopTimeout);
    passPath("log-file", context.options().m_logFile);
    pass("log-format", context.options().m_logFormat.empty() && context.json()
                           ? "json"
                           : context.options().m_logFormat);
    pass("log-level", context.options().m_logLevel);
    passPath("events", context.options().m_events);
    passPath("tweaks-file", context.options().m_tweaksFile);
    for (const std::string& tweak : context.options().m_tweaks)
        pass("tweak", tweak);
    return Result();
}

// What the server would refuse too, but in words of its own and with no code of ours.
Result checkOptions(const ServeArguments& arguments)
{
    CheckpointTimer::Options checkpoints;
    for (const std::string& every : arguments.m_checkpointEvery) {
        if (Result result = checkpoints.add(every); !result.ok())
            return result;
    }
    if (arguments.m_readOnly && !arguments.m_checkpointEvery.empty())
        return Result::usage("--readonly and --checkpoint-every exclude each other");
    for (const std::string& size : {arguments.m_viewsBudget, arguments.m_applyRate}) {
        u64 bytes = 0;
        if (size.empty())
            continue;
        if (Result result = parseSize(size, &bytes); !result.ok())
            return result;
        if (bytes == 0)
            return Result::usage("--views-budget and --apply-rate take sizes above 0");
    }
    HostPort where;
    return arguments.m_metricsHttp.empty()
               ? Result()
               : parseHostPort("--metrics-http", arguments.m_metricsHttp, &where);
}

Result run(Context& context, const ServeArguments& arguments)
{
    u64 stopSeconds = 0;
    if (Result result = parseDuration(arguments.m_stopTimeout, &stopSeconds); !result.ok())
        return result;
    if (stopSeconds == 0)
        return Result::usage("--stop-timeout takes a time above 0");
    if (Result result = checkOptions(arguments); !result.ok())
        return result;
    ServeAddress address;
    if (Result result = addressOf(arguments, &address); !result.ok())
        return result;
    if (Result result = checkMirror(arguments); !result.ok())
        return result;
    std::vector<std::string> line;
    if (Result result = commandLine(context, arguments, address, &line); !result.ok())
        return result;
    ServeListener listener(std::move(address));
    if (Result result = listener.claim(); !result.ok())
        return result;
    ServeProcess server;
    if (Result result = server.start(line); !result.ok())
        return result;
    bool answers = false;
    Result result = server.waitUntilAnswers(listener, &answers);
    if (result.ok() && answers) {
        const std::string uri = listener.address().uri();
        if (context.json())
            context.result(Json{
                {"mirror", arguments.m_mirror}, {"uri", uri}, {"readonly", arguments.m_readOnly}});
        else
            context.say("serving " + arguments.m_mirror + " at " + uri);
    }
    if (result.ok())
        result = server.waitForEnd(stopSeconds + MARGIN_SECONDS);
    // nbdkit leaves it behind.
    listener.remove();
    return result;
}

} // namespace

void addServe(CLI::App& app, Context& context)
{
    CLI::App* command = addCommand(app, context, "serve", "Serve a mirror's exports over NBD",
                                   "rlctl serve backup.mirror --checkpoint-every 30s",
                                   "rlctl serve backup.mirror --readonly --tcp 127.0.0.1:10809");
    auto arguments = std::make_shared<ServeArguments>();
    command->add_option("MIRROR", arguments->m_mirror, "The mirror")->required();
    command->add_option("NBDKIT-OPTIONS", arguments->m_nbdkit,
                        "More options for nbdkit, after --, as --tls=require");
    command->add_option("--socket", arguments->m_socket,
                        "The Unix socket to listen on (default: nbd in the mirror's folder)");
    command->add_option("--tcp", arguments->m_tcp, "Listen on ADDRESS:PORT instead");
    command->add_flag("--readonly", arguments->m_readOnly,
                      "Serve the past alone; another process may write");
    command
        ->add_option("--checkpoint-every", arguments->m_checkpointEvery,
                     "Set checkpoints by time (30s) or by amount written (256M)")
        ->expected(1)
        ->take_all();
    command->add_option("--views-budget", arguments->m_viewsBudget,
                        "Most memory for the indexes of all views (default 1G)");
    command->add_option("--apply-rate", arguments->m_applyRate,
                        "Most bytes a second that are applied in the background");
    command->add_option("--metrics", arguments->m_metrics,
                        "Write metrics to this file, in Prometheus text");
    command->add_option("--metrics-http", arguments->m_metricsHttp,
                        "Serve metrics on ADDRESS:PORT");
    command
        ->add_option("--connections", arguments->m_connections,
                     "Most connections of clients at a time (default 32)")
        ->check(CLI::Range(u64{1}, u64{10000}));
    command->add_option("--stop-timeout", arguments->m_stopTimeout,
                        "What ending may take (default 10s)");
    command->callback([&context, arguments] {
        context.passEventsOn();
        context.setAction([&, arguments] { return run(context, *arguments); });
    });
}
