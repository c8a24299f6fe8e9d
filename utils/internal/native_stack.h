// How much of the calling thread's native stack is left, for recursions
// whose depth the input decides (JSON nesting): they stop with an error
// instead of running off the end of a small thread stack.
#pragma once

#include <cstddef>

namespace utils {

// Bytes between the caller's frame and the end of the thread's stack; the
// largest size_t when the stack's bounds are unknown. The bounds are looked
// up once per thread.
size_t NativeStackLeft();

// What a recursion keeps free below its deepest level, for the calls that
// level makes (the Lua API, allocation, the unwinding of an error).
constexpr size_t kNativeStackReserve = size_t{32} << 10;

}  // namespace utils
