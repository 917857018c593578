// What a mirror is: the content of its mirror.json.
//
// Thread safety: plain values and pure functions.
#pragma once

#include <string>

#include "appliance/Result.h"
#include "host/journal/Compression.h"
#include "host/journal/Storage.h"

// The least that a journal may be limited to: it frees whole grains of 16 MiB only, so one of less
// could be full of what nobody needs any more. There are mirrors of before that have less.
constexpr u64 LEAST_JOURNAL_LIMIT_BYTES = u64{17} << 20;

// The longest that checkpoints may be kept for: times are counted in microseconds.
constexpr u64 MOST_KEEP_FOR_SECONDS = ~u64{0} / 1000000;

struct MirrorSettings
{
    // 1: the target was never written to, the journal never trimmed. 2: they may have been.
    static constexpr u32 FORMAT_VERSION = 2;
    static constexpr const char* FILE_NAME = "mirror.json";

    u32 m_formatVersion = FORMAT_VERSION; // of the folder
    u64 m_id = 0;                         // names the mirror in logs and to the driver; random
    u64 m_sizeBytes = 0;
    std::string m_target; // path of the target volume; empty for the file "target" in the folder
    Compression m_compression = Compression::None;
    u64 m_journalLimitBytes = 0; // 0 for none
    u64 m_keepCheckpoints = 0;   // retention keeps so many of the newest; 0: no such rule
    u64 m_keepForSeconds = 0;    // and those that are younger; 0: no such rule

    u64 sizeBlocks() const { return m_sizeBytes / BLOCK_BYTES; }
};

// WrongUsage: a limit that is too small; 0 is none.
Result checkJournalLimit(u64 limitBytes);

// WrongUsage: longer than the most.
Result checkKeepFor(u64 seconds);

// Writes the file as one step, durably.
Result storeSettings(Storage& storage, const MirrorSettings& settings);

// Takes the room for that beforehand, where there is any, so that a full disk can be told of.
Result reserveSettings(Storage& storage);

// NotFound: the folder has no such file, so it is no mirror; Damaged: it is not what a mirror's
// file has to be, the message says why. folder: for the messages.
Result loadSettings(Storage& storage, const std::string& folder, MirrorSettings* settings);
