#include <memory>
#include <string>

#include "ArgumentCheck.h"
#include "Commands.h"
#include "Help.h"
#include "Output.h"

namespace krvqt {

void addHelp(CommandLine& line) {
    const auto name = std::make_shared<std::string>();
    const auto show = [name, &line](const CommonOptions&) {
        printOut(helpText(name->empty() ? line.description() : commandNamed(line.description(), *name)));
        return kDone;
    };
    line.add("help", "show how to use krvqt or a command", show)
        .add_option("command", *name, "the command to explain")
        ->type_name("[COMMAND]");
}

}  // namespace krvqt
