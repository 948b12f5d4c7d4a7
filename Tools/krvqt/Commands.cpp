#include "Commands.h"

namespace krvqt {

void addCommands(CommandLine& line) {
    addConvert(line);
    addThumbnails(line);
    addInfo(line);
    addMux(line);
    addMerge(line);
    addTimes(line);
    addBatch(line);
    addServerCommands(line);
    addActivity(line);
    addDoctor(line);
    addRecord(line);
    addTypes(line);
    addCodecs(line);
    addHelp(line);
}

}  // namespace krvqt
