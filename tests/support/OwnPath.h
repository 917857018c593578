// A path in the folder for temporary files that no other process uses: ctest runs the cases of a
// program beside each other, each in a process of its own.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

inline std::string ownPath(const std::string& name)
{
    return testing::TempDir() + "rl-" + std::to_string(getpid()) + "-" + name;
}
