#include "ipc/SharedMemory.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "tests/support/OpenDescriptors.h"
#include "tests/support/TestName.h"

namespace Vantel::Orbel {
namespace {

class SharedMemoryTest : public testing::Test {
protected:
    ~SharedMemoryTest() override {
        shm_unlink(mName.c_str());
        EXPECT_EQ(OrbelTest::openDescriptors(), mDescriptors) << "a descriptor leaked";
    }

    /// What a call that has to fail prints on standard output.
    template <class Call>
    static std::string failure(Call&& call) {
        testing::internal::CaptureStdout();
        EXPECT_FALSE(call());
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    bool exists() const { return access(("/dev/shm" + mName).c_str(), F_OK) == 0; }

    const std::string mName = "/" + OrbelTest::uniqueName("orbel_segment");
    const long mDescriptors = OrbelTest::openDescriptors();
    const std::shared_ptr<SharedMemory> mMemory = SharedMemory::create(mName);
};

TEST_F(SharedMemoryTest, AnExistingObjectIsMappedAtItsOwnSizeWithItsContent) {
    ASSERT_TRUE(mMemory->openCreate(8192));
    EXPECT_TRUE(mMemory->openCreate(1)) << "already mapped";
    ASSERT_EQ(mMemory->size(), 8192u);
    char& lastByte = static_cast<char*>(mMemory->baseAddress())[8191];
    lastByte = 'x';

    const auto second = SharedMemory::create(mName);
    ASSERT_TRUE(second->openCreate(4096));
    EXPECT_NE(second->baseAddress(), mMemory->baseAddress());
    ASSERT_TRUE(second->remap());
    EXPECT_EQ(second->size(), 8192u);
    EXPECT_EQ(static_cast<char*>(second->baseAddress())[8191], 'x');
    ASSERT_TRUE(second->reCreate(100));
    EXPECT_EQ(second->size(), 100u);
    EXPECT_EQ(static_cast<char*>(second->baseAddress())[99], 0) << "another object";
    EXPECT_EQ(lastByte, 'x') << "the old one lives on";
}

TEST_F(SharedMemoryTest, ResetAndRemoveDoWhatIsLeftToDo) {
    EXPECT_FALSE(mMemory->reset()) << "nothing is mapped";
    for (const bool mapped : {true, false}) {
        SCOPED_TRACE(mapped);
        ASSERT_TRUE(mMemory->openCreate(64));
        EXPECT_TRUE(mapped || mMemory->reset());
        EXPECT_TRUE(exists());
        EXPECT_TRUE(mMemory->remove());
        EXPECT_EQ(mMemory->baseAddress(), nullptr);
        EXPECT_EQ(mMemory->size(), 0u);
        EXPECT_FALSE(exists());
    }
}

TEST_F(SharedMemoryTest, SaysWhichStepFailed) {
    EXPECT_EQ(failure([&] { return mMemory->openOnly(); }),
              "get shm [" + mName + "] failed: No such file or directory\n");
    EXPECT_EQ(failure([&] { return mMemory->remove(); }),
              "remove shm failed: No such file or directory\n");
    const std::string slash = "/no/such" + mName;
    EXPECT_EQ(failure([&] { return SharedMemory::create(slash)->openCreate(64); }),
              "create shm [" + slash + "] failed, error: Invalid argument\n");
    EXPECT_EQ(failure([&] { return mMemory->openCreate(0); }),
              "attach shm failed: Invalid argument\n");
    EXPECT_FALSE(exists()) << "an object that could not be mapped is unlinked again";

    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{1000000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string text = failure([&] { return mMemory->openCreate(2000000); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(text, "ftruncate failed: File too large\n");
    EXPECT_TRUE(exists()) << "empty, and nobody can map it";
    EXPECT_EQ(failure([&] { return mMemory->openCreate(64); }),
              "attach shm [" + mName + "] failed: Invalid argument\n");
    EXPECT_EQ(mMemory->baseAddress(), nullptr);
}

}  // namespace
}  // namespace Vantel::Orbel
