#include <gtest/gtest.h>

#include <KRVQTProcessClient/Logging/Logging.h>
#include <KRVQTProcessClient/Logging/LoggingDefaults.h>
#include <KRVQTProcessClient/Platform/UserDefaults.h>

namespace krv {
namespace {

TEST(LoggingDefaults, OpenTheGateWhenALevelIsSet) {
    UserDefaults& defaults = UserDefaults::standard();
    applyLoggingDefaults();
    EXPECT_FALSE(krv_loggingEnabled);
    defaults.setString("qtClientLogLevel", "15");
    defaults.setString("additionalApplicationLogLevel", "3");
    defaults.setString("quicktimeLoggingLevel", "15");
    applyLoggingDefaults();
    EXPECT_TRUE(krv_loggingEnabled);
    EXPECT_EQ(qtClientLogLevel, 15U);
    EXPECT_EQ(applicationLogLevel, 0U);
    EXPECT_EQ(additionalApplicationLogLevel, 3U);
    EXPECT_EQ(Logging::quicktimeLoggingLevel(), 15);
    defaults.setString("krv_loggingEnabled", "NO");
    applyLoggingDefaults();
    EXPECT_FALSE(krv_loggingEnabled);
    for (const char* key :
         {"qtClientLogLevel", "additionalApplicationLogLevel", "quicktimeLoggingLevel", "krv_loggingEnabled"}) {
        defaults.removeKey(key);
    }
    qtClientLogLevel = 0;
    additionalApplicationLogLevel = 0;
    Logging::setQuicktimeLoggingLevel(0);
}

}  // namespace
}  // namespace krv
