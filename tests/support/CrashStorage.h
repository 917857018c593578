// A storage in memory that can lose power.
//
// What was not synced is kept apart, sector by sector, in the order in which it was written. A
// crash image is made by deciding the fate of each of these units: kept, lost, or torn, which
// leaves a prefix of the new bytes in the sector. As each unit is decided alone, every subset and
// with it every order between two barriers can be had. Names are units as well.
//
// It can be as small as a test wants: then a sector that nothing was written to or reserved for yet
// may find no room. Names take none.
//
// It can also fail the N-th call of a kind, or answer nothing any more after N changes, as a
// machine does that lost its power.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/journal/Storage.h"
#include "tests/support/SectorContent.h"

// Thread safety: any thread, except crash() and the file access for tests.
class CrashStorage : public Storage
{
public:
    enum class Call
    {
        Read,
        Write,
        Sync, // of files and folders
        Create,
        Open, // of any file, also of one that is not there yet
        Reserve,
    };

    // Kept, Lost, or the number of new bytes that a torn sector got.
    struct Fate
    {
        enum Kind
        {
            Lost,
            Kept,
            Torn
        } m_kind = Lost;
        u32 m_bytes = 0;
    };
    using Chooser = std::function<Fate(size_t unit)>;

    CrashStorage();
    ~CrashStorage() override;

    RcStatus open(const std::string& name, StorageAccess access,
                  std::unique_ptr<StorageFile>* file) override;
    RcStatus list(const std::string& folder, std::vector<std::string>* names) override;
    RcStatus makeDir(const std::string& folder) override;
    RcStatus remove(const std::string& name) override;
    RcStatus rename(const std::string& from, const std::string& to) override;
    RcStatus exchange(const std::string& one, const std::string& other) override;
    RcStatus syncDir(const std::string& folder) override;

    // Every change (write, truncate, sync, creation, removal) counts; after `changes` of them in
    // all, every call fails with RC_IO_ERROR and changes nothing.
    void dieAfter(u64 changes);
    u64 changes() const;
    bool isDead() const;

    // How many bytes were to be on their way before they are synced.
    u64 startedBytes() const;

    // Lets the n-th call of a kind from now (1 is the next one) fail; `always`: and all after it.
    void failCall(Call call, u64 n, RcStatus rc, bool always = false);
    void noFaults();

    // Most sectors that all files may have, those included that only a power cut would bring back;
    // what is there already stays.
    void setCapacity(u64 sectors);
    u64 usedSectors() const;

    // What a machine finds after a power cut now. Units are numbered from 0 to unsynced() - 1.
    size_t unsynced() const;
    size_t unsyncedNames() const { return m_unsyncedNames.size(); } // the first of them
    std::unique_ptr<CrashStorage> crash(const Chooser& fate) const;

    // All as it is seen now, durable, and without locks: what a restarted process finds.
    std::unique_ptr<CrashStorage> restart() const;

    // The same without locks, with what was not synced still lost by a later power cut: what a
    // process finds that comes after one that was killed.
    std::unique_ptr<CrashStorage> takeOver() const;

    // For tests that damage files: the names, and the offsets of the sectors that were ever
    // written.
    std::vector<std::string> files() const;
    std::vector<u64> sectorOffsets(const std::string& name) const;
    u64 sizeOf(const std::string& name) const;
    u8 byteAt(const std::string& name, u64 offsetBytes) const;
    void setByte(const std::string& name, u64 offsetBytes, u8 value);
    void cutFile(const std::string& name, u64 sizeBytes);
    void dropFile(const std::string& name);

private:
    friend class CrashFile;
    static constexpr u32 SECTOR_BYTES = SectorContent::SECTOR_BYTES;

    struct Change // of a file: a write within one sector, or a truncation
    {
        bool m_truncate = false;
        u64 m_offset = 0;
        // All changes of one request share its data.
        std::shared_ptr<const std::vector<u8>> m_data{};
        u64 m_from = 0; // in the data
        u64 m_bytes = 0;
    };

    struct Inode
    {
        SectorContent m_current;
        SectorContent m_durable;
        std::vector<Change> m_unsynced;
        std::set<u64> m_reserved; // sectors without content that have room
        bool m_locked = false;
    };
    using InodePtr = std::shared_ptr<Inode>;
    using Names = std::map<std::string, InodePtr>;

    struct NameChange
    {
        std::string m_name;
        InodePtr m_inode;          // null: removed
        std::string m_otherName{}; // of an exchange
        InodePtr m_otherInode{};
    };

    // Called at the start of each call, under the mutex; a failure is the call's.
    RcStatus begin(Call call, bool changes);
    u64 usedLocked() const;

    // How many of the sectors from there on the file has room for, or gets it now.
    u64 takeSectors(Inode& inode, u64 first, u64 count);

    mutable std::mutex m_mutex;
    Names m_current;
    Names m_durable;
    std::vector<NameChange> m_unsyncedNames;
    u64 m_changes = 0;
    u64 m_startedBytes = 0;
    u64 m_dieAfter = ~u64{0};
    u64 m_capacity = ~u64{0}; // sectors
    struct Fault
    {
        u64 m_n = 0; // calls until it fails; 0 for never
        RcStatus m_rc = RC_SUCCESS;
        bool m_always = false;
    };
    std::map<Call, Fault> m_faults;
};
