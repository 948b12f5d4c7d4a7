#pragma once

#include "CommandLine.h"

/// The commands. Each function adds one to the command line. Results go to standard output, everything else to standard
/// error.
namespace krvqt {

void addConvert(CommandLine& line);
void addThumbnails(CommandLine& line);
void addInfo(CommandLine& line);
void addMux(CommandLine& line);
void addMerge(CommandLine& line);
void addTimes(CommandLine& line);
void addBatch(CommandLine& line);
/// Adds "status", "cancel-all" and "shutdown".
void addServerCommands(CommandLine& line);
/// Adds "activity", which prints where the page is that shows what the running server does. Never launches a server.
void addActivity(CommandLine& line);
/// Adds "doctor".
void addDoctor(CommandLine& line);
/// Adds "record", which never contacts a server.
void addRecord(CommandLine& line);
void addTypes(CommandLine& line);
/// Adds "codecs" and "containers".
void addCodecs(CommandLine& line);
/// Adds "help". The command line must outlive what is added.
void addHelp(CommandLine& line);

/// Adds all of them, in the order in which help lists them.
void addCommands(CommandLine& line);

}  // namespace krvqt
