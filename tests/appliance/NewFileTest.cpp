#include "appliance/NewFile.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <unistd.h>

#include "tests/support/OwnPath.h"

namespace {

namespace fs = std::filesystem;

class NewFileTest : public ::testing::Test
{
protected:
    void SetUp() override { fs::create_directories(m_folder); }
    void TearDown() override { fs::remove_all(m_folder); }

    void put(const std::string& name) { std::ofstream(m_folder + "/" + name) << "left behind"; }

    std::set<std::string> names() const
    {
        std::set<std::string> found;
        for (const fs::directory_entry& entry : fs::directory_iterator(m_folder))
            found.insert(entry.path().filename().string());
        return found;
    }

    void makeWhole()
    {
        NewFile file(m_path);
        ASSERT_TRUE(file.open(4096).ok());
        ASSERT_TRUE(file.finish().ok());
    }

    const std::string m_folder = ownPath("new-file");
    const std::string m_path = m_folder + "/file";
};

} // namespace

TEST_F(NewFileTest, IsThereAsAWholeOrNotAtAll)
{
    {
        NewFile file(m_path);
        ASSERT_TRUE(file.open(4096).ok());
        EXPECT_EQ(names(), std::set<std::string>{".file.partial-" + std::to_string(getpid())});
    }
    EXPECT_TRUE(names().empty());
    makeWhole();
    EXPECT_EQ(names(), std::set<std::string>{"file"});
    EXPECT_EQ(fs::file_size(m_path), 4096u);
}

TEST_F(NewFileTest, UnsyncedItIsThereAsAWholeToo)
{
    for (const u64 bytes : {u64{4096}, u64{8192}}) { // a new one, and in the place of that
        NewFile file(m_path);
        ASSERT_TRUE(file.open(bytes).ok());
        ASSERT_EQ(file.file().pwrite("x", 1, bytes - 1), RC_SUCCESS);
        ASSERT_TRUE(file.finish(Durability::Unsynced).ok());
        EXPECT_EQ(names(), std::set<std::string>{"file"});
        EXPECT_EQ(fs::file_size(m_path), bytes);
    }
}

TEST_F(NewFileTest, WhatADeadProcessLeftGoesWithTheNext)
{
    put(".file.partial-1");
    put(".file.partial-4194304");
    put(".file.partial-77-2");
    put(".file.partial-" + std::to_string(getpid()));
    makeWhole();
    EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(NewFileTest, WhatIsNoSuchFileStays)
{
    const std::set<std::string> others = {".file.partial-",   ".file.partial-1x", "file.partial-1",
                                          ".file2.partial-1", ".file.partial",    "other"};
    for (const std::string& name : others)
        put(name);
    fs::create_directory(m_folder + "/.file.partial-5");
    fs::create_symlink("other", m_folder + "/.file.partial-6");
    makeWhole();
    for (const std::string& name : others)
        EXPECT_EQ(names().count(name), 1u) << name;
    EXPECT_EQ(names().count(".file.partial-5"), 1u);
    EXPECT_EQ(names().count(".file.partial-6"), 1u);
    EXPECT_EQ(fs::file_size(m_folder + "/other"), 11u);
}

TEST_F(NewFileTest, AnotherOneInTheMakingIsLeftAlone)
{
    NewFile first(m_path);
    ASSERT_TRUE(first.open(512).ok());
    NewFile second(m_path);
    ASSERT_TRUE(second.open(1024).ok());
    EXPECT_EQ(names().size(), 2u);
    ASSERT_TRUE(first.finish().ok());
    EXPECT_EQ(fs::file_size(m_path), 512u);
    ASSERT_TRUE(second.finish().ok());
    EXPECT_EQ(fs::file_size(m_path), 1024u);
    EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(NewFileTest, AFolderThatIsNotThere)
{
    NewFile file(m_folder + "/none/file");
    EXPECT_EQ(file.open(512).code(), ResultCode::Failed);
}
