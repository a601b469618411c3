// The one exception barrier of the C ABI.
//
// Every exported function validates its arguments and then runs its work
// inside c_entry: nothing thrown below (std::bad_alloc from a string or a
// vector, a logic error) may leave the library through a C caller's frame.
// A caught exception is logged with the entry point's name and the entry
// point returns its documented failure value.
#pragma once

#include <cstring>
#include <exception>
#include <type_traits>
#include <utility>

#include "common/log.h"

namespace appmgr {

template <typename Result, typename Body>
Result c_entry(const char* entry_point, Result failure, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& e) {
        AM_ERROR("%s failed: %s", entry_point, e.what());
    } catch (...) {
        AM_ERROR("%s failed: unknown exception", entry_point);
    }
    return failure;
}

template <typename Body>
void c_entry_void(const char* entry_point, Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
    } catch (const std::exception& e) {
        AM_ERROR("%s failed: %s", entry_point, e.what());
    } catch (...) {
        AM_ERROR("%s failed: unknown exception", entry_point);
    }
}

// Enum parameters and fields of the C ABI carry whatever int a C caller put
// in them (a C enum is an int): a middleware or a browser may send any
// number. C++ code reads and writes them as ints through these two, never
// as enum values: outside the range of its enumerators a C++ enum value is
// undefined.
template <typename Enum>
int c_enum(const Enum& value) noexcept {
    static_assert(std::is_enum_v<Enum> && sizeof(Enum) == sizeof(int), "a C enum travels as an int");
    int bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

template <typename Enum>
void set_c_enum(Enum& field, int value) noexcept {
    static_assert(std::is_enum_v<Enum> && sizeof(Enum) == sizeof(int), "a C enum travels as an int");
    std::memcpy(&field, &value, sizeof value);
}

}  // namespace appmgr
