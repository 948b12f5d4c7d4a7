// The operations that every object has. They are never retried.
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Client/Invocation.h>
#include <KRVQTProcessClient/Client/KRVQTProcessOperations.h>

namespace krv {
namespace {

TEST(BaseSelector, EveryObjectHasTheOperationsOfTheRootClass) {
    for (const std::string_view name :
         {"description", "hash", "isEqual:", "respondsToSelector:", "copy", "mutableCopy", "retain", "release",
          "autorelease", "retainCount", "performSelector:", "performSelector:withObject:",
          "performSelector:withObject:withObject:", "methodForSelector:", "methodSignatureForSelector:",
          "forwardInvocation:", "forwardingTargetForSelector:", "doesNotRecognizeSelector:"}) {
        EXPECT_TRUE(isBaseObjectSelector(Selector(name))) << name;
    }
}

TEST(BaseSelector, NoOperationOfTheServerIsOne) {
    for (const Selector selector : KRVReliableQTProcessOperations::requiredMethods()) {
        EXPECT_FALSE(isBaseObjectSelector(selector)) << selector.name();
    }
    for (const std::string_view name : {"cleanUp", "amIRegistered", "Description", "copy:", ""}) {
        EXPECT_FALSE(isBaseObjectSelector(Selector(name))) << name;
    }
}

}  // namespace
}  // namespace krv
