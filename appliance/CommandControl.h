// What a command has to do with whoever gave it, while it runs: beside how far it is, what it has
// to say.
//
// Thread safety: all calls come from the thread that runs the command.
#pragma once

#include <string>

#include "appliance/FlowControl.h"

class CommandControl : public FlowControl
{
public:
    // One line for people, without a line end; detail() is for those who asked for more.
    virtual void say(const std::string& /*line*/) {}
    virtual void detail(const std::string& /*line*/) {}
};
