#include "RequestPolicy.h"

#include <gtest/gtest.h>

namespace krv::server {
namespace {

using Action = Verdict::Action;

RequestHead post() {
    return {.method = "POST",
            .target = "/",
            .hosts = {"localhost:8000"},
            .hasOrigin = false,
            .contentLength = 100,
            .peerIsUser = true};
}

TEST(RequestPolicy, ServesOperationsAndTheStatus) {
    EXPECT_EQ(judge(post()).action, Action::Operation);
    RequestHead head = post();
    head.contentLength.reset();
    EXPECT_EQ(judge(head).action, Action::Operation);
    head.method = "GET";
    head.target = "/status";
    EXPECT_EQ(judge(head).action, Action::Status);
}

TEST(RequestPolicy, RefusesOtherUsers) {
    RequestHead head = post();
    head.peerIsUser = false;
    EXPECT_EQ(judge(head).status, 403U);
}

TEST(RequestPolicy, RefusesWebPages) {
    RequestHead head = post();
    head.hasOrigin = true;
    EXPECT_EQ(judge(head).status, 403U);
}

TEST(RequestPolicy, RefusesForeignMissingAndDoubledHosts) {
    for (const std::vector<std::string_view>& hosts :
         std::vector<std::vector<std::string_view>>{{},
                                                    {"localhost", "localhost"},
                                                    {"example.com"},
                                                    {"localhost.example.com"},
                                                    {"localhost:80x"},
                                                    {"localhost:"},
                                                    {"127.0.0.1.example"},
                                                    {"[::1]x"},
                                                    {"127.0.0.2"},
                                                    {""}}) {
        RequestHead head = post();
        head.hosts = hosts;
        EXPECT_EQ(judge(head).status, 403U) << (hosts.empty() ? "none" : hosts[0]);
    }
    for (const std::string_view host : {"localhost", "localhost:8000", "127.0.0.1", "127.0.0.1:8000", "[::1]:8000"}) {
        RequestHead head = post();
        head.hosts = {host};
        EXPECT_EQ(judge(head).action, Action::Operation) << host;
    }
}

TEST(RequestPolicy, RefusesOtherPathsAndMethods) {
    RequestHead head = post();
    for (const std::string_view target : {"/other", "", "//", "/status/", "http://localhost:8000/", "*"}) {
        head.target = target;
        EXPECT_EQ(judge(head).status, 404U) << target;
    }
    head.target = "/";
    for (const std::string_view method : {"GET", "PUT", "DELETE", "HEAD", "OPTIONS", "post"}) {
        head.method = method;
        EXPECT_EQ(judge(head).status, 405U) << method;
    }
    head.target = "/status";
    head.method = "POST";
    EXPECT_EQ(judge(head).status, 405U);
}

TEST(RequestPolicy, RefusesRecordsOverSixteenMebibytes) {
    RequestHead head = post();
    head.contentLength = kLargestRequest;
    EXPECT_EQ(judge(head).action, Action::Operation);
    head.contentLength = kLargestRequest + 1;
    EXPECT_EQ(judge(head).status, 413U);
}

}  // namespace
}  // namespace krv::server
