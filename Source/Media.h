#pragma once

/// \file
/// The interface for applications: one call, one typed result. An application needs to include only this header.

#if !defined(__cplusplus) || __cplusplus < 202002L
#error "KRVQTProcessClient needs C++20 or later"
#endif

#include <KRVQTProcessClient/Jobs/Media.h>
