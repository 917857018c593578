#include "appliance/ControlClient.h"

#include <cerrno>
#include <chrono>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "appliance/CommandArguments.h"
#include "appliance/ControlCall.h"
#include "appliance/ControlSocket.h"

namespace {

constexpr int LOOK_MS = 100;
constexpr auto PATIENCE = std::chrono::seconds(10); // for a server to take a command up
constexpr size_t MAX_ANSWER_BYTES = size_t{256} << 20;
constexpr size_t RECEIVE_BYTES = 64 << 10;

// The code of an error as it came; one that is not known is a failure.
ResultCode codeOf(u64 number)
{
    for (const ResultCode code :
         {ResultCode::WrongUsage, ResultCode::DoneInPart, ResultCode::Differences,
          ResultCode::NotFound, ResultCode::InUse, ResultCode::Damaged, ResultCode::NoSpace,
          ResultCode::Interrupted}) {
        if (number == static_cast<u64>(code))
            return code;
    }
    return ResultCode::Failed;
}

// Whether it arrives as what it is: a line has no other bytes than those of UTF-8.
bool isText(const JsonValue& value)
{
    try {
        return !value.dump().empty();
    } catch (const JsonValue::type_error&) {
        return false;
    }
}

} // namespace

Result ControlClient::connect(const std::string& folder, std::unique_ptr<ControlClient>* client)
{
    int fd = -1;
    if (Result result = connectToControl(folder, &fd); !result.ok())
        return result;
    client->reset(new ControlClient(folder, fd));
    return Result();
}

ControlClient::ControlClient(std::string folder, int fd)
    : m_folder(std::move(folder)), m_fd(fd), m_in(MAX_ANSWER_BYTES)
{}

ControlClient::~ControlClient()
{
    close(m_fd);
}

Result ControlClient::send(const std::string& line)
{
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t count = ::send(m_fd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (count > 0)
            done += static_cast<size_t>(count);
        else if (errno != EINTR)
            return Result::failed("the process that serves " + m_folder + " takes no commands");
    }
    return Result();
}

Result ControlClient::receive()
{
    pollfd wanted{m_fd, POLLIN, 0};
    if (poll(&wanted, 1, LOOK_MS) <= 0)
        return Result();
    std::string bytes(RECEIVE_BYTES, '\0');
    const ssize_t count = recv(m_fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return Result();
    if (count <= 0 || m_in.isTooLong())
        return Result::failed("the process that serves " + m_folder +
                              " went away; look at rlctl info before going on");
    m_in.add(bytes.data(), static_cast<size_t>(count));
    return Result();
}

// Whether the line was the last one of the command.
bool ControlClient::take(const std::string& line, CommandControl& control, JsonValue* fields,
                         Result* result)
{
    JsonValue answer;
    if (!parseControlLine(line, &answer).ok())
        answer = nullptr; // as any other that is not understood
    CommandArguments parts(answer);
    const std::string type = parts.text("type");
    const std::string text = parts.text("text");
    const auto found = answer.is_object() ? answer.find("fields") : answer.end();
    if (type == "accepted") {
        m_accepted = true;
    } else if (type == "progress") {
        control.progress(parts.number("done").value_or(0), parts.number("total").value_or(0));
    } else if (type == "say") {
        control.say(text);
    } else if (type == "detail") {
        control.detail(text);
    } else if (type == "error") {
        *result = Result(codeOf(parts.number("code").value_or(1)), parts.text("message"));
        return true;
    } else if (type == "result" && found != answer.end()) {
        *fields = *found;
        *result = Result();
        return true;
    } else {
        *result = Result::failed("the process that serves " + m_folder +
                                 " answers what is not understood");
        return true;
    }
    return false;
}

Result ControlClient::run(const std::string& command, const JsonValue& arguments,
                          CommandControl& control, JsonValue* result)
{
    const auto started = std::chrono::steady_clock::now();
    m_accepted = false;
    if (!isText(arguments))
        return Result::usage("what a served mirror is told has to be UTF-8");
    if (Result sent = send(controlLine(JsonValue{{"command", command}, {"arguments", arguments}}));
        !sent.ok()) {
        // Why may have been told before the connection was closed.
        const Result ignored = receive();
        std::string line;
        Result ended;
        return m_in.next(&line) && take(line, control, result, &ended) ? ended : sent;
    }
    bool cancelled = false;
    while (true) {
        std::string line;
        Result ended;
        while (m_in.next(&line)) {
            if (take(line, control, result, &ended))
                return ended;
        }
        if (!cancelled && control.stopRequested()) {
            cancelled = true;
            if (Result sent = send(controlLine(JsonValue{{"command", "cancel"}})); !sent.ok())
                return sent;
        }
        if (!m_accepted && std::chrono::steady_clock::now() - started > PATIENCE)
            return Result::failed("the process that serves " + m_folder + " does not answer");
        if (Result received = receive(); !received.ok())
            return received;
    }
}
