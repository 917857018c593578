// The control socket: commands and their answers, and clients that are no good.

#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "appliance/ControlClient.h"
#include "appliance/ControlServer.h"
#include "appliance/ControlSocket.h"
#include "tests/support/ComesTrue.h"
#include "tests/support/OwnPath.h"

namespace {

using namespace std::chrono_literals;

// Remembers what it is told, and stops when it is asked to.
class Listener : public CommandControl
{
public:
    void progress(u64 done, u64 total) override
    {
        EXPECT_LE(done, total);
        m_done = done;
    }
    bool stopRequested() override { return m_stop; }
    void say(const std::string& line) override { m_said.push_back(line); }
    void detail(const std::string& line) override { m_details.push_back(line); }

    std::atomic<u64> m_done{0};
    std::atomic<bool> m_stop{false};
    std::vector<std::string> m_said;
    std::vector<std::string> m_details;
};

class ControlTest : public ::testing::Test
{
protected:
    void SetUp() override { std::filesystem::create_directories(m_folder); }
    void TearDown() override
    {
        if (m_server != nullptr)
            m_server->stop();
        std::filesystem::remove_all(m_folder);
    }

    void serve(ControlLimits limits = ControlLimits())
    {
        m_server = std::make_unique<ControlServer>(
            [this](const std::string& command, const JsonValue& arguments, CommandControl& control,
                   JsonValue* result) { return handle(command, arguments, control, result); },
            limits);
        const Result result = m_server->start(m_folder);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    Result handle(const std::string& command, const JsonValue& arguments, CommandControl& control,
                  JsonValue* result)
    {
        ++m_taken;
        if (command == "echo") {
            control.say("said");
            control.detail("a detail");
            control.progress(1, 2);
            *result = JsonValue{{"arguments", arguments}};
            return Result();
        }
        if (command == "wait") {
            ++m_waiting;
            for (u64 i = 0; !control.stopRequested(); ++i) {
                control.progress(std::min<u64>(i, 1000), 1000);
                std::this_thread::sleep_for(1ms);
            }
            --m_waiting;
            ++m_stopped;
            return Result(ResultCode::Interrupted, "interrupted; run it again and it goes on");
        }
        if (command == "large") {
            *result = JsonValue{{"text", std::string(8 << 20, 'x')}};
            return Result();
        }
        if (command == "throw")
            throw std::runtime_error("of no use");
        return Result(ResultCode::Damaged, "it is damaged");
    }

    Result run(const std::string& command, const JsonValue& arguments, JsonValue* result)
    {
        std::unique_ptr<ControlClient> client;
        if (Result connected = ControlClient::connect(m_folder, &client); !connected.ok())
            return connected;
        return client->run(command, arguments, m_listener, result);
    }

    void expectServed()
    {
        JsonValue result;
        const Result done = run("echo", JsonValue{{"a", 1}}, &result);
        EXPECT_TRUE(done.ok()) << done.message();
        EXPECT_EQ(result["arguments"]["a"], 1);
    }

    // Where the limit for who idles is short, a client that gets no processor for so long is cut
    // off with good reason; it tries again, as its user would.
    int sendUntilTaken(const std::string& line)
    {
        const u32 before = m_taken;
        int fd = -1;
        EXPECT_TRUE(comesTrue([&] {
            if (m_taken > before)
                return true;
            pollfd status{fd, 0, 0};
            if (fd < 0 || (poll(&status, 1, 0) == 1 && (status.revents & POLLHUP) != 0)) {
                close(fd);
                fd = connected();
                send(fd, line);
            }
            return false;
        }));
        return fd;
    }
    Result runUntilTaken(const std::string& command)
    {
        JsonValue result;
        Result done = Result::failed("");
        const u32 before = m_taken;
        EXPECT_TRUE(comesTrue([&] {
            done = run(command, JsonValue{{"a", 1}}, &result);
            return done.ok() || m_taken > before;
        }));
        return done;
    }

    int connected() const
    {
        int fd = -1;
        EXPECT_TRUE(connectToControl(m_folder, &fd).ok());
        return fd;
    }

    static bool send(int fd, const std::string& text)
    {
        return ::send(fd, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }

    // All that comes until the server closes, which it has to.
    static std::string receiveAll(int fd)
    {
        const timeval patience{std::chrono::seconds(FAR_END).count(), 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::string all;
        char bytes[4096];
        ssize_t count = 0;
        while ((count = recv(fd, bytes, sizeof bytes, 0)) > 0)
            all.append(bytes, static_cast<size_t>(count));
        EXPECT_FALSE(count < 0 && errno == EAGAIN) << "it does not close";
        return all;
    }

    template <class Condition> static void waitFor(Condition condition)
    {
        EXPECT_TRUE(comesTrue(condition));
    }

    const std::string m_folder = ownPath("control");
    std::unique_ptr<ControlServer> m_server;
    Listener m_listener;
    std::atomic<u32> m_taken{0}; // commands
    std::atomic<u32> m_waiting{0};
    std::atomic<u32> m_stopped{0};
};

TEST_F(ControlTest, ACommandIsAnsweredWithAllThatItTells)
{
    serve();
    JsonValue result;
    ASSERT_TRUE(run("echo", JsonValue{{"text", "f\xc3\xbcnf"}}, &result).ok());
    EXPECT_EQ(result["arguments"]["text"].get<std::string>(), "f\xc3\xbcnf");
    EXPECT_EQ(m_listener.m_said, std::vector<std::string>{"said"});
    EXPECT_EQ(m_listener.m_details, std::vector<std::string>{"a detail"});
    const Result failed = run("anything else", JsonValue(), &result);
    EXPECT_EQ(failed.code(), ResultCode::Damaged);
    EXPECT_EQ(failed.message(), "it is damaged");
    EXPECT_EQ(run("throw", JsonValue(), &result).code(), ResultCode::Failed);
    ASSERT_TRUE(run("large", JsonValue(), &result).ok());
    EXPECT_EQ(result["text"].get<std::string>().size(), size_t{8} << 20);
}

TEST_F(ControlTest, WhatIsNoTextIsNotSent)
{
    serve();
    JsonValue result;
    EXPECT_EQ(run("echo", JsonValue{{"text", "\xff not UTF-8"}}, &result).code(),
              ResultCode::WrongUsage);
    EXPECT_TRUE(m_listener.m_said.empty());
    ASSERT_TRUE(run("echo", JsonValue(), &result).ok());
}

TEST_F(ControlTest, OneConnectionTakesOneCommandAfterAnother)
{
    serve();
    std::unique_ptr<ControlClient> client;
    ASSERT_TRUE(ControlClient::connect(m_folder, &client).ok());
    for (u64 i = 0; i < 100; ++i) {
        JsonValue result;
        ASSERT_TRUE(client->run("echo", JsonValue{{"i", i}}, m_listener, &result).ok());
        EXPECT_EQ(result["arguments"]["i"], i);
    }
}

TEST_F(ControlTest, NobodyServes)
{
    std::unique_ptr<ControlClient> client;
    EXPECT_EQ(ControlClient::connect(m_folder, &client).code(), ResultCode::NotFound);
    EXPECT_EQ(ControlClient::connect(m_folder + "/nowhere", &client).code(), ResultCode::NotFound);
    serve();
    m_server->stop();
    EXPECT_EQ(ControlClient::connect(m_folder, &client).code(), ResultCode::NotFound);
    EXPECT_FALSE(std::filesystem::exists(m_folder + "/control"));
}

TEST_F(ControlTest, OnlyTheOwnerMayOpenIt)
{
    umask(0);
    serve();
    umask(022);
    struct stat status = {};
    ASSERT_EQ(stat((m_folder + "/control").c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(ControlTest, TheSocketOfADeadServerIsReplaced)
{
    int fd = -1;
    ASSERT_TRUE(listenOnControl(m_folder, &fd).ok());
    close(fd); // as a death leaves it: the name stays
    std::unique_ptr<ControlClient> client;
    EXPECT_EQ(ControlClient::connect(m_folder, &client).code(), ResultCode::NotFound);
    serve();
    expectServed();
}

TEST_F(ControlTest, AServerWhoseFolderWasRenamedTakesItsOwnSocketAway)
{
    serve();
    const std::string renamed = m_folder + "-renamed";
    std::filesystem::rename(m_folder, renamed);
    std::filesystem::create_directories(m_folder);
    int other = -1;
    ASSERT_TRUE(listenOnControl(m_folder, &other).ok());
    m_server->stop();
    EXPECT_FALSE(std::filesystem::exists(renamed + "/control"));
    EXPECT_TRUE(std::filesystem::exists(m_folder + "/control"));
    close(other);
    std::filesystem::remove_all(renamed);
}

TEST_F(ControlTest, FoldersOfAnyDepth)
{
    const std::string deep = m_folder + "/" + std::string(120, 'd') + "/" + std::string(120, 'e');
    std::filesystem::create_directories(deep);
    ControlServer server(
        [](const std::string&, const JsonValue&, CommandControl&, JsonValue*) { return Result(); });
    ASSERT_TRUE(server.start(deep).ok());
    std::unique_ptr<ControlClient> client;
    ASSERT_TRUE(ControlClient::connect(deep, &client).ok());
    JsonValue result;
    EXPECT_TRUE(client->run("any", JsonValue(), m_listener, &result).ok());
    server.stop();
    EXPECT_FALSE(std::filesystem::exists(deep + "/control"));
}

TEST_F(ControlTest, GarbageIsToldSoAndCutOff)
{
    serve();
    const std::string lines[] = {
        "hello",
        "",
        "{}",
        "[1, 2]",
        "42",
        "null",
        R"({"version": 1})",
        R"({"version": 1, "command": 7})",
        R"({"version": "1", "command": "echo"})",
        R"({"version": 2, "command": "echo"})",
        R"({"version": -1, "command": "echo"})",
        R"({"version": 1, "command": "echo")",
        std::string(30000, '['),
        std::string("\0\x01\xff\xfe", 4),
    };
    for (const std::string& line : lines) {
        const int fd = connected();
        ASSERT_TRUE(send(fd, line + "\n"));
        const std::string answer = receiveAll(fd);
        close(fd);
        const JsonValue parsed = JsonValue::parse(answer, nullptr, false);
        ASSERT_TRUE(parsed.is_object()) << line << ": " << answer;
        EXPECT_EQ(parsed["type"], "error");
        EXPECT_EQ(parsed["code"], 2);
    }
    expectServed();
}

// Such a line fits within the limit of its length, and needs no stack in proportion to its depth.
TEST_F(ControlTest, DeepNestingIsToldSoAndCutOff)
{
    serve();
    const auto nested = [](size_t levels, const std::string& open, const std::string& close) {
        std::string line = R"({"version": 1, "command": "echo", "arguments": {"a": )";
        for (size_t i = 0; i < levels; ++i)
            line += open;
        line += "1";
        for (size_t i = 0; i < levels; ++i)
            line += close;
        return line + "}}";
    };
    for (const std::string& line : {nested(32000, "[", "]"), nested(10000, R"({"a":)", "}"),
                                    nested(64, "[", "]"), std::string(60000, '[')}) {
        const int fd = connected();
        ASSERT_TRUE(send(fd, line + "\n"));
        const std::string answer = receiveAll(fd);
        close(fd);
        const JsonValue parsed = JsonValue::parse(answer, nullptr, false);
        ASSERT_TRUE(parsed.is_object()) << answer;
        EXPECT_EQ(parsed["code"], 2);
        EXPECT_EQ(parsed["message"], "the line is nested too deeply for a command");
    }
    const int fd = connected();
    ASSERT_TRUE(send(fd, nested(20, "[", "]") + "\n"));
    shutdown(fd, SHUT_WR);
    EXPECT_NE(receiveAll(fd).find("accepted"), std::string::npos);
    close(fd);
    expectServed();
}

TEST_F(ControlTest, LinesWithoutEndAreCutOff)
{
    serve();
    const int fd = connected();
    // It is refused long before all of it is sent.
    const std::string much(size_t{64} << 20, 'x');
    EXPECT_FALSE(send(fd, much));
    close(fd);
    expectServed();
}

TEST_F(ControlTest, AFloodOfCommandsOnOneConnectionIsCutOff)
{
    serve();
    const int fd = connected();
    std::string flood;
    for (int i = 0; i < 1000; ++i)
        flood += "{\"version\": 1, \"command\": \"wait\"}\n";
    send(fd, flood);
    EXPECT_NE(receiveAll(fd).find("a command is under way"), std::string::npos);
    close(fd);
    waitFor([&] { return m_waiting == 0; });
    EXPECT_LE(m_stopped, 1u);
    expectServed();
}

TEST_F(ControlTest, AFloodOfConnectionsKeepsNobodyOut)
{
    serve();
    std::vector<int> idle;
    for (int i = 0; i < 200; ++i)
        idle.push_back(connected());
    for (int i = 0; i < 20; ++i)
        expectServed();
    for (const int fd : idle)
        close(fd);
}

TEST_F(ControlTest, WhoIdlesIsCutOff)
{
    ControlLimits limits;
    limits.m_idleMs = 200;
    serve(limits);
    const int idle = connected();
    int half = connected();
    while (!send(half, "{\"version\": 1,")) { // cut off before it had time to say anything
        close(half);
        half = connected();
    }
    // A command takes the time that it takes.
    auto waiting = std::async(std::launch::async, [&] { return runUntilTaken("wait").code(); });
    waitFor([&] { return m_waiting == 1; });
    EXPECT_EQ(receiveAll(idle), "");
    EXPECT_EQ(receiveAll(half), "");
    EXPECT_EQ(m_waiting, 1u);
    m_listener.m_stop = true;
    EXPECT_EQ(waiting.get(), ResultCode::Interrupted);
    close(idle);
    close(half);
}

TEST_F(ControlTest, WhoDoesNotReadHoldsNothingUp)
{
    ControlLimits limits;
    limits.m_idleMs = 500;
    serve(limits);
    const int fd = sendUntilTaken("{\"version\": 1, \"command\": \"large\"}\n");
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(runUntilTaken("echo").ok());
    // It is cut off in the middle.
    waitFor([&] {
        pollfd status{fd, 0, 0};
        return poll(&status, 1, 0) == 1 && (status.revents & POLLHUP) != 0;
    });
    EXPECT_LT(receiveAll(fd).size(), size_t{8} << 20);
    close(fd);
    EXPECT_TRUE(runUntilTaken("echo").ok());
}

TEST_F(ControlTest, WhoGoesAwayCancelsTheCommand)
{
    serve();
    const int fd = connected();
    ASSERT_TRUE(send(fd, "{\"version\": 1, \"command\": \"wait\"}\n"));
    waitFor([&] { return m_waiting == 1; });
    close(fd);
    waitFor([&] { return m_stopped == 1; });
    expectServed();
}

TEST_F(ControlTest, CancellingIsAnsweredByTheCommand)
{
    serve();
    auto waiting = std::async(std::launch::async, [&] {
        JsonValue result;
        return run("wait", JsonValue(), &result);
    });
    waitFor([&] { return m_listener.m_done > 0; });
    m_listener.m_stop = true;
    const Result result = waiting.get();
    EXPECT_EQ(result.code(), ResultCode::Interrupted);
    EXPECT_EQ(result.message(), "interrupted; run it again and it goes on");
}

TEST_F(ControlTest, CommandsAtATimeAreBounded)
{
    ControlLimits limits;
    limits.m_commands = 2;
    serve(limits);
    const int first = connected();
    const int second = connected();
    for (const int fd : {first, second})
        ASSERT_TRUE(send(fd, "{\"version\": 1, \"command\": \"wait\"}\n"));
    waitFor([&] { return m_waiting == 2; });
    JsonValue result;
    EXPECT_EQ(run("echo", JsonValue(), &result).code(), ResultCode::InUse);
    ASSERT_TRUE(send(first, "{\"version\": 1, \"command\": \"cancel\"}\n"));
    waitFor([&] { return m_stopped == 1; });
    waitFor([&] { return run("echo", JsonValue(), &result).ok(); });
    close(first);
    close(second);
}

TEST_F(ControlTest, WhereAllConnectionsWorkTheNextIsToldSo)
{
    ControlLimits limits;
    limits.m_connections = 1;
    serve(limits);
    const int busy = connected();
    ASSERT_TRUE(send(busy, "{\"version\": 1, \"command\": \"wait\"}\n"));
    waitFor([&] { return m_waiting == 1; });
    for (int i = 0; i < 20; ++i) {
        JsonValue result;
        const Result refused = run("echo", JsonValue(), &result);
        EXPECT_EQ(refused.code(), ResultCode::InUse) << refused.message();
    }
    close(busy);
    waitFor([&] {
        JsonValue result;
        return run("echo", JsonValue(), &result).ok();
    });
}

TEST_F(ControlTest, StoppingCancelsAndTells)
{
    // Who idles is not waited for: if it were, for as long as this.
    ControlLimits limits;
    limits.m_idleMs = 3'600'000;
    serve(limits);
    std::vector<std::future<Result>> waiting;
    Listener listeners[3];
    for (Listener& listener : listeners)
        waiting.push_back(std::async(std::launch::async, [&] {
            std::unique_ptr<ControlClient> client;
            JsonValue result;
            EXPECT_TRUE(ControlClient::connect(m_folder, &client).ok());
            return client->run("wait", JsonValue(), listener, &result);
        }));
    const int idle = connected();
    waitFor([&] { return m_waiting == 3; });
    m_server->stop();
    for (std::future<Result>& one : waiting)
        EXPECT_EQ(one.get().code(), ResultCode::Interrupted);
    EXPECT_EQ(receiveAll(idle), "");
    close(idle);
}

TEST_F(ControlTest, AServerThatDiesIsToldOf)
{
    int listening = -1;
    ASSERT_TRUE(listenOnControl(m_folder, &listening).ok());
    auto asking = std::async(std::launch::async, [&] {
        JsonValue result;
        return run("echo", JsonValue(), &result);
    });
    int fd = -1;
    waitFor([&] {
        fd = fd >= 0 ? fd : accept(listening, nullptr, nullptr);
        return fd >= 0;
    });
    char byte = 0;
    EXPECT_EQ(recv(fd, &byte, 1, 0), 1);
    close(fd);
    const Result result = asking.get();
    EXPECT_EQ(result.code(), ResultCode::Failed);
    EXPECT_NE(result.message().find("went away"), std::string::npos);
    close(listening);
}

TEST(LineBufferTest, CutsWhateverWayItComes)
{
    LineBuffer buffer(8);
    std::string line;
    EXPECT_FALSE(buffer.next(&line));
    for (const char c : std::string("ab\n\ncd")) {
        buffer.add(&c, 1);
    }
    ASSERT_TRUE(buffer.next(&line));
    EXPECT_EQ(line, "ab");
    ASSERT_TRUE(buffer.next(&line));
    EXPECT_EQ(line, "");
    EXPECT_FALSE(buffer.next(&line));
    EXPECT_FALSE(buffer.isTooLong());
    buffer.add("e\n0123456789", 12);
    ASSERT_TRUE(buffer.next(&line));
    EXPECT_EQ(line, "cde");
    EXPECT_FALSE(buffer.next(&line));
    EXPECT_TRUE(buffer.isTooLong());
}

} // namespace
