#include "Tests/Unit/Logging/FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace {

constinit thread_local bool failing = false;

}  // namespace

namespace utilia::test {

FailingAllocation::FailingAllocation() { failing = true; }
FailingAllocation::~FailingAllocation() { failing = false; }

}  // namespace utilia::test

void* operator new(std::size_t size) {
    void* const memory = failing ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (!memory) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
