#include "tests/support/SlowStorage.h"

#include <chrono>
#include <thread>

class SlowFile : public StorageFile
{
public:
    SlowFile(SlowStorage& storage, std::unique_ptr<StorageFile> below)
        : m_storage(storage), m_below(std::move(below))
    {}

    RcStatus pread(void* data, u64 bytes, u64 offsetBytes, u64* doneBytes) override
    {
        m_storage.delay();
        return m_below->pread(data, bytes, offsetBytes, doneBytes);
    }
    RcStatus pwrite(const void* data, u64 bytes, u64 offsetBytes) override
    {
        m_storage.delay();
        return m_below->pwrite(data, bytes, offsetBytes);
    }
    RcStatus sync() override
    {
        m_storage.delay();
        return m_below->sync();
    }
    RcStatus size(u64* bytes) override
    {
        m_storage.delay();
        return m_below->size(bytes);
    }
    RcStatus truncate(u64 bytes) override
    {
        m_storage.delay();
        return m_below->truncate(bytes);
    }
    RcStatus reserve(u64 offsetBytes, u64 bytes) override
    {
        m_storage.delay();
        return m_below->reserve(offsetBytes, bytes);
    }
    RcStatus zeroRange(u64 offsetBytes, u64 bytes) override
    {
        m_storage.delay();
        return m_below->zeroRange(offsetBytes, bytes);
    }
    RcStatus nextData(u64 offsetBytes, u64* startBytes, u64* endBytes) override
    {
        m_storage.delay();
        return m_below->nextData(offsetBytes, startBytes, endBytes);
    }
    RcStatus lock() override
    {
        m_storage.delay();
        return m_below->lock();
    }

private:
    SlowStorage& m_storage;
    const std::unique_ptr<StorageFile> m_below;
};

SlowStorage::SlowStorage(std::unique_ptr<Storage> below, u64 delayUs)
    : m_below(std::move(below)), m_delayUs(delayUs)
{}

SlowStorage::~SlowStorage() = default;

void SlowStorage::start(std::function<void(u64 call)> hook)
{
    m_hook = std::move(hook);
    m_calls = 0;
}

void SlowStorage::delay()
{
    const u64 call = ++m_calls;
    if (m_hook)
        m_hook(call);
    if (m_delayUs != 0)
        std::this_thread::sleep_for(std::chrono::microseconds(m_delayUs));
}

RcStatus SlowStorage::open(const std::string& name, StorageAccess access,
                           std::unique_ptr<StorageFile>* file)
{
    delay();
    std::unique_ptr<StorageFile> opened;
    const RcStatus rc = m_below->open(name, access, &opened);
    if (rc == RC_SUCCESS)
        *file = std::make_unique<SlowFile>(*this, std::move(opened));
    return rc;
}

RcStatus SlowStorage::list(const std::string& folder, std::vector<std::string>* names)
{
    delay();
    return m_below->list(folder, names);
}

RcStatus SlowStorage::makeDir(const std::string& folder)
{
    delay();
    return m_below->makeDir(folder);
}

RcStatus SlowStorage::remove(const std::string& name)
{
    delay();
    return m_below->remove(name);
}

RcStatus SlowStorage::rename(const std::string& from, const std::string& to)
{
    delay();
    return m_below->rename(from, to);
}

RcStatus SlowStorage::exchange(const std::string& one, const std::string& other)
{
    delay();
    return m_below->exchange(one, other);
}

RcStatus SlowStorage::syncDir(const std::string& folder)
{
    delay();
    return m_below->syncDir(folder);
}
