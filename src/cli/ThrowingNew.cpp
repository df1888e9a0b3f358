// The throwing forms of `new` for the program's allocator. mimalloc's own end the process when
// memory runs out (its C build cannot throw). These take memory from malloc, which mimalloc
// serves as well, and after the new-handler throw std::bad_alloc as the standard's do, so that
// running out of memory stays one line saying what was being done. The other forms (nothrow,
// delete) are mimalloc's, over the same heap.

#include <cstdlib>
#include <new>

namespace {

void* allocate(std::size_t size, std::size_t alignment) {
    if (size == 0) size = 1;
    for (;;) {
        void* memory = nullptr;
        if (alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
            memory = std::malloc(size);
        } else if (::posix_memalign(&memory, alignment, size) != 0) {
            memory = nullptr;
        }
        if (memory) return memory;
        const std::new_handler handler = std::get_new_handler();
        if (!handler) throw std::bad_alloc();
        handler();
    }
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size, 0); }
void* operator new[](std::size_t size) { return allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) { return allocate(size, std::size_t(alignment)); }
void* operator new[](std::size_t size, std::align_val_t alignment) { return allocate(size, std::size_t(alignment)); }
