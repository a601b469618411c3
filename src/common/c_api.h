// The one exception barrier of the C ABI.
//
// Every exported function validates its arguments and then runs its work
// inside c_entry: nothing thrown below (std::bad_alloc from a string or a
// vector, a logic error) may leave the library through a C caller's frame.
// A caught exception is logged with the entry point's name and the entry
// point returns its documented failure value.
#pragma once

#include <exception>
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

}  // namespace appmgr
