// The end of a mirror that is served, with clients that are still there and others that only come.

#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "appliance/ServedExport.h"
#include "tests/appliance/ServedFixture.h"

namespace {

class ServedEndTest : public ServedFixture
{
protected:
    Result open(const std::string& name, std::unique_ptr<ServedExport>* opened)
    {
        return ServedExport::open(*m_served, name, opened);
    }
};

TEST_F(ServedEndTest, RefusesWhatComesLater)
{
    makeMirror();
    serve();
    std::unique_ptr<ServedExport> opened;
    ASSERT_TRUE(open("live", &opened).ok());
    std::vector<u8> data(BLOCK_BYTES, 7);
    ASSERT_EQ(opened->write(0, BLOCK_BYTES, data.data(), false), RC_SUCCESS);
    ASSERT_TRUE(m_served->stop().ok());
    EXPECT_EQ(opened->sizeBytes(), BLOCKS * BLOCK_BYTES);
    EXPECT_EQ(opened->write(0, BLOCK_BYTES, data.data(), false), RC_ABORTED);
    EXPECT_EQ(opened->read(0, BLOCK_BYTES, data.data()), RC_ABORTED);
    EXPECT_EQ(opened->flush(), RC_ABORTED);
    std::unique_ptr<ServedExport> late;
    for (const char* name : {"", "live", "latest", "item:0", "diff:item:0..item:1"})
        EXPECT_EQ(open(name, &late).code(), ResultCode::Interrupted) << name;
    EXPECT_TRUE(m_served->stop().ok());
}

// As a client that is still connected, for which nobody closes what it has open.
TEST_F(ServedEndTest, ClosesTheViewsThatClientsLeftOpen)
{
    makeMirror();
    for (const bool isSealed : {false, true}) {
        serve();
        std::vector<u8> data(BLOCK_BYTES, 7);
        ASSERT_EQ(live().write(0, data.data(), 1), RC_SUCCESS);
        std::unique_ptr<ServedExport> view;
        std::unique_ptr<ServedExport> same;
        std::unique_ptr<ServedExport> diff;
        ASSERT_TRUE(open("item:0", &view).ok());
        ASSERT_TRUE(open("item:0", &same).ok());
        ASSERT_TRUE(open("diff:item:0..latest", &diff).ok());
        same.reset();
        EXPECT_EQ(view->read(0, BLOCK_BYTES, data.data()), RC_SUCCESS);
        EXPECT_EQ(m_served->views().report().m_open, 2u);
        if (isSealed) {
            EXPECT_TRUE(m_served->seal(Clock::NEVER).ok());
            EXPECT_EQ(m_served->views().report().m_views, 0u);
        }
        EXPECT_TRUE(m_served->stop().ok());
        for (const auto& file : std::filesystem::directory_iterator(folder() + "/uses"))
            EXPECT_EQ(file.path().filename(), "latch");
        for (const auto& left : {view.get(), diff.get()}) {
            std::vector<ExportExtent> extents;
            EXPECT_EQ(left->read(0, BLOCK_BYTES, data.data()), RC_ABORTED);
            EXPECT_EQ(left->extents(0, BLOCK_BYTES, 1, &extents), RC_ABORTED);
            EXPECT_NE(left->description(), "");
        }
        view.reset();
        diff.reset();
        stopServing();
    }
}

TEST_F(ServedEndTest, WaitsForWhoeverIsOpening)
{
    makeMirror();
    for (u32 round = 0; round < 20; ++round) {
        serve();
        std::atomic<u32> opening{0};
        std::vector<std::thread> clients;
        for (u32 i = 0; i < 4; ++i)
            clients.emplace_back([&] {
                ResultCode code = ResultCode::Done;
                while (code != ResultCode::Interrupted) {
                    std::unique_ptr<ServedExport> opened;
                    for (const char* name : {"live", "item:0"}) {
                        code = open(name, &opened).code();
                        EXPECT_TRUE(code == ResultCode::Done || code == ResultCode::Interrupted);
                    }
                    code = open("cp:99", &opened).code();
                    EXPECT_TRUE(code == ResultCode::NotFound || code == ResultCode::Interrupted);
                    ++opening;
                }
            });
        while (opening < 4)
            std::this_thread::yield();
        EXPECT_TRUE(m_served->stop().ok());
        for (std::thread& client : clients)
            client.join();
        stopServing();
    }
}

} // namespace
