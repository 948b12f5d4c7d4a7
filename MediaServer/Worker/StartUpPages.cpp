#include <cstdint>

#include <sys/mman.h>
#include <unistd.h>

#include <link.h>

#include <MediaServer/Worker/StartUpPages.h>

namespace krv::server {
namespace {

/// Drops the segments that were never writable. The others contain relocated addresses, which are in no file.
int dropReadOnlySegments(dl_phdr_info* object, std::size_t /*size*/, void* /*userdata*/) {
    const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) {
            continue;
        }
        const std::uintptr_t begin = (object->dlpi_addr + segment.p_vaddr) & ~(page - 1);
        const std::uintptr_t end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
    }
    return 0;
}

}  // namespace

void dropStartUpPages() {
    ::dl_iterate_phdr(&dropReadOnlySegments, nullptr);
}

}  // namespace krv::server
