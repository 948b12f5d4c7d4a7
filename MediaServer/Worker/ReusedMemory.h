#pragma once

namespace krv::server {

/// Makes this process, and those forked from it, merge each small block of memory that is freed with its neighbours at
/// once. The C library puts them aside and merges them all whenever a large one is freed, which media code does for
/// every packet.
void mergeFreedMemory() noexcept;

/// Makes this process keep the memory that it frees, and get more of it in large pages. Decoders need some megabytes,
/// which are freed and allocated again several times within the milliseconds of a short job, and most of that time
/// would be spent in the kernel for single pages. For jobs that need little memory: it is never returned. Call it
/// before the job, while there is one thread.
void reuseMemory() noexcept;

}  // namespace krv::server
