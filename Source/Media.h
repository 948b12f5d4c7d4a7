#pragma once

/// \file
/// The interface for applications: one call, one typed result. An application needs to include only this header.

#include <KRVQTProcessClient/Jobs/Diagnosis.h>
#include <KRVQTProcessClient/Jobs/Media.h>
