#pragma once

#include <cstdint>
#include <utility>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A callable value of four machine words that can be compared: a plain function, or a member
/// function bound to an object.
///
/// The delegate does not own the object it is bound to; the object must outlive the last call.
/// A plain function needs no allocation; a member function needs one small heap block, which all
/// copies share (std::bad_alloc runs through).
///
/// Threads: calling one delegate from several threads at once is as safe as its target. The count
/// of the shared block is a plain integer: copies of one member delegate must not be made,
/// assigned or destroyed on two threads at the same time without a lock of the caller's.
///
/// Visible in every module whatever its compiler flags say: delegates are compared by the
/// addresses of their stubs, which must be the same in the library and in the application.
template <class R, class... Args>
class ORBEL_API TDelegate {
public:
    /// The plain functions that a delegate can hold.
    using Function = R (*)(Args...);

    /// An empty delegate.
    TDelegate() noexcept = default;

    /// Binds a plain function; null gives an empty delegate.
    TDelegate(Function function) noexcept {  // NOLINT(google-explicit-constructor): {&function}
        if (function != nullptr) {
            mTarget = reinterpret_cast<void*>(function);
            mKey = mTarget;
            mInvoker = &invokeRuntimeFunction;
        }
    }

    ///@{
    /// Binds `member`, virtual or not, to `object`: {object, &Class::member}. Null in either place
    /// gives an empty delegate.
    template <class Object, class Class>
    TDelegate(Object* object, R (Class::*member)(Args...)) {
        bind<Class, R (Class::*)(Args...)>(object, member);
    }
    template <class Object, class Class>
    TDelegate(Object* object, R (Class::*member)(Args...) const) {
        bind<const Class, R (Class::*)(Args...) const>(object, member);
    }
    ///@}

    ///@{
    /// Copies compare equal and are called alike; a delegate that was moved from is empty.
    TDelegate(const TDelegate& other) noexcept
        : mTarget(other.mTarget),
          mKey(other.mKey),
          mInvoker(other.mInvoker),
          mManager(other.mManager) {
        if (mManager != nullptr) {
            mManager(this, &other, kCopy);
        }
    }
    TDelegate(TDelegate&& other) noexcept { swap(other); }
    TDelegate& operator=(TDelegate other) noexcept {
        swap(other);
        return *this;
    }
    ///@}
    ~TDelegate() {
        if (mManager != nullptr) {
            mManager(this, nullptr, kDestroy);
        }
    }

    /// Makes the delegate empty; its copies stay callable.
    void clear() noexcept {
        if (mManager != nullptr) {
            mManager(this, nullptr, kDestroy);
        }
        mTarget = nullptr;
        mKey = nullptr;
        mInvoker = nullptr;
        mManager = nullptr;
    }

    /// Bound to nothing.
    bool empty() const noexcept { return mInvoker == nullptr; }

    /// Calls the target. An empty delegate must not be called: test empty() first.
    R operator()(Args... args) const { return mInvoker(mTarget, std::forward<Args>(args)...); }

    ///@{
    /// Equal: both empty, the same plain function, or the same member of the same object.
    friend bool operator==(const TDelegate& left, const TDelegate& right) noexcept {
        if (left.mInvoker != right.mInvoker) {
            return false;
        }
        if (left.mManager != nullptr) {
            return left.mManager(const_cast<TDelegate*>(&left), &right, kCompare) != 0;
        }
        return left.mKey == right.mKey;  // two empty ones have no key either
    }
    friend bool operator!=(const TDelegate& left, const TDelegate& right) noexcept {
        return !(left == right);
    }
    ///@}

private:
    using Invoker = R (*)(void* target, Args... args);
    using Manager = int (*)(TDelegate* self, const TDelegate* other, int operation);

    // What a manager is asked to do. 2 is a copy as well.
    static constexpr int kCopy = 0;
    static constexpr int kDestroy = 1;
    static constexpr int kCopyToo = 2;
    static constexpr int kCompare = 3;

    /// What all copies of one member delegate share.
    template <class Class, class Member>
    struct ControlBlock {
        uint32_t count;
        Class* object;
        Member member;
    };

    template <class Class, class Member>
    void bind(Class* object, Member member) {
        if (object == nullptr || member == nullptr) {
            return;
        }
        mTarget = new ControlBlock<Class, Member>{1, object, member};
        mInvoker = &invokeMember<Class, Member>;
        mManager = &manage<Class, Member>;
    }

    // Defined outside of the class: inside they would be inline, and modules built with
    // -fvisibility-inlines-hidden would each keep copies of their own, which compare unequal.
    static R invokeRuntimeFunction(void* target, Args... args);
    template <class Class, class Member>
    static R invokeMember(void* target, Args... args);
    template <class Class, class Member>
    static int manage(TDelegate* self, const TDelegate* other, int operation);

    void swap(TDelegate& other) noexcept {
        std::swap(mTarget, other.mTarget);
        std::swap(mKey, other.mKey);
        std::swap(mInvoker, other.mInvoker);
        std::swap(mManager, other.mManager);
    }

    void* mTarget = nullptr;     // the function, or the control block
    void* mKey = nullptr;        // the function again, null for a member
    Invoker mInvoker = nullptr;  // null in an empty delegate
    Manager mManager = nullptr;  // null without a control block
};

template <class R, class... Args>
R TDelegate<R, Args...>::invokeRuntimeFunction(void* target, Args... args) {
    return reinterpret_cast<Function>(target)(std::forward<Args>(args)...);
}

/// Nothing of the block is used once the member runs: it may destroy this very delegate.
template <class R, class... Args>
template <class Class, class Member>
R TDelegate<R, Args...>::invokeMember(void* target, Args... args) {
    const auto* block = static_cast<const ControlBlock<Class, Member>*>(target);
    return (block->object->*block->member)(std::forward<Args>(args)...);
}

template <class R, class... Args>
template <class Class, class Member>
int TDelegate<R, Args...>::manage(TDelegate* self, const TDelegate* other, int operation) {
    using Block = ControlBlock<Class, Member>;
    auto* block = static_cast<Block*>(self->mTarget);
    switch (operation) {
        case kCopy:
        case kCopyToo:
            ++block->count;
            return 0;
        case kDestroy:
            if (block->count == 1) {
                delete block;
            } else {
                --block->count;
            }
            return 0;
        case kCompare: {
            const auto* right = static_cast<const Block*>(other->mTarget);
            return block->object == right->object && block->member == right->member ? 1 : 0;
        }
        default:
            return 0;
    }
}

static_assert(sizeof(TDelegate<void>) == 4 * sizeof(void*));

}  // namespace Vantel::Orbel
