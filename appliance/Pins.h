// What apply and trim must not pass: points that people hold, and points that somebody reads.
//
// A hold is a file of holds/, until it is released. A use is a file of uses/ that its process keeps
// locked; when the process has gone, however it went, the lock is gone too, and the file means
// nothing. Whoever adds a pin, and whoever moves what pins protect, does so under the latch; so
// neither can slip in between the other's look and its change.
//
// Who may not write cannot register what it reads, and nothing waits for it. It looks instead,
// after each read of the target, whether apply has gone beyond its point: where an apply goes is
// durable before it changes the first block of the target.
//
// Thread safety: any thread, of any process.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "appliance/Result.h"
#include "common/infra/Types.h"
#include "host/journal/Storage.h"

// Held for moments only.
class PinLatch
{
public:
    // Makes what the latch takes of the storage; a full disk leaves that to a later try.
    static Result prepare(Storage& storage);

    // Waits some seconds for whoever has it. InUse: still somebody does. *isRefused: whether it
    // failed because this user, or nobody, can write there.
    Result take(Storage& storage, bool* isRefused = nullptr);

private:
    std::unique_ptr<StorageFile> m_file;
};

struct Hold
{
    std::string m_name;
    u64 m_items = 0;
    std::string m_point; // as it was chosen: "cp:7"
};

// A name is 1 to 64 letters, digits, '.', '_' and '-', and begins with none of the last three.
// WrongUsage: no such name, or one that is taken.
// REQUIRES of both: the latch.
Result addHold(Storage& storage, const Hold& hold);
Result removeHold(Storage& storage, const std::string& name); // NotFound
// All holds, by name. Damaged: a hold that cannot be read is a hold still, so nothing may move.
Result listHolds(Storage& storage, std::vector<Hold>* holds);

// All ones: what is read is of no point, and apply may go anywhere.
constexpr u64 NO_ITEMS = ~u64{0};

struct UseInfo
{
    u64 m_items = 0;     // of the point that is read
    u64 m_firstPage = 0; // of the journal, that it may read
    u64 m_process = 0;
    std::string m_what; // "a view of cp:7"

    std::string description() const;
};

// One use, until it is destroyed.
class PointUse
{
public:
    // On a full disk the file is empty, and its name has the numbers. REQUIRES: the latch.
    // *isRefused: whether it failed because this user, or nobody, can write there.
    static Result add(Storage& storage, const UseInfo& info, std::unique_ptr<PointUse>* use,
                      bool* isRefused);
    // One that apply and trim know nothing of.
    static std::unique_ptr<PointUse> unregistered(Storage& storage, const UseInfo& info);
    ~PointUse();
    PointUse(const PointUse&) = delete;
    PointUse& operator=(const PointUse&) = delete;

    // Of a registered one, else "".
    const std::string& file() const { return m_path; }

    // Whether what was read of the target until now, holes too, is the point's; to be asked before
    // any of it is used. Costs nothing where the use is registered. RC_NOT_FOUND: apply may have
    // passed the point, which the log says once; else as loadApplyState().
    RcStatus confirmTarget();

private:
    PointUse(Storage& storage, const UseInfo& info, std::string path,
             std::unique_ptr<StorageFile> file);

    Storage& m_storage;
    const UseInfo m_info;
    const std::string m_path;
    const std::unique_ptr<StorageFile> m_file; // null: not registered
    std::atomic<bool> m_toldPassed{false};
};

// All uses whose process lives; the files of those that do not are removed. `except`: files that
// are left out, by PointUse::file(). REQUIRES: the latch.
Result listUses(Storage& storage, const std::vector<std::string>& except,
                std::vector<UseInfo>* uses);
