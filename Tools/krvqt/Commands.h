#pragma once

#include <string>

#include "ExitStatus.h"
#include "Options.h"

/// The commands. Results go to standard output, everything else to standard error.
namespace krvqt {

ExitStatus convert(const ConvertOptions& options, const CommonOptions& common);
ExitStatus makeThumbnails(const ThumbnailsOptions& options, const CommonOptions& common);
ExitStatus showInfo(const InfoOptions& options, const CommonOptions& common);
ExitStatus mux(const MuxOptions& options, const CommonOptions& common);
ExitStatus merge(const MergeOptions& options, const CommonOptions& common);
ExitStatus showTimes(const TimesOptions& options, const CommonOptions& common);
ExitStatus showStatus(const CommonOptions& common);
ExitStatus cancelAll(const CommonOptions& common);
ExitStatus shutDown(const CommonOptions& common);
/// Prints the record archived in a file ("-" is standard input). Does not contact a server.
ExitStatus showRecord(const std::string& file, const CommonOptions& common);
ExitStatus showTypes(const CommonOptions& common);

}  // namespace krvqt
