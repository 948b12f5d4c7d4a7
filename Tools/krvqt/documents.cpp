// Prints a document about krvqt that is made from the description of its command line: "man", "bash", "zsh" or "fish".
#include <string_view>

#include "Commands.h"
#include "Completions.h"
#include "ManPage.h"
#include "Output.h"

int main(int argc, char** argv) {
    krvqt::CommandLine line;
    krvqt::addCommands(line);
    const std::string_view wanted = argc == 2 ? argv[1] : "";
    if (wanted == "man") {
        krvqt::printOut(krvqt::manPage(line.description()));
    } else if (wanted == "bash") {
        krvqt::printOut(krvqt::bashCompletion(line.description()));
    } else if (wanted == "zsh") {
        krvqt::printOut(krvqt::zshCompletion(line.description()));
    } else if (wanted == "fish") {
        krvqt::printOut(krvqt::fishCompletion(line.description()));
    } else {
        return 2;
    }
    return krvqt::outputFailure() == 0 ? 0 : 1;
}
