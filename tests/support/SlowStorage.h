// A storage over another one whose every call takes its time, is counted, and can be met by a test.
//
// No file of it has a descriptor, so that nothing reaches one around it.
//
// Thread safety: as the storage below; the hook is called from any thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/journal/Storage.h"

class SlowStorage : public Storage
{
public:
    SlowStorage(std::unique_ptr<Storage> below, u64 delayUs);
    ~SlowStorage() override;

    RcStatus open(const std::string& name, StorageAccess access,
                  std::unique_ptr<StorageFile>* file) override;
    RcStatus list(const std::string& folder, std::vector<std::string>* names) override;
    RcStatus makeDir(const std::string& folder) override;
    RcStatus remove(const std::string& name) override;
    RcStatus rename(const std::string& from, const std::string& to) override;
    RcStatus exchange(const std::string& one, const std::string& other) override;
    RcStatus syncDir(const std::string& folder) override;

    // Of the storage and of its files, since the last start().
    u64 calls() const { return m_calls; }

    // Counts anew; hook: called at the beginning of each call with its number, from 1; empty: none.
    // REQUIRES: no call is under way.
    void start(std::function<void(u64 call)> hook);

private:
    friend class SlowFile;
    void delay();

    const std::unique_ptr<Storage> m_below;
    const u64 m_delayUs;
    std::function<void(u64 call)> m_hook;
    std::atomic<u64> m_calls{0};
};
