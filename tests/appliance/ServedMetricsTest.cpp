// What a served mirror tells of itself: the form of the text, what has to be there, and that the
// numbers are those of what was done.

#include "appliance/ServedMetrics.h"

#include <arpa/inet.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <sys/socket.h>

#include "appliance/ControlClient.h"
#include "appliance/MetricsFile.h"
#include "appliance/MetricsHttp.h"
#include "appliance/ServedServices.h"
#include "tests/appliance/ServedFixture.h"

namespace {

using namespace std::chrono_literals;

using Samples = std::map<std::string, double>; // by name and labels

// Reads the text as strictly as its readers may: each family has its help, its type and then its
// samples, once; no sample has a time, and each says first of which mirror it is. That label is
// left out of what comes back.
Samples parsed(const std::string& text)
{
    static const std::regex HELP("# HELP (rl_[a-z_]+) .+");
    static const std::regex TYPE("# TYPE (rl_[a-z_]+) (counter|gauge)");
    static const std::regex SAMPLE(
        R"re((rl_[a-z_]+)\{volume="([0-9]+)"(,([a-z]+="[^"\\]*"))?\} (-?[0-9][0-9.e+-]*))re");
    Samples samples;
    std::map<std::string, u32> families;
    std::string helped;
    std::string family;
    std::string type;
    std::string volume;
    EXPECT_TRUE(text.ends_with("\n"));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, HELP)) {
            helped = match[1];
            EXPECT_EQ(++families[helped], 1u) << "twice: " << line;
        } else if (std::regex_match(line, match, TYPE)) {
            family = match[1];
            type = match[2];
            EXPECT_EQ(family, helped) << line;
            EXPECT_EQ(type == "counter", family.ends_with("_total")) << line;
        } else if (std::regex_match(line, match, SAMPLE)) {
            EXPECT_EQ(match[1], family) << line;
            if (volume.empty())
                volume = match[2];
            EXPECT_EQ(match[2], volume) << line;
            const std::string key =
                match[1].str() + (match[4].matched ? "{" + match[4].str() + "}" : "");
            EXPECT_EQ(samples.count(key), 0u) << "twice: " << line;
            samples[key] = std::stod(match[5]);
        } else {
            ADD_FAILURE() << "not a line of metrics: " << line;
        }
    }
    return samples;
}

class ServedMetricsTest : public ServedFixture
{
protected:
    Samples collect() { return parsed(m_served->services().metrics().text()); }

    void write(u64 offset, u32 length, u8 value)
    {
        std::vector<u8> data(size_t{length} * BLOCK_BYTES, value);
        ASSERT_EQ(live().write(offset, data.data(), length), RC_SUCCESS);
    }
};

TEST_F(ServedMetricsTest, NumbersAreThoseOfWhatWasDone)
{
    makeMirror();
    serve();
    Samples before = collect();
    EXPECT_TRUE(before.lower_bound("rl_build_info{version=")->first.starts_with("rl_build_info"));
    const std::string volume = std::to_string(m_served->mirror().settings().m_id);
    EXPECT_NE(m_served->services().metrics().text().find("\nrl_journal_items_total{volume=\"" +
                                                         volume + "\"} 0\n"),
              std::string::npos);
    EXPECT_EQ(before.at("rl_journal_items_total"), 0);
    EXPECT_EQ(before.at("rl_overridden_ratio"), 0) << "nothing is overridden yet";
    EXPECT_EQ(before.count("rl_checkpoint_oldest_timestamp_seconds"), 0u);
    EXPECT_EQ(before.at("rl_trim_held{state=\"nothing\"}"), 1);

    const double started = static_cast<double>(Clock::instance()->wallTimeUs()) / 1e6;
    write(0, 64, 1);
    write(32, 64, 2); // half of the first one
    ASSERT_EQ(live().writeZeroes(1000, 8), RC_SUCCESS);
    CpId_t id = 0;
    ASSERT_TRUE(m_served->mirror().checkpoint("", &id).ok());
    write(500, 8, 3);
    std::vector<u8> data(200 * BLOCK_BYTES);
    ASSERT_EQ(live().read(0, 200, data.data()), RC_SUCCESS);

    const Samples now = collect();
    EXPECT_EQ(now.at("rl_journal_items_total"), 4);
    EXPECT_EQ(now.at("rl_journal_durable_items_total"), 3);
    EXPECT_GT(now.at("rl_journal_bytes"), 136 * 512);
    EXPECT_EQ(now.at("rl_journal_nearly_full"), 0);
    EXPECT_EQ(now.at("rl_checkpoints"), 1);
    EXPECT_GE(now.at("rl_checkpoint_oldest_timestamp_seconds"), started - 1);
    EXPECT_EQ(now.at("rl_checkpoint_oldest_timestamp_seconds"),
              now.at("rl_checkpoint_newest_timestamp_seconds"));
    EXPECT_EQ(now.at("rl_regions"), 4);
    EXPECT_EQ(now.at("rl_inserted_ios_total"), 4);
    EXPECT_EQ(now.at("rl_inserted_bytes_total"), 144 * 512);
    EXPECT_EQ(now.at("rl_index_unique_bytes"), 112 * 512);
    EXPECT_NEAR(now.at("rl_overridden_ratio"), 32.0 / 144, 1e-6);
    EXPECT_GT(now.at("rl_region_bytes"), 0);
    EXPECT_EQ(now.at("rl_read_bytes_total{source=\"journal\"}"), 96 * 512);
    EXPECT_EQ(now.at("rl_read_bytes_total{source=\"target\"}"), 104 * 512);
    EXPECT_EQ(now.at("rl_apply_lag_items"), 4);
    EXPECT_EQ(now.at("rl_apply_lag_bytes"), 144 * 512);
    EXPECT_GE(now.at("rl_apply_lag_seconds"), 0);
    EXPECT_EQ(now.at("rl_apply_progress_ratio"), 1);
    EXPECT_EQ(now.at("rl_trim_held{state=\"target\"}"), 1);
    EXPECT_GT(now.at("rl_pool_bytes{state=\"used\"}"), 0);
    for (const char* name :
         {"rl_merges_total", "rl_lock_waits_total", "rl_reservations_waiting",
          "rl_reservations_refused_total", "rl_reservation_waits_total", "rl_diff_maps_bytes",
          "rl_journal_limit_bytes", "rl_pool_bytes{state=\"free\"}",
          "rl_job_last_success_timestamp_seconds{op=\"apply\"}",
          "rl_nbd_requests_total{op=\"read\"}", "rl_nbd_bytes_total{op=\"write\"}",
          "rl_nbd_errors_total{op=\"trim\"}", "rl_nbd_connections", "rl_views_bytes"})
        EXPECT_EQ(now.count(name), 1u) << name;
}

