#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "NoDescriptors.h"
#include <MediaServer/Operations/ClientRegistry.h>

namespace krv::server {
namespace {

TEST(ClientRegistry, IdentifiesLivingProcessesOfThisUserOnly) {
    const ClientRegistry clients;
    const auto self = clients.identify(::getpid());
    ASSERT_TRUE(self);
    EXPECT_EQ(self->pid, ::getpid());
    EXPECT_GT(self->startTime, 0U);
    EXPECT_FALSE(clients.identify(0));
    EXPECT_FALSE(clients.identify(-1));
    EXPECT_FALSE(clients.identify(std::int64_t{1} << 40));
}

TEST(ClientRegistry, AProcessThatHasOnlySentAnOperationIsNotRegistered) {
    ClientRegistry clients;
    const auto self = *clients.identify(::getpid());
    EXPECT_TRUE(clients.empty());
    clients.note(self);
    EXPECT_FALSE(clients.empty());
    EXPECT_FALSE(clients.isRegistered(self));
    EXPECT_TRUE(clients.registeredPids().empty());
    clients.setRegistered(self, true);
    clients.note(self);
    EXPECT_TRUE(clients.isRegistered(self));
    EXPECT_EQ(clients.registeredPids(), std::vector<pid_t>{::getpid()});
    clients.forgetUnlessRegistered(self);
    EXPECT_TRUE(clients.isRegistered(self));
    clients.setRegistered(self, false);
    clients.forgetUnlessRegistered(self);
    EXPECT_TRUE(clients.empty());
}

TEST(ClientRegistry, RemovesClientsThatHaveExited) {
    ClientRegistry clients;
    const auto self = *clients.identify(::getpid());
    clients.setRegistered(self, true);
    test::ChildProcess child({"sleep", "1000"});
    const auto mortal = clients.identify(child.pid());
    ASSERT_TRUE(mortal);
    clients.setRegistered(*mortal, true);
    EXPECT_TRUE(clients.removeDead().empty());
    child.signal(SIGKILL);
    child.wait();
    EXPECT_EQ(clients.removeDead(), std::vector<ClientKey>{*mortal});
    EXPECT_TRUE(clients.isRegistered(self));
}

TEST(ClientRegistry, AReusedProcessIdIsAnotherClient) {
    ClientRegistry clients;
    auto earlier = *clients.identify(::getpid());
    earlier.startTime -= 1;
    clients.setRegistered(earlier, true);
    EXPECT_FALSE(clients.isRegistered(*clients.identify(::getpid())));
    EXPECT_EQ(clients.removeDead(), std::vector<ClientKey>{earlier});
}

TEST(ClientRegistry, KeepsLivingClientsWhenThereAreNoDescriptors) {
    ClientRegistry clients;
    const auto self = *clients.identify(::getpid());
    clients.setRegistered(self, true);
    test::ChildProcess child({"sleep", "1000"});
    const auto mortal = *clients.identify(child.pid());
    clients.setRegistered(mortal, true);
    {
        const test::NoDescriptors none;
        ASSERT_EQ(::open("/proc/self/stat", O_RDONLY | O_CLOEXEC), -1);
        ASSERT_EQ(errno, EMFILE);
        EXPECT_TRUE(clients.removeDead().empty());
    }
    child.signal(SIGKILL);
    child.wait();
    const test::NoDescriptors none;
    EXPECT_EQ(clients.removeDead(), std::vector<ClientKey>{mortal});
    EXPECT_TRUE(clients.isRegistered(self));
}

TEST(ClientRegistry, CannotDecideAboutALivingProcessWithoutDescriptors) {
    const ClientRegistry clients;
    const test::NoDescriptors none;
    bool undecided = false;
    EXPECT_FALSE(clients.identify(::getpid(), &undecided));
    EXPECT_TRUE(undecided);
    undecided = false;
    EXPECT_FALSE(clients.identify(std::int64_t{1} << 40, &undecided));
    EXPECT_FALSE(undecided);
}

}  // namespace
}  // namespace krv::server
