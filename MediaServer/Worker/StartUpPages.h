#pragma once

namespace krv::server {

/// Lets go of the pages of programs and libraries that only starting has touched: symbol tables, relocations,
/// initialisers. A waiting worker keeps some twenty megabytes less of its 150 libraries mapped, and what it needs of
/// them later comes back from the page cache.
void dropStartUpPages();

}  // namespace krv::server