TEST_F(ServedMetricsTest, LagGoesWithApplyAndIsMeasuredAgainAtAStart)
{
    makeMirror();
    serve();
    write(0, 64, 1);
    write(0, 64, 2);
    CpId_t id = 0;
    ASSERT_TRUE(m_served->mirror().checkpoint("", &id).ok());
    write(100, 10, 3);
    stopServing();
    serve([](ServedOptions& options) { options.m_control = true; });
    EXPECT_EQ(collect().at("rl_apply_lag_bytes"), 138 * 512);
    write(200, 2, 3);
    EXPECT_EQ(collect().at("rl_apply_lag_bytes"), 140 * 512);

    std::unique_ptr<ControlClient> client;
    ASSERT_TRUE(ControlClient::connect(folder(), &client).ok());
    CommandControl control;
    JsonValue result;
    const Result applied = client->run("apply", JsonValue{{"to", "cp:1"}}, control, &result);
    ASSERT_TRUE(applied.ok()) << applied.message();
    const Samples now = collect();
    EXPECT_EQ(now.at("rl_apply_lag_bytes"), 12 * 512);
    EXPECT_EQ(now.at("rl_apply_lag_items"), 2);
    EXPECT_EQ(now.at("rl_apply_lag_seconds"), 0); // every checkpoint is applied
    EXPECT_EQ(now.at("rl_job_done_total{op=\"apply\"}"), 1);
    EXPECT_GT(now.at("rl_job_last_success_timestamp_seconds{op=\"apply\"}"), 0);
    stopServing();
    serve();
    EXPECT_EQ(collect().at("rl_apply_lag_bytes"), 12 * 512);
}

TEST_F(ServedMetricsTest, AHoldBeforeAViewThatIsOpenHoldsTheTrim)
{
    makeMirror();
    writeRandomly(1, 30);
    Hold hold{"audit", 2, "item:2"};
    ASSERT_TRUE(m_mirror->hold(&hold, nullptr).ok());
    ASSERT_TRUE(m_mirror->close().ok());
    serve();
    ChosenPoint point;
    point.m_items = 20;
    ViewShelf::Lease lease;
    ASSERT_TRUE(m_served->views().open(point, &lease).ok());
    const Samples now = collect();
    EXPECT_EQ(now.at("rl_uses"), 1);
    EXPECT_EQ(now.at("rl_trim_held{state=\"hold\"}"), 1);
    EXPECT_EQ(now.at("rl_trim_held{state=\"use\"}"), 0);
}

TEST_F(ServedMetricsTest, MeasuringTheLagCanBeStopped)
{
    class Stops : public FlowControl
    {
    public:
        bool stopRequested() override { return true; }
    };
    makeMirror();
    // More metadata than what is read at a time.
    for (u64 i = 0; i < 50000; ++i)
        ASSERT_TRUE(m_mirror->writeZeroes(i % BLOCKS, 1).ok());
    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    ApplyLag lag(jobs, [] { return u64{0}; });
    Stops stops;
    EXPECT_EQ(lag.measure(stops).code(), ResultCode::Interrupted);
    FlowControl control;
    EXPECT_TRUE(lag.measure(control).ok());
    EXPECT_EQ(lag.bytes(), 50000 * BLOCK_BYTES);
}

