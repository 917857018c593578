#include "RegionLocator/RlIoReader.h"

#include <gtest/gtest.h>
#include <list>

#include "common/infra/MemShield.h"
#include "host/infra/MemShieldControl.h"
#include "host/tasks/BlockingTask.h"
#include "host/tasks/ThreadScheduler.h"
#include "tests/support/FakeJournal.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RegionLocatorTestAccess.h"
#include "tests/support/Regions.h"

namespace {

using Access = RegionLocatorTestAccess;
using Request = RlIoReader::IoReadRequests;

constexpr u64 MIRROR = 77;
constexpr u64 VOLUME = 88;
const std::string FILE_NAME = "../RlIoReader.cpp";
const std::string FILL_SIGNATURE =
    "void RlIoReader::fillVectorsToReadFrom(u64, u32, const std::vector<SubRegionDescriptor>&, "
    "ScatteredBuf&, const char*, std::vector<IODescriptorEx>*, "
    "std::vector<IODescriptorExCompressed>*, std::vector<IODescriptor>*)";
const std::string FRAME_SIGNATURE =
    "RcStatus RlIoReader::performReadFromSegments(AsyncTask*, AsyncFrame*)";

// A range with memory of its own, filled with a byte that no fake delivers here.
class Range
{
public:
    Range(u64 offset, u32 length, Regions pieces)
        : m_bytes(u64{length} * BLOCK_BYTES, 0xEE),
          m_buf(m_bytes.data(), static_cast<u32>(m_bytes.size())),
          m_request(offset, length, pieces, m_buf)
    {}
    // The byte of the n-th block, or -1 when its bytes differ.
    int block(u32 n) const
    {
        const u8* bytes = &m_bytes[u64{n} * BLOCK_BYTES];
        for (u32 i = 1; i < BLOCK_BYTES; ++i)
            if (bytes[i] != bytes[0])
                return -1;
        return bytes[0];
    }

    std::vector<u8> m_bytes;
    ScatteredBuf m_buf;
    Request m_request;
};

class ReaderTest : public testing::Test
{
protected:
    struct Split
    {
        std::vector<IODescriptorEx> m_journal;
        std::vector<IODescriptorExCompressed> m_compressed;
        std::vector<IODescriptor> m_target;
    };

    Split split(Range& range, const char* topic = nullptr)
    {
        Split result;
        Access::fillVectorsToReadFrom(m_reader, range.m_request, topic, &result.m_journal,
                                      &result.m_compressed, &result.m_target);
        return result;
    }
    // Whether the read is of these blocks into the range's memory from that block on.
    static void expectSlice(const IODescriptor& io, u64 offset, u32 length, Range& range,
                            u32 bufferBlock)
    {
        EXPECT_EQ(io.m_offsetBlocks, offset);
        EXPECT_EQ(io.m_lengthBlocks, length);
        EXPECT_TRUE(io.m_bRead);
        ASSERT_EQ(io.m_data.getSegmentsCount(), 1U);
        EXPECT_EQ(io.m_data.getSegment(0).getPtr(), &range.m_bytes[bufferBlock * BLOCK_BYTES]);
        EXPECT_EQ(io.m_data.getSegment(0).getSize(), length * BLOCK_BYTES);
    }

