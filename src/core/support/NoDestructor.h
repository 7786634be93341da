#pragma once

#include <new>
#include <utility>

namespace pointlane {

// Holds an object for the whole life of the process and never destroys it.
//
// The one rule for the module-wide objects (the tracer, the database, the player registry, the
// notification centre, the quit-signal pipe): each is built on first use inside a
// function-local NoDestructor and is never torn down. Connection threads are detached and the
// database queue may still be writing while the process ends, so any of them may use these
// objects after static destructors would have run; never destroying them makes that safe. The
// memory stays reachable, so leak checkers do not count it.
//
// Thread safe to construct as a function-local static (C++ guarantees one construction).
template <class T>
class NoDestructor final {
  public:
    template <class... Args>
    explicit NoDestructor(Args&&... args) {
        new (storage_) T(std::forward<Args>(args)...);
    }
    // Deliberately leaves the object alone.
    ~NoDestructor() = default;
    NoDestructor(const NoDestructor&) = delete;
    NoDestructor& operator=(const NoDestructor&) = delete;

    T* get() { return std::launder(reinterpret_cast<T*>(storage_)); }
    T& operator*() { return *get(); }
    T* operator->() { return get(); }

  private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace pointlane
