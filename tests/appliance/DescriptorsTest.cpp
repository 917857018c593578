// A mirror whose files cannot be opened or read for want of a descriptor: what fails says so, and
// does not speak of the memory limit, or of damage.

#include "appliance/Apply.h"
#include "tests/appliance/MirrorOnCrashStorage.h"

namespace {

class DescriptorsTest : public MirrorOnCrashStorage
{
protected:
    // Lets each call of a kind fail in turn, until the work meets none of them any more.
    void failEach(CrashStorage::Call call, const std::function<Result()>& work)
    {
        u32 failed = 0;
        u32 told = 0;
        Result result = Result::failed("");
        for (u64 nth = 1; !result.ok(); ++nth) {
            ASSERT_LT(nth, 100u);
            m_storage->failCall(call, nth, RC_NO_MEMORY);
            result = work();
            m_storage->noFaults();
            if (result.ok())
                break;
            ++failed;
            EXPECT_EQ(result.code(), ResultCode::Failed) << result.message();
            EXPECT_EQ(result.message().find("memory limit"), std::string::npos) << result.message();
            EXPECT_EQ(result.message().find("damaged"), std::string::npos) << result.message();
            told += result.message().find("no file descriptor is left") != std::string::npos;
        }
        EXPECT_GT(failed, 0u);
        EXPECT_GT(told, 0u);
    }
};

TEST_F(DescriptorsTest, AreNotTheMemoryLimit)
{
    ASSERT_TRUE(open(emptyMirror(), MirrorAccess::Writer).ok());
    writeRandomly(3, 60);
    failEach(CrashStorage::Call::Read, [&] {
        FlowControl control;
        std::unique_ptr<View> view;
        return View::build(*m_mirror, point(50), control, &view);
    });
    failEach(CrashStorage::Call::Read, [&] {
        FlowControl control;
        ApplyOptions dryRun;
        dryRun.m_dryRun = true;
        ApplyStatistics statistics;
        return applyMirror(*m_mirror, m_host.getEngine(), point(50), dryRun, control, &statistics);
    });
}

} // namespace
