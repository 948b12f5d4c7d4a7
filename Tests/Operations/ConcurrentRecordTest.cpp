// One record that several threads use. The thread sanitizer sees more here than the expectations do.
#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Operations/KRVOperationBase.h>

namespace krv {
namespace {

constexpr int kChanges = 5000;

class Observer final : public OperationProgress {
public:
    bool operation(const KRVOperationBase::Ref&, float) override { return true; }
};

/// Runs the setter on one thread and the check on two others at the same time.
template <typename Set, typename Check>
void together(const Set& set, const Check& check) {
    std::latch begin(3);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        begin.arrive_and_wait();
        for (int i = 0; i < kChanges; ++i) {
            set(i);
        }
        done = true;
    });
    for (int reader = 0; reader < 2; ++reader) {
        threads.emplace_back([&] {
            begin.arrive_and_wait();
            while (!done) {
                check();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(ConcurrentRecord, ItsErrorIsAlwaysWhole) {
    KRVOperationBase record;
    std::atomic<int> torn{0};
    together([&](int i) { record.setError(std::make_shared<const Error>(std::to_string(i), i)); },
             [&] {
                 const auto error = record.error();
                 torn += error && error->domain() != std::to_string(error->code()) ? 1 : 0;
             });
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(record.error()->code(), kChanges - 1);
}

TEST(ConcurrentRecord, ItsIdentifierIsAlwaysWhole) {
    KRVOperationBase record;
    std::atomic<int> torn{0};
    together([&](int i) { record.setUniqueID(std::string(40, static_cast<char>('a' + i % 26))); },
             [&] {
                 const auto id = record.uniqueID();
                 torn += id && *id != std::string(40, id->front()) ? 1 : 0;
             });
    EXPECT_EQ(torn, 0);
}

TEST(ConcurrentRecord, ItsDictionariesAndItsObserverAreAlwaysWhole) {
    KRVOperationBase record;
    std::atomic<int> torn{0};
    together(
        [&](int i) {
            record.setResult(std::make_shared<Dictionary>(Dictionary{{"a", i}, {"b", i}}));
            record.setArguments(std::make_shared<Dictionary>(Dictionary{{"a", i}, {"b", i}}));
            record.setProgressDelegate(i % 2 == 0 ? std::make_shared<Observer>() : nullptr);
        },
        [&] {
            for (const auto& dictionary : {record.result(), record.arguments()}) {
                torn += dictionary->size() == 2 && !((*dictionary)["a"] == (*dictionary)["b"]) ? 1 : 0;
            }
            if (const auto observer = record.progressDelegate()) {
                torn += observer->operation(nullptr, 0) ? 0 : 1;
            }
        });
    EXPECT_EQ(torn, 0);
}

}  // namespace
}  // namespace krv
