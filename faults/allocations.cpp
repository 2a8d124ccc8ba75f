// The memory that can be made to fail. That of C++ is apart from that of the C libraries, which may go on without.
#include <errno.h>

#include <cstddef>
#include <cstdlib>
#include <new>

#include "faults/injection.h"

using faults::Call;

extern "C" {

// The names that the C library, and the sanitizers if there are any, give what stands behind ours.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
__attribute__((weak)) void* __interceptor_malloc(std::size_t size);
__attribute__((weak)) void* __interceptor_calloc(std::size_t count, std::size_t size);
__attribute__((weak)) void* __interceptor_realloc(void* block, std::size_t size);

void* malloc(std::size_t size) noexcept {
    if (faults::verdict(Call::allocate) != 0) return errno = ENOMEM, nullptr;
    return __interceptor_malloc ? __interceptor_malloc(size) : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    if (faults::verdict(Call::allocate) != 0) return errno = ENOMEM, nullptr;
    return __interceptor_calloc ? __interceptor_calloc(count, size) : __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) noexcept {
    if (faults::verdict(Call::allocate) != 0) return errno = ENOMEM, nullptr;
    return __interceptor_realloc ? __interceptor_realloc(block, size) : __libc_realloc(block, size);
}

}  // extern "C"

#ifndef FAULTS_SANITIZED
// A sanitizer has one of its own, of which none fails.
void* operator new(std::size_t size) {
    void* block = faults::verdict(Call::allocateObject) != 0 ? nullptr : __libc_malloc(size);
    if (!block) std::abort();  // as what is thrown ends the programs, in which nothing catches it
    return block;
}
#endif
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
