// Gives commands to the process that serves a mirror; ControlSocket.h has the protocol.
//
// Thread safety: one thread.
#pragma once

#include <memory>
#include <string>

#include "appliance/CommandControl.h"
#include "appliance/JsonValue.h"
#include "appliance/LineBuffer.h"
#include "appliance/Result.h"

class ControlClient
{
public:
    // NotFound: nobody serves the mirror.
    static Result connect(const std::string& folder, std::unique_ptr<ControlClient>* client);

    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // Gives a command and waits for its end; as MirrorCommands::run(). Passes on what the server
    // tells meanwhile, and, when control says so, that the command is to stop. WrongUsage also: the
    // arguments are no UTF-8, nothing was sent. Failed: the server
    // does not answer, or is gone; what became of the command is not known then, and this client
    // is of no more use.
    Result run(const std::string& command, const JsonValue& arguments, CommandControl& control,
               JsonValue* result);

private:
    ControlClient(std::string folder, int fd);

    Result send(const std::string& line);
    Result receive(); // what has come, if anything has
    bool take(const std::string& line, CommandControl& control, JsonValue* fields, Result* result);

    const std::string m_folder;
    const int m_fd;
    LineBuffer m_in;
    bool m_accepted = false; // the command that runs
};
