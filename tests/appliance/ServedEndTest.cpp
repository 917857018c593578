// The end of a mirror that is served, with clients that are still there and others that only come.

#include <atomic>
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
                    code = open("live", &opened).code();
                    EXPECT_TRUE(code == ResultCode::Done || code == ResultCode::Interrupted);
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
