#include "appliance/TraceReader.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zstd.h>

namespace {

const std::string HEADER = "time_us,op,offset_blocks,length_blocks\n";

class TraceReaderTest : public testing::Test
{
protected:
    TraceReaderTest()
        : m_path((std::filesystem::temp_directory_path() / ("rl-trace-" + std::to_string(getpid())))
                     .string())
    {}
    ~TraceReaderTest() override { std::filesystem::remove(m_path); }

    void store(const std::string& text) { std::ofstream(m_path, std::ios::binary) << text; }

    // All lines that are taken as "k:W/Z offset+length", then what ended the reading.
    std::string readAll(TraceReader& reader)
    {
        std::string all;
        Result result = reader.open(m_path);
        TraceWrite write;
        for (bool end = false; result.ok() && !end;) {
            result = reader.next(&write, &end);
            if (result.ok() && !end)
                all += std::to_string(write.m_number) + (write.m_zeroes ? ":Z " : ":W ") +
                       std::to_string(write.m_offsetBlocks) + "+" +
                       std::to_string(write.m_lengthBlocks) + " ";
        }
        if (result.ok())
            return all + "end";
        return all + result.message().substr(m_path.size() + 1);
    }
    std::string readAll()
    {
        TraceReader reader(1000);
        return readAll(reader);
    }

    std::string m_path;
};

TEST_F(TraceReaderTest, TakesWritesAndZeroesAndCountsTheRest)
{
    store(HEADER + "0,W,5,3\n1,R,99999,8\n1,T,8,992\n2,F,0,0\n3,Z,0,1\n9,W,999,1");
    TraceReader reader(1000);
    EXPECT_EQ(readAll(reader), "1:W 5+3 2:Z 8+992 3:Z 0+1 4:W 999+1 end");
    EXPECT_EQ(reader.skippedLines(), 2u);
    EXPECT_EQ(reader.takenLines(), 4u);
}

TEST_F(TraceReaderTest, ReadsCompressedTraces)
{
    std::string text = HEADER;
    for (int i = 0; i < 50000; ++i)
        text += std::to_string(i) + ",W," + std::to_string(i % 999) + ",1\n";
    std::string packed(ZSTD_compressBound(text.size()), '\0');
    packed.resize(ZSTD_compress(packed.data(), packed.size(), text.data(), text.size(), 3));
    store(text);
    TraceReader plain(1000);
    const std::string expected = readAll(plain);
    store(packed);
    TraceReader compressed(1000);
    EXPECT_EQ(readAll(compressed), expected);
    EXPECT_EQ(compressed.digest(), plain.digest());

    store(packed.substr(0, packed.size() / 2));
    EXPECT_NE(readAll().find("ends in the middle"), std::string::npos);
    packed[packed.size() / 2] ^= 0x55;
    packed[packed.size() / 2 + 1] ^= 0x55;
    store(packed);
    EXPECT_EQ(readAll().find("end"), std::string::npos);
}

TEST_F(TraceReaderTest, NamesTheLineThatIsWrong)
{
    const std::pair<const char*, const char*> cases[] = {
        {"0,W,0\n", "line 3: malformed: '0,W,0'"},
        {"0,W,0,1,2\n", "line 3: malformed: '0,W,0,1,2'"},
        {"0,,0,1\n", "line 3: malformed: '0,,0,1'"},
        {"\n", "line 3: malformed: ''"},
        {"0,W,-1,1\n", "line 3: malformed: '0,W,-1,1'"},
        {"0,W,0,0\n", "line 3: a request of length 0"},
        {"0,W,99999999999999999999,1\n", "line 3: a number is too large"},
        {"0,W,999,2\n",
         "line 3: the request at block 999 of 2 blocks ends beyond the volume's 1000"},
        {"0,W,1,18446744073709551615\n", "line 3: the request at block 1 of "
                                         "18446744073709551615 blocks ends beyond the volume's "
                                         "1000"}};
    for (const auto& [line, message] : cases) {
        store(HEADER + "0,W,1,1\n" + line + "0,W,2,1\n");
        EXPECT_EQ(readAll(), std::string("1:W 1+1 ") + message);
    }
    store(HEADER + std::string(5000, '1'));
    EXPECT_EQ(readAll(), "line 2: the line is too long");
    store("a,b\n");
    EXPECT_NE(readAll().find("line 1: a trace begins with"), std::string::npos);
}

TEST(TracePayloadTest, TellsLineAndBlock)
{
    u8 data[3 * BLOCK_BYTES];
    fillTracePayload(data, 7, 100, 3);
    for (u64 block = 0; block < 3; ++block) {
        for (size_t pair = 0; pair < 32; ++pair) {
            u64 numbers[2];
            std::memcpy(numbers, data + block * BLOCK_BYTES + pair * 16, 16);
            ASSERT_EQ(numbers[0], 7u);
            ASSERT_EQ(numbers[1], 100 + block);
        }
    }
}

} // namespace
