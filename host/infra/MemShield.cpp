#include "common/infra/MemShield.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <tuple>
#include <unordered_map>

#include "common/infra/Assert.h"
#include "host/infra/MemShieldControl.h"

namespace {

struct LiveObject
{
    size_t m_sizeBytes;
    const char* m_typeName;
    const char* m_file;
    int m_line;
};

// Never destroyed: tracked objects of static storage are freed late.
class Shield
{
public:
    static Shield& instance()
    {
        static Shield* shield = new Shield;
        return *shield;
    }

    bool isActive() const { return m_active.load(std::memory_order_relaxed); }

    RcStatus setActive(bool active)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (active != isActive() && m_allocated.load() != m_freed.load())
            return RC_IN_USE;
        if (active && !m_reportsAtExit) {
            m_reportsAtExit = true;
            std::atexit([] { MemShieldControl::reportLeaks(); });
        }
        m_active.store(active, std::memory_order_relaxed);
        return RC_SUCCESS;
    }

    void add(void* memory, const LiveObject& object)
    {
        m_allocated.fetch_add(1, std::memory_order_relaxed);
        if (!isActive())
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_live[memory] = object;
    }

    bool knows(const void* memory)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_live.count(memory) != 0;
    }

    bool remove(const void* memory)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_live.erase(memory) != 0;
    }

    void countFree() { m_freed.fetch_add(1, std::memory_order_relaxed); }

    u64 allocated() const { return m_allocated.load(); }
    u64 freed() const { return m_freed.load(); }

    std::vector<MemShieldGroup> groups()
    {
        std::map<std::tuple<std::string, std::string, int>, MemShieldGroup> byPlace;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& [memory, object] : m_live) {
            MemShieldGroup& group =
                byPlace[std::make_tuple(object.m_typeName, object.m_file, object.m_line)];
            group.m_typeName = object.m_typeName;
            group.m_file = object.m_file;
            group.m_line = object.m_line;
            group.m_count += 1;
            group.m_sizeBytes += object.m_sizeBytes;
        }
        std::vector<MemShieldGroup> result;
        for (auto& [place, group] : byPlace)
            result.push_back(std::move(group));
        return result;
    }

private:
    Shield()
    {
        const char* setting = std::getenv("RL_MEMSHIELD");
        if (setting != nullptr && std::strcmp(setting, "1") == 0)
            setActive(true);
    }

    std::atomic<bool> m_active{false};
    std::atomic<u64> m_allocated{0};
    std::atomic<u64> m_freed{0};
    std::mutex m_mutex;
    bool m_reportsAtExit = false;
    std::unordered_map<const void*, LiveObject> m_live;
};

} // namespace

void* MemShield::allocAndRegister(size_t size, u32, const char* typeName, const char* file,
                                  int line)
{
    void* memory = ::operator new(size, std::nothrow);
    HARD_CHECK(memory != nullptr);
    Shield::instance().add(memory, LiveObject{size, typeName, file, line});
    return memory;
}

bool MemShield::isActive()
{
    return Shield::instance().isActive();
}

void MemShield::verifyPtr(const void* ptr)
{
    const bool isLiveTrackedObject = !isActive() || Shield::instance().knows(ptr);
    HARD_CHECK(isLiveTrackedObject);
}

void MemShield::freeAndUnregister(void* ptr, const char*, int)
{
    const bool isLiveTrackedObject = Shield::instance().remove(ptr);
    HARD_CHECK(isLiveTrackedObject);
    freeAndCount(ptr);
}

void MemShield::freeAndCount(void* ptr)
{
    ::operator delete(ptr);
    Shield::instance().countFree();
}

RcStatus MemShieldControl::enable()
{
    return Shield::instance().setActive(true);
}

RcStatus MemShieldControl::disable()
{
    return Shield::instance().setActive(false);
}

u64 MemShieldControl::liveObjects()
{
    const u64 freed = Shield::instance().freed();
    return Shield::instance().allocated() - freed;
}

u64 MemShieldControl::allocations()
{
    return Shield::instance().allocated();
}

std::vector<MemShieldGroup> MemShieldControl::liveGroups()
{
    return Shield::instance().groups();
}

u64 MemShieldControl::reportLeaks()
{
    u64 objects = 0;
    for (const MemShieldGroup& group : liveGroups()) {
        objects += group.m_count;
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << "leak: " << group.m_count << " x " << group.m_typeName << ", " << group.m_sizeBytes
            << " bytes, allocated at " << group.m_file << " " << group.m_line << std::endl;
    }
    return objects;
}
