// The file of metrics when its text cannot be made for a time; what is in it is tested with a
// served mirror.
#include "appliance/MetricsFile.h"

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <new>
#include <unistd.h>

#include "tests/support/ComesTrue.h"

namespace {

TEST(MetricsFileTest, MemoryThatIsShortForATimeEndsNothing)
{
    const std::string path =
        (std::filesystem::temp_directory_path() / ("rl-metrics-" + std::to_string(::getpid())))
            .string();
    std::atomic<u32> asked{0};
    MetricsFile file(path, 10, [&]() -> std::string {
        if (++asked == 2)
            throw std::bad_alloc();
        return "rl_x 1\n";
    });
    ASSERT_TRUE(file.start().ok());
    EXPECT_TRUE(comesTrue([&] { return asked > 3; })) << "it goes on";
    file.stop();
    EXPECT_EQ(std::filesystem::file_size(path), 7u);
    std::filesystem::remove(path);
}

} // namespace
