// Checks the tables of Documentation/test-kit.md against the program.
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Script.h"

namespace krv::test_kit {
namespace {

/// Returns the quoted words in the first column of the table with that heading.
std::vector<std::string> rowsOf(const std::string& heading) {
    std::ifstream in(KRV_DOCUMENTATION "/test-kit.md");
    std::vector<std::string> rows;
    bool inTable = false;
    for (std::string line; std::getline(in, line);) {
        if (line == heading) {
            inTable = true;
        } else if (!line.starts_with("|")) {
            inTable = false;
        } else if (inTable && line.starts_with("| \"")) {
            rows.push_back(line.substr(3, line.find('"', 3) - 3));
        }
    }
    return rows;
}

/// Returns why a line cannot be played; empty if it can.
std::string problemOf(const std::string& line) {
    try {
        (void)parseScript(line);
        return {};
    } catch (const ScriptError& problem) {
        return problem.what();
    }
}

TEST(TestKitDocumentation, ListsEveryBehaviour) {
    const std::vector<std::string> rows = rowsOf("| \"do\" | What happens |");
    EXPECT_EQ(rows, (std::vector<std::string>{"succeed", "fail", "queueFull", "die", "exit", "stall", "forget",
                                              "garbage", "status", "drop", "hang"}));
    for (const std::string& row : rows) {
        EXPECT_EQ(problemOf(R"({"do": ")" + row + R"(", "error": {"code": 1}, "status": 500})"), "") << row;
    }
}

TEST(TestKitDocumentation, ListsOnlyKeysThatExist) {
    const std::vector<std::string> rows = rowsOf("| Key | Kind | Meaning |");
    EXPECT_EQ(rows.size(), 15U);
    for (const std::string& row : rows) {
        // null is no valid value of any of them, but an unknown key is another problem.
        EXPECT_EQ(problemOf("{\"" + row + "\": null}").find("has no key"), std::string::npos) << row;
        EXPECT_NE(problemOf("{\"" + row + "\": null}"), "") << row;
    }
    EXPECT_NE(problemOf("{\"opration\": null}").find("has no key"), std::string::npos);
}

}  // namespace
}  // namespace krv::test_kit
