// What is left of metrics over HTTP where the library for it was not there when the build was
// configured: its source is compiled once more for this program, as it is then.
#include <gtest/gtest.h>

#include "appliance/MetricsHttp.h"

namespace {

TEST(NoMetricsHttpTest, SaysThatItIsNotBuiltInAndServesNothing)
{
    EXPECT_FALSE(MetricsHttp::isBuiltIn());
    MetricsHttp http;
    const Result result = http.start("127.0.0.1:0", [] { return std::string("text"); });
    EXPECT_EQ(result.code(), ResultCode::Failed);
    EXPECT_EQ(result.message(), "this program was built without metrics over HTTP");
    http.stop();
}

} // namespace
