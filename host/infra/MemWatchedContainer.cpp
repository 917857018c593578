#include "common/infra/MemWatchedContainer.h"

#include <map>
#include <unordered_set>

#include "common/infra/LogItem.h"
#include "common/infra/Mutex.h"
#include "common/infra/Singleton.h"
#include "host/infra/MemWatchedReport.h"

namespace {

class Database : public MemWatchedContainerDatabase
{
public:
    void registerContainer(MemWatchedContainer* container) override
    {
        MutexGuard lock(m_mutex);
        m_containers.insert(container);
    }

    void unregisterContainer(MemWatchedContainer* container) override
    {
        MutexGuard lock(m_mutex);
        m_containers.erase(container);
    }

    std::vector<MemWatchedGroup> report()
    {
        std::map<std::string, MemWatchedGroup> byName;
        MutexGuard lock(m_mutex);
        for (MemWatchedContainer* container : m_containers) {
            MemWatchedGroup& group = byName[container->getName()];
            const u64 items = container->getItemCount();
            group.m_containers += 1;
            group.m_items += items;
            group.m_sizeBytes +=
                items * container->getItemSizeBytes() + container->getOverheadBytes();
        }
        std::vector<MemWatchedGroup> result;
        for (auto& [name, group] : byName) {
            group.m_name = name;
            result.push_back(std::move(group));
        }
        return result;
    }

private:
    Mutex m_mutex;
    std::unordered_set<MemWatchedContainer*> m_containers RL_GUARDED_BY(m_mutex);
};

Database* database()
{
    return Singleton<Database, Database>::instance();
}

} // namespace

MemWatchedContainerDatabase* MemWatchedContainerDatabase::instance()
{
    return database();
}

std::vector<MemWatchedGroup> memWatchedReport()
{
    return database()->report();
}

void logMemWatchedReport()
{
    for (const MemWatchedGroup& group : memWatchedReport()) {
        LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
            << "watched " << group.m_name << ": containers=" << group.m_containers
            << " items=" << group.m_items << " bytes=" << group.m_sizeBytes << std::endl;
    }
}
