#include "Vantel/Orbel/TDelegate.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

#include "Vantel/Orbel/TSignal.h"

using Vantel::Orbel::TDelegate;

namespace {

using Words = std::array<uintptr_t, 4>;

template <class Delegate>
Words wordsOf(const Delegate& delegate) {
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
    TDelegate<int, int> empty;
    EXPECT_EQ(wordsOf(empty), Words{});

    TDelegate<int, int> function(&twice);
    const auto address = reinterpret_cast<uintptr_t>(&twice);
    EXPECT_EQ(wordsOf(function)[0], address);
    EXPECT_EQ(wordsOf(function)[1], address);
    EXPECT_NE(wordsOf(function)[2], 0u);
    EXPECT_EQ(wordsOf(function)[3], 0u);

    Both both;
    TDelegate<int, int> member(&both, &Both::own);
    EXPECT_EQ(wordsOf(member)[1], 0u);
    EXPECT_NE(wordsOf(member)[3], 0u);
    const TDelegate<int, int> copy = member;
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
        TDelegate<int, int> delegate;
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
        SCOPED_TRACE(c.why);
        ASSERT_FALSE(c.delegate.empty());
        EXPECT_EQ(c.delegate(7), c.result);
    }
}

TEST(TDelegate, NullTargetsAreEmpty) {
    Both both;
    EXPECT_TRUE((TDelegate<int, int>(nullptr).empty()));
    EXPECT_TRUE((TDelegate<int, int>(static_cast<Both*>(nullptr), &Both::own).empty()));
    EXPECT_TRUE((TDelegate<int, int>(&both, static_cast<int (Both::*)(int)>(nullptr)).empty()));
}

TEST(TDelegate, EqualityIsByTarget) {
    using D = TDelegate<int, int>;
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
    using D = TDelegate<int, int>;
    const D member(&both, &Both::own);
    D other(&twice);
    other = member;
    D& self = other;
    other = self;
    EXPECT_EQ(other(1), 406);
    D moved = std::move(other);
    EXPECT_EQ(moved, member);
    moved = D(&thrice);
    EXPECT_EQ(moved(2), 6);
}

TEST(TDelegate, ArgumentsAreMovedThrough) {
    struct Sink {
        void take(std::unique_ptr<int> value) { got = std::move(value); }
        std::unique_ptr<int> got;
    } sink;
    const TDelegate<void, std::unique_ptr<int>> moveOnly(&sink, &Sink::take);
    moveOnly(std::make_unique<int>(5));
    EXPECT_EQ(*sink.got, 5);
}

/// A member may destroy the delegate that called it, and go on.
TEST(TDelegate, TargetMayClearItsOwnDelegate) {
    struct Owner {
        int run(int value) {
            delegate.clear();
            return value + result;
        }
        TDelegate<int, int> delegate;
        int result = 40;
    } owner;
    owner.delegate = {&owner, &Owner::run};
    EXPECT_EQ(owner.delegate(2), 42);
    EXPECT_TRUE(owner.delegate.empty());
}

}  // namespace
