#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/StateFolder.h>

#include "TemporaryFolder.h"

namespace krv {
namespace {

namespace fs = std::filesystem;

class StateFolder : public testing::Test {
protected:
    StateFolder()
        : state_(value("XDG_STATE_HOME"))
        , home_(value("HOME")) {}
    ~StateFolder() override {
        set("XDG_STATE_HOME", state_);
        set("HOME", home_);
    }

    static void set(const char* variable, const std::optional<std::string>& value) {
        if (value) {
            ::setenv(variable, value->c_str(), 1);
        } else {
            ::unsetenv(variable);
        }
    }

    const test::TemporaryFolder folder_;

private:
    static std::optional<std::string> value(const char* variable) {
        const char* const text = std::getenv(variable);
        return text ? std::optional<std::string>(text) : std::nullopt;
    }
    const std::optional<std::string> state_;
    const std::optional<std::string> home_;
};

TEST_F(StateFolder, IsCreatedBelowTheStateHome) {
    const fs::path base(folder_.path());
    set("XDG_STATE_HOME", (base / "state").string());
    set("HOME", (base / "home").string());
    EXPECT_EQ(stateFolder("Name"), (base / "state/Name").string());
    EXPECT_TRUE(fs::is_directory(base / "state/Name"));
    EXPECT_FALSE(fs::exists(base / "home"));
    EXPECT_EQ(stateFolder("Name"), (base / "state/Name").string());
}

TEST_F(StateFolder, IsBelowTheHomeWithoutAnAbsoluteStateHome) {
    const fs::path base(folder_.path());
    set("HOME", base.string());
    for (const auto& given : {std::optional<std::string>(), std::optional<std::string>("relative")}) {
        set("XDG_STATE_HOME", given);
        EXPECT_EQ(stateFolder("Name"), (base / ".local/state/Name").string());
    }
}

TEST_F(StateFolder, IsEmptyWithoutAHomeOrWhenItCannotBeCreated) {
    const fs::path base(folder_.path());
    set("XDG_STATE_HOME", std::nullopt);
    set("HOME", std::nullopt);
    EXPECT_EQ(stateFolder("Name"), "");
    std::ofstream(base / "file") << "in the way";
    set("XDG_STATE_HOME", (base / "file").string());
    EXPECT_EQ(stateFolder("Name"), "");
}

}  // namespace
}  // namespace krv
