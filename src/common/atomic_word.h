// Acquire loads and release stores of words that several threads share but
// whose type the C ABI fixes (exported ints, enums, descriptors): they
// cannot be std::atomic, so every access to them goes through these two.
#pragma once

namespace appmgr {

template <typename T>
T load_acquire(const T& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

template <typename T>
void store_release(T& word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

}  // namespace appmgr
