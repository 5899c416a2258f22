#include "Vantel/Orbel/TDelegate.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

using Vantel::Orbel::TDelegate;

namespace {

using Words = std::array<uintptr_t, 4>;
using D = TDelegate<int, int>;

Words wordsOf(const D& delegate) {
    static_assert(sizeof delegate == sizeof(Words));
    Words words;
    std::memcpy(words.data(), &delegate, sizeof words);
    return words;
}

int twice(int value) {
    return 2 * value;
}
int thrice(int value) {
    return 3 * value;
}

struct Left {
    virtual ~Left() = default;
    int left = 1;
};
struct Right {
    virtual ~Right() = default;
    virtual int who(int value) { return 100 + value + right; }
    int plain(int value) const { return 200 + value + right; }
    int right = 2;
};
struct Both : Left, Right {
    int who(int value) override { return 300 + value + left; }
    int own(int value) { return 400 + value + own_; }
    int own_ = 5;
};

TEST(TDelegate, FourWordsOfEachKind) {
    EXPECT_EQ(wordsOf({}), Words{});

    const D function(&twice);
    const auto address = reinterpret_cast<uintptr_t>(&twice);
    EXPECT_EQ(wordsOf(function)[0], address);
    EXPECT_EQ(wordsOf(function)[1], address);
    EXPECT_NE(wordsOf(function)[2], 0u);
    EXPECT_EQ(wordsOf(function)[3], 0u);

    Both both;
    D member(&both, &Both::own);
    EXPECT_EQ(wordsOf(member)[1], 0u);
    EXPECT_NE(wordsOf(member)[3], 0u);
    const D copy = member;
    EXPECT_EQ(wordsOf(copy), wordsOf(member)) << "copies share one block";
    uint32_t count = 0;
    std::memcpy(&count, reinterpret_cast<const void*>(wordsOf(copy)[0]), sizeof count);
    EXPECT_EQ(count, 2u);

    member.clear();
    EXPECT_EQ(wordsOf(member), Words{});
    EXPECT_EQ(copy(1), 406) << "the copy stays callable";
    member.clear();
    EXPECT_TRUE(member.empty());
}

TEST(TDelegate, CallsWhatItIsBoundTo) {
    Both both;
    const Both& constant = both;
    Right* base = &both;
    const struct {
        const char* why;
        D delegate;
        int result;
    } cases[] = {
        {"plain function", {&twice}, 14},
        {"lambda without capture", +[](int value) { return value - 1; }, 6},
        {"virtual member through its base", {base, &Right::who}, 308},
        {"member of a base at an offset, bound to the derived object", {&both, &Right::plain}, 209},
        {"const member of a const object", {&constant, &Both::plain}, 209},
        {"own member", {&both, &Both::own}, 412},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.delegate(7), c.result) << c.why;
    }
    EXPECT_TRUE(D(nullptr).empty());
    EXPECT_TRUE(D(static_cast<Both*>(nullptr), &Both::own).empty());
    EXPECT_TRUE(D(&both, static_cast<int (Both::*)(int)>(nullptr)).empty());
}

TEST(TDelegate, EqualityIsByTarget) {
    Both one;
    Both two;
    const D function(&twice);
    const D member(&one, &Both::own);
    EXPECT_EQ(D(), D());
    EXPECT_EQ(function, D(&twice));
    EXPECT_NE(function, D(&thrice));
    EXPECT_NE(function, D());
    EXPECT_EQ(member, D(&one, &Both::own)) << "two blocks, one target";
    EXPECT_NE(member, D(&two, &Both::own));
    EXPECT_NE(member, D(&one, &Both::who));
    EXPECT_NE(member, function);
    EXPECT_NE(D(&one, &Right::who), D(&one, &Both::who)) << "named through another class";
}

/// The address sanitizer watches the block that copies share; here, who is bound to what.
TEST(TDelegate, CopiesMovesAndAssignmentsShareAndFreeTheBlock) {
    Both both;
    const D member(&both, &Both::own);
    D other(&twice);
    other = member;
    D& self = other;
    other = self;
    D moved = std::move(other);
    EXPECT_EQ(moved, member);
    moved = D(&thrice);
    EXPECT_EQ(moved(2), 6);

    struct Sink {
        void take(std::unique_ptr<int> value) { got = std::move(value); }
        std::unique_ptr<int> got;
    } sink;
    TDelegate<void, std::unique_ptr<int>>(&sink, &Sink::take)(std::make_unique<int>(5));
    EXPECT_EQ(*sink.got, 5) << "arguments are moved through";
}

/// A member may destroy the delegate that called it, and go on.
TEST(TDelegate, TargetMayClearItsOwnDelegate) {
    struct Owner {
        int run(int value) {
            delegate.clear();
            return value + result;
        }
        D delegate;
        int result = 40;
    } owner;
    owner.delegate = {&owner, &Owner::run};
    EXPECT_EQ(owner.delegate(2), 42);
    EXPECT_TRUE(owner.delegate.empty());
}

}  // namespace