TEST_F(ServedMetricsTest, AFileIsAlwaysWhole)
{
    makeMirror();
    const std::string path = m_root + "/metrics.prom";
    serve([&](ServedOptions& options) {
        options.m_metricsFile = path;
        options.m_metricsEveryMs = 1;
    });
    const auto read = [&] {
        std::ifstream file(path);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    for (u32 i = 0; i < 50; ++i) {
        write(i, 1, 1);
        EXPECT_EQ(parsed(read()).count("rl_nbd_refused_total"), 1u);
    }
    stopServing();
    // The last one is written when it stops, and nothing else is left there.
    EXPECT_EQ(parsed(read()).at("rl_journal_items_total"), 50);
    u32 files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_root))
        files += entry.path().filename().string().starts_with("metrics");
    EXPECT_EQ(files, 1u);
}

TEST_F(ServedMetricsTest, AFileThatCannotBeWrittenIsToldAtTheStart)
{
    makeMirror();
    m_mirror.reset();
    ServedOptions options;
    options.m_folder = folder();
    options.m_metricsFile = m_root + "/nowhere/metrics";
    ServedMirror served(m_host.getEngine(), options);
    const Result result = served.start();
    EXPECT_FALSE(result.ok());
    EXPECT_NE(result.message().find("nowhere"), std::string::npos);
    // Nothing is left open.
    openMirror();
}

TEST_F(ServedMetricsTest, ReadOnlyServingTellsWhatThereIs)
{
    makeMirror();
    writeRandomly(1, 10);
    CpId_t id = 0;
    ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
    ASSERT_TRUE(m_mirror->close().ok());
    serve([](ServedOptions& options) { options.m_readOnly = true; });
    const Samples now = collect();
    EXPECT_EQ(now.at("rl_checkpoints"), 1);
    EXPECT_EQ(now.count("rl_regions"), 0u);
    EXPECT_EQ(now.count("rl_apply_lag_bytes"), 0u);
    // The socket is the writer's.
    EXPECT_FALSE(std::filesystem::exists(folder() + "/control"));
}

TEST_F(ServedMetricsTest, OverHttp)
{
    if (!MetricsHttp::isBuiltIn()) {
        MetricsHttp http;
        EXPECT_EQ(http.start("127.0.0.1:0", nullptr).code(), ResultCode::Failed);
        return;
    }
    // A port that is free, and kept for the server: others who want any get another one.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    const int shared = 1;
    ASSERT_EQ(setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &shared, sizeof shared), 0);
    ASSERT_EQ(bind(probe, generic, size), 0);
    ASSERT_EQ(getsockname(probe, generic, &size), 0);
    const std::string where = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    makeMirror();
    serve([&](ServedOptions& options) { options.m_metricsHttp = where; });
    // One that says nothing is in nobody's way.
    const int silent = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(silent, generic, size), 0);
    write(0, 1, 1);
    const auto get = [&](const std::string& path) {
        const int client = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(client, generic, size), 0);
        const std::string request = "GET " + path + " HTTP/1.0\r\nHost: x\r\n\r\n";
        EXPECT_EQ(send(client, request.data(), request.size(), 0),
                  static_cast<ssize_t>(request.size()));
        std::string answer;
        char bytes[4096];
        for (ssize_t count = 0; (count = recv(client, bytes, sizeof bytes, 0)) > 0;)
            answer.append(bytes, static_cast<size_t>(count));
        close(client);
        return answer;
    };
    const std::string answer = get("/metrics");
    EXPECT_NE(answer.find("200 OK"), std::string::npos);
    // The very same families as in a file.
    const size_t bodyAt = answer.find("\r\n\r\n");
    ASSERT_NE(bodyAt, std::string::npos) << answer;
    const Samples overHttp = parsed(answer.substr(bodyAt + 4));
    EXPECT_EQ(overHttp.at("rl_journal_items_total"), 1);
    std::vector<std::string> names[2];
    for (const auto& [name, value] : overHttp)
        names[0].push_back(name);
    for (const auto& [name, value] : collect())
        names[1].push_back(name);
    EXPECT_EQ(names[0], names[1]);
    EXPECT_NE(get("/elsewhere").find(" 404 "), std::string::npos);
    // A second server cannot have the same address.
    MetricsHttp second;
    EXPECT_EQ(second.start(where, nullptr).code(), ResultCode::Failed);
    const auto started = std::chrono::steady_clock::now();
    m_served->services().stop(); // which waits for no disk, nor for the silent one
    EXPECT_LT(std::chrono::steady_clock::now() - started, 25s);
    stopServing();
    close(silent);
    close(probe);
}

} // namespace
