#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Linux/LoopbackURL.h>

namespace krv {
namespace {

const LoopbackURL* accepted(const std::variant<LoopbackURL, std::string>& result) {
    return std::get_if<LoopbackURL>(&result);
}

TEST(LoopbackURL, ReadsHostAndPort) {
    for (const char* host : {"localhost", "127.0.0.1", "[::1]"}) {
        const auto result = readLoopbackURL(std::string("http://") + host + ":8000/status");
        ASSERT_TRUE(accepted(result)) << host;
        EXPECT_EQ(accepted(result)->host, host);
        EXPECT_EQ(accepted(result)->port, 8000);
    }
    EXPECT_TRUE(accepted(readLoopbackURL("http://localhost:1")));
    EXPECT_TRUE(accepted(readLoopbackURL("http://localhost:65535")));
}

TEST(LoopbackURL, RefusesPortsOutOfRangeAsAConnectionError) {
    for (const char* port : {"0", "-1", "65536", "99999999999999999999"}) {
        const auto result = readLoopbackURL(std::string("http://localhost:") + port);
        ASSERT_FALSE(accepted(result)) << port;
        EXPECT_TRUE(std::get<std::string>(result).starts_with("Could not connect")) << port;
    }
}

TEST(LoopbackURL, AcceptsOnlyHTTPToThisMachine) {
    for (const char* url :
         {"", "localhost", "localhost:8000", "https://localhost:8000", "file:///etc/passwd", "ftp://localhost:8000",
          "http://example.org:8000", "http://192.0.2.1:8000", "http://127.0.0.2:8000", "http://0:8000",
          "http://localhost.example.org:8000", "http://localhost@example.org:8000", "http://[::]:8000",
          "http://[::ffff:127.0.0.1]:8000", "http://local host:8000", "http://:8000", "http://"}) {
        EXPECT_FALSE(accepted(readLoopbackURL(url))) << url;
    }
}

}  // namespace
}  // namespace krv
