// Tracked allocation of objects that outlive a call.
//
// Switched off, the shield counts allocations. Switched on (before the first object it is to know),
// it knows every live object by type name, file and line, finds a free of what it does not know,
// and reports what is left at exit.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

#include "common/infra/Types.h"

class MemShield
{
public:
    // Returns `size` bytes, aligned for any type; an allocation that fails ends the process.
    // flags: 0. typeName and file must live as long as the object (string literals).
    static void* allocAndRegister(size_t size, u32 flags, const char* typeName, const char* file,
                                  int line);

    // Whether live objects are being known one by one.
    static bool isActive();

    // Active only: stops the process when ptr is not the start of a live tracked object.
    static void verifyPtr(const void* ptr);

    // Frees ptr. The first form while active, the second one while not.
    static void freeAndUnregister(void* ptr, const char* file, int line);
    static void freeAndCount(void* ptr);
};

// Destroys and frees a tracked object; null is allowed.
template <class T> void internal_delete_helper(T* object, const char* file, int line)
{
    if (object == nullptr)
        return;
    void* memory;
    if constexpr (std::is_polymorphic_v<T>)
        memory = dynamic_cast<void*>(object);
    else
        memory = object;
    object->~T();
    if (MemShield::isActive()) {
        MemShield::verifyPtr(memory);
        MemShield::freeAndUnregister(memory, file, line);
    } else {
        MemShield::freeAndCount(memory);
    }
}

// SHIELD_NEW(Type, arguments...): a tracked object under its own type name; owned by the caller.
// SHIELD_NEW_AS(Type, "label", arguments...): the same under another label.
// SHIELD_DELETE(pointer): the matching delete.
#define SHIELD_NEW_AS(Type, label, ...)                                                            \
    (new (MemShield::allocAndRegister(sizeof(Type), 0, label, __FILE__, __LINE__))                 \
         Type(__VA_ARGS__))
#define SHIELD_NEW(Type, ...) SHIELD_NEW_AS(Type, #Type, __VA_ARGS__)
#define SHIELD_DELETE(pointer) internal_delete_helper((pointer), __FILE__, __LINE__)
