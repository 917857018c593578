// A path in the folder for temporary files that no other process uses: ctest runs the cases of a
// program beside each other, each in a process of its own. Nothing is there: what is found was left
// by a process of the same number that died.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

inline std::string ownPath(const std::string& name)
{
    std::string path = testing::TempDir() + "rl-" + std::to_string(getpid()) + "-" + name;
    std::filesystem::remove_all(path);
    return path;
}
