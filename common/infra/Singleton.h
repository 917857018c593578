// One process-wide object of a type, created on first use.
#pragma once

#include <atomic>
#include <mutex>

// Singleton<Interface, Implementation>::instance() is the one Implementation, seen as an Interface.
//
// Thread safety: any thread at any time; creation runs once, under the singleton's mutex.
// The object is never destroyed, so that code which runs while the process ends may still use it.
template <class Interface, class Implementation> class Singleton
{
public:
    static Interface* instance()
    {
        Interface* object = s_instance.load(std::memory_order_acquire);
        return object != nullptr ? object : create();
    }

private:
    static Interface* create()
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        Interface* object = s_instance.load(std::memory_order_relaxed);
        if (object == nullptr) {
            object = new Implementation;
            s_instance.store(object, std::memory_order_release);
        }
        return object;
    }

    static inline std::atomic<Interface*> s_instance{nullptr};
    static inline std::mutex s_mutex;
};
