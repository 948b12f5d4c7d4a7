#include <gtest/gtest.h>

#include <MediaServer/Front/RequestPolicy.h>

namespace krv::server {
namespace {

using Action = Verdict::Action;

RequestHead post() {
    RequestHead head;
    head.method = "POST";
    head.target = "/";
    head.hosts = {"localhost:8000"};
    head.contentLength = 100;
    head.contentLengths = 1;
    return head;
}

TEST(RequestPolicy, ServesOperationsAndPages) {
    EXPECT_EQ(judge(post()).action, Action::Operation);
    RequestHead head = post();
    head.contentLength.reset();
    head.contentLengths = 0;
    EXPECT_EQ(judge(head).action, Action::Operation);
    head.transferEncodings = {"Chunked"};
    EXPECT_EQ(judge(head).action, Action::Operation);
    head.transferEncodings.clear();
    head.method = "GET";
    for (const auto& [path, page] : {std::pair("/status", PageName::Status), std::pair("/activity", PageName::Activity),
                                     std::pair("/activity.json", PageName::ActivityData)}) {
        head.target = path;
        EXPECT_EQ(judge(head).action, Action::Page) << path;
        EXPECT_EQ(judge(head).page, page) << path;
    }
}

TEST(RequestPolicy, RefusesWebPages) {
    RequestHead head = post();
    head.hasOrigin = true;
    EXPECT_EQ(judge(head).status, 403U);
}

TEST(RequestPolicy, RefusesRequestsThatABrowserMakesForAnotherSite) {
    for (const std::string_view site : {"cross-site", "same-site", "", "None", "none, cross-site"}) {
        RequestHead head = post();
        head.fetchSites = {site};
        EXPECT_EQ(judge(head).status, 403U) << site;
    }
    RequestHead head = post();
    head.fetchSites = {"none", "cross-site"};
    EXPECT_EQ(judge(head).status, 403U);
    for (const std::string_view site : {"none", "same-origin"}) {
        head.fetchSites = {site};
        EXPECT_EQ(judge(head).action, Action::Operation) << site;
    }
}

TEST(RequestPolicy, RefusesForeignMissingAndRepeatedHosts) {
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
    for (const std::string_view target : {"/other", "", "//", "/status/", "/activity/", "/activity?x", "/activity.html",
                                          "http://localhost:8000/", "*"}) {
        head.target = target;
        EXPECT_EQ(judge(head).status, 404U) << target;
    }
    head.target = "/";
    for (const std::string_view method : {"GET", "PUT", "DELETE", "HEAD", "OPTIONS", "post"}) {
        head.method = method;
        EXPECT_EQ(judge(head).status, 405U) << method;
    }
    for (const std::string_view page : {"/status", "/activity", "/activity.json"}) {
        head.target = page;
        for (const std::string_view method : {"POST", "HEAD", "PUT", "DELETE", "OPTIONS"}) {
            head.method = method;
            EXPECT_EQ(judge(head).status, 405U) << page << " " << method;
        }
    }
}

TEST(RequestPolicy, RefusesRecordsOverSixteenMebibytes) {
    RequestHead head = post();
    head.contentLength = kLargestRequest;
    EXPECT_EQ(judge(head).action, Action::Operation);
    head.contentLength = kLargestRequest + 1;
    EXPECT_EQ(judge(head).status, 413U);
}

TEST(RequestPolicy, RefusesAmbiguousFraming) {
    RequestHead head = post();
    head.contentLengths = 2;
    EXPECT_EQ(judge(head).status, 400U);
    head = post();
    head.transferEncodings = {"chunked"};
    EXPECT_EQ(judge(head).status, 400U);
    head.contentLengths = 0;
    head.contentLength.reset();
    EXPECT_EQ(judge(head).action, Action::Operation);
    head.version = "HTTP/1.0";
    EXPECT_EQ(judge(head).status, 400U);
    head.version = "HTTP/1.1";
    for (const std::vector<std::string_view>& encodings :
         std::vector<std::vector<std::string_view>>{{"chunked", "chunked"},
                                                    {"chunked", "identity"},
                                                    {"identity"},
                                                    {"gzip, chunked"},
                                                    {"xchunked"},
                                                    {"chunke"},
                                                    {"chunked "},
                                                    {""}}) {
        head.transferEncodings = encodings;
        EXPECT_EQ(judge(head).status, 400U) << encodings.front();
    }
}

TEST(RequestPolicy, RefusesMalformedHeaders) {
    RequestHead head = post();
    head.malformedHeaders = true;
    EXPECT_EQ(judge(head).status, 400U);
    EXPECT_TRUE(isWellFormedHeader("Content-Length", "3"));
    EXPECT_TRUE(isWellFormedHeader("X-Odd.!#$%&'*+-^_`|~1", "a\tb \xC3\xA4"));
    for (const std::string_view name : {"", "Content-Length ", " Host", "a:b", "a\tb", "Ho\xC3\xA4", "Hostlocalhost",
                                        "originnull", "Transfer-Encodingchunked", "Content-Length0"}) {
        EXPECT_FALSE(isWellFormedHeader(name, "3")) << name;
    }
    for (const std::string_view value : {"a\rb", "a\nb", "a\r\n b", "\x7F", "\x01"}) {
        EXPECT_FALSE(isWellFormedHeader("X", value));
    }
    EXPECT_FALSE(isWellFormedHeader("X", std::string_view("a\0b", 3)));
}

}  // namespace
}  // namespace krv::server