    FakeJournal m_journal;
    FakeVolume m_volume;
    RlIoReader m_reader{&m_journal, &m_volume, "test", MIRROR};
};

using ReaderDeathTest = ReaderTest;

// ---- the request ----

TEST_F(ReaderTest, ARequestCopiesItsPiecesAndItsBuffersList)
{
    Request empty(5, 6);
    EXPECT_EQ(empty.offsetBlocks, 5U);
    EXPECT_EQ(empty.lenBlocks, 6U);
    EXPECT_TRUE(empty.subRegions.empty());
    EXPECT_EQ(empty.scatteredBuf.getSize(), 0U);

    Regions pieces = {plainRegion(5, 2, 9)};
    u8 bytes[1024];
    ScatteredBuf buf(bytes, sizeof(bytes));
    Request request(5, 2, pieces, buf);
    pieces.clear();
    buf = ScatteredBuf();
    EXPECT_EQ(request.subRegions, (Regions{plainRegion(5, 2, 9)}));
    EXPECT_EQ(request.scatteredBuf.getSegment(0).getPtr(), bytes);
}

TEST_F(ReaderTest, TellsItsMetricsByTheNameItIsGiven)
{
    EXPECT_EQ(m_reader.metrics().m_context, "test");
}

// ---- splitting a range ----

TEST_F(ReaderTest, OnePieceOverAllIsOneJournalRead)
{
    Range range(100, 8, {plainRegion(100, 8, 5000, 3)});
    const Split result = split(range);
    ASSERT_EQ(result.m_journal.size(), 1U);
    expectSlice(result.m_journal[0], 5000, 8, range, 0);
    EXPECT_TRUE(result.m_compressed.empty());
    EXPECT_TRUE(result.m_target.empty());
}

TEST_F(ReaderTest, NoPieceIsOneTargetRead)
{
    Range range(100, 8, {});
    const Split result = split(range);
    EXPECT_TRUE(result.m_journal.empty());
    EXPECT_TRUE(result.m_compressed.empty());
    ASSERT_EQ(result.m_target.size(), 1U);
    expectSlice(result.m_target[0], 100, 8, range, 0);
}

TEST_F(ReaderTest, PieceGapPieceAreSlicesInViewOrder)
{
    Range range(100, 10, {plainRegion(100, 3, 5000), compressedRegion(108, 2, 7000, 4, 1500)});
    const Split result = split(range);
    ASSERT_EQ(result.m_journal.size(), 1U);
    expectSlice(result.m_journal[0], 5000, 3, range, 0);
    ASSERT_EQ(result.m_target.size(), 1U);
    expectSlice(result.m_target[0], 103, 5, range, 3);
    ASSERT_EQ(result.m_compressed.size(), 1U);
    const IODescriptorExCompressed& compressed = result.m_compressed[0];
    expectSlice(compressed, 7000, 2, range, 8);
    EXPECT_EQ(compressed.m_compIoLengthBytes, 1500U);
    EXPECT_EQ(compressed.m_regionOffsetLbWithinIo, 4U);
    EXPECT_EQ(compressed.m_regionLengthBlocks, 2U);
    EXPECT_FALSE(compressed.m_isCscan);
}

TEST_F(ReaderTest, GapPieceGapAreSlicesInViewOrder)
{
    Range range(100, 10, {plainRegion(104, 2, 5000)});
    const Split result = split(range);
    ASSERT_EQ(result.m_target.size(), 2U);
    expectSlice(result.m_target[0], 100, 4, range, 0);
    expectSlice(result.m_target[1], 106, 4, range, 6);
    ASSERT_EQ(result.m_journal.size(), 1U);
    expectSlice(result.m_journal[0], 5000, 2, range, 4);
}

TEST_F(ReaderTest, NeighboursAreReadsOfTheirOwnAndZeroesAreWithThePlain)
{
    Range range(0, 6,
                {plainRegion(0, 2, 5000), plainRegion(2, 2, 5002, 2), zeroesRegion(4, 1),
                 compressedRegion(5, 1, 9000, 0, 300, true)});
    const Split result = split(range);
    ASSERT_EQ(result.m_journal.size(), 3U);
    expectSlice(result.m_journal[0], 5000, 2, range, 0);
    expectSlice(result.m_journal[1], 5002, 2, range, 2);
    expectSlice(result.m_journal[2], SFS_DEV_ADDR_INVALID, 1, range, 4);
    ASSERT_EQ(result.m_compressed.size(), 1U);
    EXPECT_TRUE(result.m_compressed[0].m_isCscan);
    EXPECT_TRUE(result.m_target.empty());
}

TEST_F(ReaderTest, SlicesOfAScatteredBufferKeepItsMemory)
{
    u8 first[BLOCK_BYTES + 100];
    u8 second[3 * BLOCK_BYTES - 100];
    ScatteredBuf buf(first, sizeof(first));
    buf.addSegment(MemorySegment(sizeof(second), second, nullptr));
    Range range(100, 4, {plainRegion(101, 2, 5000)});
    range.m_request.scatteredBuf = buf;
    const Split result = split(range);
    ASSERT_EQ(result.m_journal.size(), 1U);
    const ScatteredBuf& slice = result.m_journal[0].m_data;
    ASSERT_EQ(slice.getSegmentsCount(), 2U);
    EXPECT_EQ(slice.getSegment(0).getPtr(), first + BLOCK_BYTES);
    EXPECT_EQ(slice.getSegment(0).getSize(), 100U);
    EXPECT_EQ(slice.getSegment(1).getPtr(), second);
    EXPECT_EQ(slice.getSegment(1).getSize(), 2 * BLOCK_BYTES - 100);
    ASSERT_EQ(result.m_target.size(), 2U);
    EXPECT_EQ(result.m_target[1].m_data.getSegment(0).getPtr(), second + 2 * BLOCK_BYTES - 100);
}

TEST_F(ReaderTest, RangesAreAppendedToWhatIsThere)
{
    Range first(0, 4, {plainRegion(0, 2, 5000)});
    Range second(50, 4, {compressedRegion(50, 1, 7000), plainRegion(51, 1, 6000)});
    Split result = split(first);
    Access::fillVectorsToReadFrom(m_reader, second.m_request, nullptr, &result.m_journal,
                                  &result.m_compressed, &result.m_target);
    ASSERT_EQ(result.m_journal.size(), 2U);
    expectSlice(result.m_journal[0], 5000, 2, first, 0);
    expectSlice(result.m_journal[1], 6000, 1, second, 1);
    ASSERT_EQ(result.m_target.size(), 2U);
    expectSlice(result.m_target[0], 2, 2, first, 2);
    expectSlice(result.m_target[1], 52, 2, second, 2);
    EXPECT_EQ(result.m_compressed.size(), 1U);
}

TEST_F(ReaderTest, TheLargestOffsetsAndPiecesFit)
{
    const u64 offset = ~u64{0} - 70000;
    std::vector<u8> bytes(u64{66000} * BLOCK_BYTES);
    Range range(offset, 0, {plainRegion(offset, 65535, 1 << 20)});
    range.m_request.lenBlocks = 66000;
    range.m_request.scatteredBuf = ScatteredBuf(bytes.data(), static_cast<u32>(bytes.size()));
    const Split result = split(range);
    ASSERT_EQ(result.m_journal.size(), 1U);
    EXPECT_EQ(result.m_journal[0].m_lengthBlocks, 65535U);
    ASSERT_EQ(result.m_target.size(), 1U);
    EXPECT_EQ(result.m_target[0].m_offsetBlocks, offset + 65535);
    EXPECT_EQ(result.m_target[0].m_lengthBlocks, 465U);
}

TEST_F(ReaderTest, SplittingLeavesNoTrackedObjectBehind)
{
    Range range(0, 6, {plainRegion(0, 2, 5000), zeroesRegion(4, 1)});
    const u64 before = MemShieldControl::liveObjects();
    split(range);
    EXPECT_EQ(MemShieldControl::liveObjects(), before);
}

TEST_F(ReaderTest, ALengthOfZeroIsReportedAndAddsNothing)
{
    Range range(100, 0, {});
    const LogCapture log;
    const Split result = split(range);
    EXPECT_TRUE(isSoftCheck(log.only(), FILL_SIGNATURE, "remainingLengthBlocks > 0",
                            "this function can't handle 0 length IOs", FILE_NAME));
    EXPECT_TRUE(result.m_journal.empty());
    EXPECT_TRUE(result.m_compressed.empty());
    EXPECT_TRUE(result.m_target.empty());
}

TEST_F(ReaderDeathTest, PiecesThatAreNotWhatTheyShouldBeStopTheProcess)
{
    const std::string pattern =
        hardCheckPattern("remainingLengthBlocks >= curLengthBlocks", FILE_NAME);
    // Each: not ascending; overlapping; before the range; beyond its end by a part; wholly;
    // so far beyond that 32 bits would not tell.
    const std::vector<Regions> wrong = {{plainRegion(104, 2, 5000), plainRegion(100, 2, 6000)},
                                        {plainRegion(100, 4, 5000), plainRegion(102, 4, 6000)},
                                        {plainRegion(98, 4, 5000)},
                                        {plainRegion(106, 3, 5000)},
                                        {plainRegion(109, 1, 5000)},
                                        {plainRegion(100 + (1ULL << 32), 1, 5000)}};
    for (const Regions& pieces : wrong) {
        Range range(100, 8, pieces);
        EXPECT_DEATH(split(range), pattern) << pieces;
    }
}

// ---- the step-by-step log ----

TEST_F(ReaderTest, WithoutATopicNothingIsWritten)
{
    Range range(100, 10, {plainRegion(102, 3, 5000), compressedRegion(108, 2, 7000)});
    const LogCapture log;
    split(range);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(ReaderTest, WithATopicEveryStepIsWritten)
{
    Range range(100, 12,
                {plainRegion(102, 3, 5000, 9), compressedRegion(105, 2, 7000, 4, 1500),
                 zeroesRegion(107, 2), compressedRegion(109, 1, 8000, 6, 512, true)});
    const LogCapture log;
    split(range, "TOPIC");
    const std::vector<LogRecord> records = log.records();
    const std::string where = "TOPIC: performReadFromSegments from where to read :  "
                              "curViewOffsetBlocks  ";
    const std::string piece = "TOPIC:performReadFromSegments read from log offset : ";
    const std::string target = "TOPIC: performReadFromSegments read from target volume : ";
    const std::vector<std::string> expected = {
        "TOPIC: performReadFromSegments remainingLengthBlocks : 12 subRegions.size()  4",
        where + "100",
        target + "100 m_lengthBlocks  2",
        where + "102",
        piece + "102 sfs offset  5000 m_lengthBlocks  3 offset from orig io 9",
        where + "105",
        piece + "105 sfs offset  7000 m_lengthBlocks  2 compressed IO size 3 offset in compressed "
                "IO 4",
        where + "107",
        piece + "107 sfs offset  18446744073709551615 m_lengthBlocks  2",
        where + "109",
        piece + "109 sfs offset  8000 m_lengthBlocks  1 compressed IO size 1 offset in compressed "
                "IO 6",
        where + "110",
        target + "110 m_lengthBlocks  2"};
    ASSERT_EQ(records.size(), expected.size()) << testing::PrintToString(records);
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(isRecord(records[i], LogModuleXel, InfoLevel, 0, FILL_SIGNATURE, expected[i]));
}

TEST_F(ReaderTest, AChecksumScanThatIsPlainSaysNothingOfItsOffset)
{
    SubRegionDescriptor scan = plainRegion(100, 2, 5000, 9);
    scan.init(100, 2, 5000, 9, 1024, false, false, true);
    Range range(100, 2, {scan});
    const LogCapture log;
    split(range, "T");
    EXPECT_EQ(log.texts().back(),
              "T:performReadFromSegments read from log offset : 100 sfs offset  5000 "
              "m_lengthBlocks  2");
}

TEST_F(ReaderTest, ALengthOfZeroWithATopicWritesItsFirstLineToo)
{
    Range range(100, 0, {});
    const LogCapture log;
    split(range, "T");
    ASSERT_EQ(log.records().size(), 2U);
    EXPECT_EQ(log.texts()[0],
              "T: performReadFromSegments remainingLengthBlocks : 0 subRegions.size()  0");
}

// ---- reading ----

class ReadTest : public ReaderTest
{
protected:
    void SetUp() override
    {
        m_objects = MemShieldControl::liveObjects();
        ASSERT_EQ(m_engine.open(), RC_SUCCESS);
    }
    void TearDown() override { EXPECT_EQ(m_engine.stop(), RC_SUCCESS); }

    Range& addRange(u64 offset, u32 length, Regions pieces)
    {
        m_ranges.emplace_back(offset, length, std::move(pieces));
        m_ios.push_back(m_ranges.back().m_request);
        return m_ranges.back();
    }
    RcStatus perform(AsyncTask* task)
    {
        return m_reader.performReadFromSegments(task, m_ios, VOLUME, AioPriority::Low, nullptr,
                                                ~u64{0}, m_monitor, m_uncompressMonitor, m_topic);
    }
    RcStatus read()
    {
        return runAndWait(m_engine, [this](AsyncTask* task) { return perform(task); });
    }

    TaskEngine m_engine{std::make_unique<ThreadScheduler>(2)};
    std::list<Range> m_ranges;
    std::vector<Request> m_ios;
    ISingleMonitor* m_monitor = nullptr;
    ISingleMonitor* m_uncompressMonitor = nullptr;
    const char* m_topic = nullptr;
    u64 m_objects = 0;
};

TEST_F(ReadTest, BringsJournalAndTargetTogether)
{
    Range& range = addRange(10, 6, {plainRegion(11, 2, 40), zeroesRegion(14, 1)});
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_EQ(range.block(0), m_volume.m_reads.valueOf(10));
    EXPECT_EQ(range.block(1), m_journal.m_reads.valueOf(40));
    EXPECT_EQ(range.block(2), m_journal.m_reads.valueOf(41));
    EXPECT_EQ(range.block(3), m_volume.m_reads.valueOf(13));
    EXPECT_EQ(range.block(4), 0);
    EXPECT_EQ(range.block(5), m_volume.m_reads.valueOf(15));
    EXPECT_TRUE(m_journal.markings().empty());
}

TEST_F(ReadTest, AllTargetReadsAreOneCallIssuedBeforeTheJournals)
{
    addRange(10, 6, {plainRegion(11, 2, 40)});
    addRange(100, 3, {});
    addRange(200, 4, {plainRegion(200, 1, 50), plainRegion(203, 1, 60)});
    EXPECT_EQ(read(), RC_SUCCESS);
    const std::vector<FakeReads::Call> target = m_volume.m_reads.calls();
    ASSERT_EQ(target.size(), 1U);
    EXPECT_EQ(target[0].m_volumeId, VOLUME);
    EXPECT_EQ(target[0].m_priority, AioPriority::Low);
    EXPECT_EQ(target[0].m_flags, 0U);
    std::vector<std::pair<u64, u32>> ranges;
    for (const IODescriptor& io : target[0].m_ios)
        ranges.emplace_back(io.m_offsetBlocks, io.m_lengthBlocks);
    EXPECT_EQ(ranges, (std::vector<std::pair<u64, u32>>{{10, 1}, {13, 3}, {100, 3}, {201, 2}}));
    const std::vector<FakeReads::Call> journal = m_journal.m_reads.calls();
    ASSERT_EQ(journal.size(), 1U);
    EXPECT_EQ(journal[0].m_ios.size(), 3U);
    EXPECT_EQ(journal[0].m_priority, AioPriority::Low);
    EXPECT_LT(target[0].m_sequence, journal[0].m_sequence);
}

TEST_F(ReadTest, WithoutGapsTheTargetIsNotAsked)
{
    addRange(10, 2, {plainRegion(10, 2, 40)});
    m_volume.m_reads.answerWith(RC_IO_ERROR);
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_TRUE(m_volume.m_reads.calls().empty());
}

TEST_F(ReadTest, WithoutPiecesTheJournalIsNotAsked)
{
    addRange(10, 2, {});
    m_journal.m_reads.answerWith(RC_IO_ERROR);
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_TRUE(m_journal.m_reads.calls().empty());
}

TEST_F(ReadTest, OfNothingAtAllSucceeds)
{
    EXPECT_EQ(read(), RC_SUCCESS);
}

TEST_F(ReadTest, OfALengthOfZeroIsReportedAndReadsTheOthers)
{
    addRange(10, 0, {});
    Range& range = addRange(20, 1, {});
    LogCapture log;
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_EQ(range.block(0), m_volume.m_reads.valueOf(20));
    EXPECT_TRUE(isSoftCheck(log.only(), FILL_SIGNATURE, "remainingLengthBlocks > 0",
                            "this function can't handle 0 length IOs", FILE_NAME));
}

TEST_F(ReadTest, BothAreInFlightTogetherAndBothAreAwaited)
{
    for (const bool journalFirst : {true, false}) {
        m_ios.clear();
        addRange(10, 4, {plainRegion(10, 2, 40)});
        FakeReads& journal = m_journal.m_reads;
        FakeReads& target = m_volume.m_reads;
        journal.hold();
        target.hold();
        const size_t calls = target.calls().size();
        BlockingTask task([this](AsyncTask* asyncTask) { return perform(asyncTask); });
        ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
        target.waitForCalls(calls + 1);
        journal.waitForCalls(calls + 1);
        (journalFirst ? journal : target).complete(RC_SUCCESS);
        EXPECT_EQ(m_engine.liveTasks(), 1U);
        (journalFirst ? target : journal).complete(RC_SUCCESS);
        EXPECT_EQ(task.wait(), RC_SUCCESS);
        EXPECT_EQ(m_ranges.back().block(0), journal.valueOf(40));
        EXPECT_EQ(m_ranges.back().block(3), target.valueOf(13));
    }
}

TEST_F(ReadTest, ATargetFailureIsTheOutcomeAndIsLogged)
{
    addRange(10, 4, {plainRegion(10, 2, 40)});
    m_volume.m_reads.answerWith(RC_IO_ERROR);
    const LogCapture log;
    EXPECT_EQ(read(), RC_IO_ERROR);
    EXPECT_TRUE(isRecord(log.only(), LogModuleXel, WarnLevel, 3, FRAME_SIGNATURE,
                         "failed reading IO from target"));
}

TEST_F(ReadTest, AJournalFailureIsTheOutcomeAfterTheTargetHasBeenAwaited)
{
    addRange(10, 4, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_BAD_CHECKSUM);
    m_volume.m_reads.hold();
    const LogCapture log;
    BlockingTask task([this](AsyncTask* asyncTask) { return perform(asyncTask); });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_journal.m_reads.waitForCalls(1);
    EXPECT_EQ(m_engine.liveTasks(), 1U);
    m_volume.m_reads.complete(RC_SUCCESS);
    EXPECT_EQ(task.wait(), RC_BAD_CHECKSUM);
    EXPECT_TRUE(m_journal.markings().empty());
    for (const LogRecord& record : log.records())
        EXPECT_NE(record.m_module, LogModuleXel) << record;
}

TEST_F(ReadTest, WhenBothFailTheJournalsStatusWinsAndTheTargetsIsLogged)
{
    addRange(10, 4, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_BAD_CHECKSUM);
    m_volume.m_reads.answerWith(RC_IO_ERROR);
    const LogCapture log;
    EXPECT_EQ(read(), RC_BAD_CHECKSUM);
    EXPECT_EQ(log.beginningWith("failed reading IO from target").size(), 1U);
}

TEST_F(ReadTest, ACorruptionOfTheTargetIsAFailureAndMarksNothing)
{
    // Only the journal speaks for its stream.
    const LogCapture log;
    addRange(10, 4, {plainRegion(10, 2, 40)});
    m_volume.m_reads.answerWith(RC_CORRUPTED_OBJECT);
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    EXPECT_TRUE(m_journal.markings().empty());
}

class CorruptedReadTest : public ReadTest
{
protected:
    void expectRecords(const LogCapture& log, RcStatus afterMarking)
    {
        std::vector<LogRecord> records;
        for (const LogRecord& record : log.records())
            if (record.m_module == LogModuleXel)
                records.push_back(record);
        ASSERT_EQ(records.size(), 2U) << testing::PrintToString(records);
        EXPECT_TRUE(isRecord(records[0], LogModuleXel, CtrLevel, 3, FRAME_SIGNATURE,
                             "Read IO returned corrupt. Probably due to decompression failure"));
        EXPECT_TRUE(isSoftCheck(records[1], FRAME_SIGNATURE, "false",
                                "decompression failed, set corrupted status: fg.getRc()=" +
                                    std::to_string(static_cast<u32>(afterMarking)) + " ",
                                FILE_NAME));
    }
    void expectMarked()
    {
        const std::vector<FakeJournal::Marking> markings = m_journal.markings();
        ASSERT_EQ(markings.size(), 1U);
        EXPECT_EQ(markings[0].m_mirrorId, MIRROR);
        EXPECT_EQ(markings[0].m_status, RC_CORRUPTED_OBJECT);
        EXPECT_EQ(markings[0].m_flags, 0U);
        EXPECT_NE(markings[0].m_task, nullptr);
    }
};

TEST_F(CorruptedReadTest, MarksTheStreamWhateverTheTargetAnswers)
{
    addRange(10, 4, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_CORRUPTED_OBJECT);
    const LogCapture log;
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    expectMarked();
    expectRecords(log, RC_SUCCESS);
}

TEST_F(CorruptedReadTest, DataThatDoesNotDecompressMarksTheStream)
{
    // The fake's bytes are no compressed IO.
    addRange(10, 4, {compressedRegion(10, 2, 40, 0, 700)});
    const LogCapture log;
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    expectMarked();
    expectRecords(log, RC_SUCCESS);
}

TEST_F(CorruptedReadTest, AFailureOfTheMarkingIsLoggedAndChangesNothing)
{
    addRange(10, 2, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_CORRUPTED_OBJECT);
    m_journal.answerMarkingWith(RC_NO_SPACE);
    const LogCapture log;
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    expectRecords(log, RC_NO_SPACE);
}

TEST_F(CorruptedReadTest, AMarkingThatWaitsIsAwaited)
{
    addRange(10, 2, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_CORRUPTED_OBJECT);
    m_journal.answerMarkingWith(RC_WAIT);
    const LogCapture log;
    BlockingTask task([this](AsyncTask* asyncTask) { return perform(asyncTask); });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_journal.waitForMarkings(1);
    EXPECT_EQ(m_engine.liveTasks(), 1U);
    AsyncTaskControlPriority::getControl(AsyncTaskPriority::Normal)
        ->enqueueToReadyQueue(&task, AsyncTaskQueue::ASYNC_TASK_Q_ID__RDY_CONTROL, RC_IO_ERROR);
    EXPECT_EQ(task.wait(), RC_CORRUPTED_OBJECT);
    expectRecords(log, RC_IO_ERROR);
}

TEST_F(CorruptedReadTest, TheTargetIsNotAwaited)
{
    addRange(10, 4, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_CORRUPTED_OBJECT);
    m_volume.m_reads.hold();
    const LogCapture log;
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    // Its buffers still belong to it.
    m_volume.m_reads.complete(RC_SUCCESS);
    EXPECT_EQ(m_ranges.back().block(3), m_volume.m_reads.valueOf(13));
}

// ---- monitors ----

TEST_F(ReadTest, TheMonitorMeasuresTheTargetAndASplitOneTheJournal)
{
    addRange(10, 6, {plainRegion(11, 2, 40)});
    addRange(100, 3, {});
    FakeMonitor monitor;
    m_monitor = &monitor;
    m_volume.m_reads.hold();
    BlockingTask task([this](AsyncTask* asyncTask) { return perform(asyncTask); });
    ASSERT_EQ(task.start(m_engine), RC_SUCCESS);
    m_journal.m_reads.waitForCalls(1);
    EXPECT_EQ(monitor.bytes(), (std::vector<u64>{7 * BLOCK_BYTES}));
    ASSERT_EQ(monitor.started().size(), 1U);
    EXPECT_FALSE(monitor.started()[0].isSet());
    EXPECT_EQ(monitor.diverged(), 1U);
    EXPECT_EQ(monitor.liveDiverged(), 1);
    m_volume.m_reads.complete(RC_SUCCESS);
    EXPECT_EQ(task.wait(), RC_SUCCESS);
    EXPECT_TRUE(monitor.started()[0].isSet());
    EXPECT_EQ(monitor.liveDiverged(), 0); // deleted with the read
}

TEST_F(ReadTest, TheMonitorIsToldOfNoTargetReadToo)
{
    addRange(10, 2, {plainRegion(10, 2, 40)});
    FakeMonitor monitor;
    m_monitor = &monitor;
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_EQ(monitor.bytes(), (std::vector<u64>{0}));
    ASSERT_EQ(monitor.started().size(), 1U);
    EXPECT_TRUE(monitor.started()[0].isSet());
    EXPECT_EQ(monitor.diverged(), 1U);
    EXPECT_EQ(monitor.liveDiverged(), 0);
}

TEST_F(ReadTest, TheSplitMonitorGoesAfterACorruptionToo)
{
    addRange(10, 2, {plainRegion(10, 2, 40)});
    m_journal.m_reads.answerWith(RC_CORRUPTED_OBJECT);
    FakeMonitor monitor;
    m_monitor = &monitor;
    const LogCapture log;
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    EXPECT_EQ(monitor.liveDiverged(), 0);
}

TEST_F(ReadTest, TheUncompressMonitorIsHandedOnAndNotSplit)
{
    addRange(10, 2, {compressedRegion(10, 2, 40, 0, 700)});
    FakeMonitor monitor;
    m_uncompressMonitor = &monitor;
    const LogCapture log;
    EXPECT_EQ(read(), RC_CORRUPTED_OBJECT);
    EXPECT_EQ(monitor.diverged(), 0U);
    EXPECT_EQ(monitor.started().size(), 1U);
}

// ---- the rest ----

TEST_F(ReadTest, HandsTheTopicOn)
{
    addRange(10, 2, {});
    m_topic = "MINE";
    const LogCapture log;
    EXPECT_EQ(read(), RC_SUCCESS);
    EXPECT_EQ(log.beginningWith("MINE: performReadFromSegments").size(), 3U);
}

TEST_F(ReadTest, LeavesNoTrackedObjectBehind)
{
    for (const RcStatus rc : {RC_SUCCESS, RC_IO_ERROR, RC_CORRUPTED_OBJECT}) {
        const LogCapture log;
        const u64 before = MemShieldControl::liveObjects();
        {
            m_ios.clear();
            addRange(10, 4, {plainRegion(10, 2, 40)});
            m_journal.m_reads.answerWith(rc);
            EXPECT_EQ(read(), rc);
        }
        EXPECT_EQ(MemShieldControl::liveObjects(), before) << rc;
    }
}

TEST_F(ReadTest, OneReaderServesManyReadsAtOnce)
{
    constexpr u32 READS = 16;
    std::list<Range> ranges;
    std::vector<std::vector<Request>> ios(READS);
    std::list<BlockingTask> tasks;
    m_journal.m_reads.hold();
    m_volume.m_reads.hold();
    for (u32 i = 0; i < READS; ++i) {
        ranges.emplace_back(10 * i, 2, Regions{plainRegion(10 * i, 1, 100 + i)});
        ios[i].push_back(ranges.back().m_request);
        tasks.emplace_back([this, &ios, i](AsyncTask* task) {
            return m_reader.performReadFromSegments(task, ios[i], VOLUME, AioPriority::Normal,
                                                    nullptr, ~u64{0}, nullptr, nullptr, nullptr);
        });
        ASSERT_EQ(tasks.back().start(m_engine), RC_SUCCESS);
    }
    m_journal.m_reads.waitForCalls(READS);
    for (u32 i = 0; i < READS; ++i) {
        m_volume.m_reads.complete(RC_SUCCESS);
        m_journal.m_reads.complete(RC_SUCCESS);
    }
    for (BlockingTask& task : tasks)
        EXPECT_EQ(task.wait(), RC_SUCCESS);
    u32 i = 0;
    for (const Range& range : ranges) {
        EXPECT_EQ(range.block(0), m_journal.m_reads.valueOf(100 + i));
        EXPECT_EQ(range.block(1), m_volume.m_reads.valueOf(10 * i + 1));
        ++i;
    }
}

TEST_F(ReaderDeathTest, AFrameInAnUnknownStateStopsTheProcess)
{
    EXPECT_DEATH(
        {
            AsyncTask task;
            auto* frame = new AsyncFrameCallback<RlIoReader>("test", &m_reader, nullptr);
            auto* guard = new FrameGuard(&task, frame);
            guard->setState(2);
            Access::runFrame(m_reader, &task, frame);
        },
        hardCheckPattern("0", FILE_NAME));
}

} // namespace
