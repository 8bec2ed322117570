// A shared library that stands before libc and counts what is on the heap (HeapCount.h).
//
// Nothing in here allocates: the loader and other libraries' constructors come through here before this one's.

#include "Tests/Process/Soak/HeapCount.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using utilia::test::HeapCount;

HeapCount early;  // until there is the file
std::atomic<HeapCount*> current{&early};

std::int64_t sizeOf(void* block) { return static_cast<std::int64_t>(malloc_usable_size(block)); }

void add(std::int64_t bytes) {
    current.load(std::memory_order_relaxed)->bytes.fetch_add(bytes, std::memory_order_relaxed);
}

void* counted(void* block) {
    add(sizeOf(block));
    return block;
}

// The process has one thread yet.
[[gnu::constructor]] void openFile() {
    const char* const path = std::getenv(utilia::test::kHeapCountVariable);
    if (!path) return;
    const int file = open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) return;
    void* const memory =
        mmap(nullptr, sizeof(HeapCount), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (memory == MAP_FAILED) return;
    unsetenv(utilia::test::kHeapCountVariable);
    unsetenv("LD_PRELOAD");
    auto* const shared = static_cast<HeapCount*>(memory);
    shared->bytes = early.bytes.load();
    current = shared;
}

}  // namespace

extern "C" {

// dlsym may itself allocate, so these go to libc by name.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) { return counted(__libc_malloc(size)); }
void* calloc(size_t count, size_t size) { return counted(__libc_calloc(count, size)); }
void* memalign(size_t alignment, size_t size) { return counted(__libc_memalign(alignment, size)); }
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }

int posix_memalign(void** block, size_t alignment, size_t size) {
    void* const made = memalign(alignment, size);
    if (!made) return ENOMEM;
    *block = made;
    return 0;
}

void* realloc(void* block, size_t size) {
    const std::int64_t before = sizeOf(block);
    void* const made = __libc_realloc(block, size);
    // Without memory the block stays as it was; of no size, it is freed.
    if (made || size == 0) add(sizeOf(made) - before);
    return made;
}

void free(void* block) {
    add(-sizeOf(block));
    __libc_free(block);
}
}
