// A piece of memory that belongs to an accounting group of a memory pool.
#pragma once

#include "common/infra/Types.h"

class ModuleMemoryInformation;

// A plain value: copies refer to the same memory. Only deleteContent() gives memory back.
class MemorySegment
{
public:
    // owner: the group that the memory is charged to; null for memory that no pool owns.
    MemorySegment(u32 sizeBytes, u8* ptr, ModuleMemoryInformation* owner)
        : m_ptr(ptr), m_owner(owner), m_sizeBytes(sizeBytes)
    {}

    u8* getPtr() const { return m_ptr; }
    u32 getSize() const { return m_sizeBytes; }
    ModuleMemoryInformation* getOwner() const { return m_owner; }

    // Returns the memory to its owner's pool, once for each piece of memory; does nothing when
    // nobody owns it. Any thread. The segment is empty afterwards.
    void deleteContent();

private:
    u8* m_ptr;
    ModuleMemoryInformation* m_owner;
    u32 m_sizeBytes;
};
