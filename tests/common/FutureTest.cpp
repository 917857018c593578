#include "common/infra/Future.h"

#include <functional>
#include <gtest/gtest.h>
#include <thread>

namespace {

struct Observer : public FutureObserver<RcStatus>
{
    explicit Observer(std::function<void(RcStatus)> told) : m_told(std::move(told)) {}
    void update(const RcStatus& rc) override { m_told(rc); }
    std::function<void(RcStatus)> m_told;
};

TEST(FutureTest, ACopyIsTheSameFuture)
{
    FutureStatus one;
    FutureStatus two = one;
    FutureStatus three;
    three = one;
    three = *&three;
    two.set(RC_NOT_FOUND);
    EXPECT_TRUE(one.isSet());
    EXPECT_EQ(three.get(), RC_NOT_FOUND);
    EXPECT_EQ(makeSetFuture(RC_IN_USE).get(), RC_IN_USE);
}

TEST(FutureTest, ObserversAreCalledInTheOrderOfAttachmentBeforeAndAfterTheValue)
{
    FutureStatus future;
    std::vector<int> called;
    Observer late([&](RcStatus) { called.push_back(4); });
    Observer first([&](RcStatus rc) {
        EXPECT_EQ(rc, RC_IO_ERROR);
        called.push_back(1);
        future.attach(&late); // joins the end of the line, though the value is there
        called.push_back(2);
    });
    Observer second([&](RcStatus) { called.push_back(3); });
    Observer afterwards([&](RcStatus) { called.push_back(5); });
    future.attach(&first);
    future.attach(&second);
    EXPECT_TRUE(called.empty());
    future.set(RC_IO_ERROR);
    EXPECT_EQ(called, (std::vector<int>{1, 2, 3, 4}));
    future.attach(&afterwards);
    EXPECT_EQ(called.back(), 5);
}

TEST(FutureTest, AnObserverMayDeleteItselfAndDropTheLastHandle)
{
    auto future = std::make_unique<FutureStatus>();
    struct Suicidal : public FutureObserver<RcStatus>
    {
        explicit Suicidal(std::unique_ptr<FutureStatus>& handle) : m_handle(handle) {}
        void update(const RcStatus&) override
        {
            m_handle.reset();
            delete this;
        }
        std::unique_ptr<FutureStatus>& m_handle;
    };
    future->attach(new Suicidal(future));
    future->set(RC_SUCCESS);
    EXPECT_EQ(future, nullptr);
}

TEST(FutureTest, GetSleepsUntilAnotherThreadSetsIt)
{
    FutureStatus future;
    EXPECT_FALSE(future.waitFor(1));
    std::thread setter([future] { future.set(RC_SUCCESS); });
    EXPECT_EQ(future.get(), RC_SUCCESS);
    EXPECT_TRUE(future.waitFor(0));
    setter.join();
}

TEST(FutureTest, AttachingAndSettingRaceAndEveryObserverIsCalledOnce)
{
    for (int round = 0; round < 500; ++round) {
        FutureStatus future;
        std::atomic<int> calls{0};
        Observer one([&](RcStatus) { ++calls; });
        Observer two([&](RcStatus) { ++calls; });
        std::thread setter([future] { future.set(RC_SUCCESS); });
        std::thread attacher([&, future] { future.attach(&one); });
        future.attach(&two);
        setter.join();
        attacher.join();
        EXPECT_EQ(calls, 2);
    }
}

TEST(FutureDeathTest, ASecondValueStopsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            FutureStatus future;
            future.set(RC_SUCCESS);
            future.set(RC_SUCCESS);
        },
        "Assertion \\(!m_isSet\\) failed");
}

} // namespace
