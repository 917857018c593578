// Containers that the host's memory watcher can ask for their size.
#pragma once

#include <cstddef>
#include <utility>

#include "common/infra/Types.h"

// A named container. The numbers are the bytes of one item and of the container's own overhead,
// as the watcher adds them up.
class MemWatchedContainer
{
public:
    MemWatchedContainer(const char* name, u32 itemSizeBytes, u32 overheadBytes)
        : m_name(name), m_itemSizeBytes(itemSizeBytes), m_overheadBytes(overheadBytes)
    {}
    MemWatchedContainer(const MemWatchedContainer&) = delete;
    MemWatchedContainer& operator=(const MemWatchedContainer&) = delete;
    virtual ~MemWatchedContainer() = default;

    // Number of items held. The watcher may call it from any thread while registered.
    virtual u64 getItemCount() = 0;

    const char* getName() const { return m_name; }
    u32 getItemSizeBytes() const { return m_itemSizeBytes; }
    u32 getOverheadBytes() const { return m_overheadBytes; }

private:
    const char* m_name;
    u32 m_itemSizeBytes;
    u32 m_overheadBytes;
};

// All watched containers of the process. Thread safety: any thread.
class MemWatchedContainerDatabase
{
public:
    static MemWatchedContainerDatabase* instance();

    // A container is registered once its constructor is done, and unregistered before it is
    // destroyed. Not owned.
    virtual void registerContainer(MemWatchedContainer* container) = 0;
    virtual void unregisterContainer(MemWatchedContainer* container) = 0;

protected:
    virtual ~MemWatchedContainerDatabase() = default;
};

// A standard container that is watched for as long as it lives.
// The name is the interface's (sic).
//
// getItemCount() reads the container as it is, so its owner keeps writers away from the watcher's
// calls, or accepts a momentary view.
template <class Container> class StlMemShiledContainer : public Container,
                                                         public MemWatchedContainer
{
public:
    StlMemShiledContainer(const char* name, u32 itemSizeBytes, u32 overheadBytes)
        : MemWatchedContainer(name, itemSizeBytes, overheadBytes)
    {
        MemWatchedContainerDatabase::instance()->registerContainer(this);
    }
    ~StlMemShiledContainer() override
    {
        MemWatchedContainerDatabase::instance()->unregisterContainer(this);
    }

    u64 getItemCount() override { return this->size(); }
};
