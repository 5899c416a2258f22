#include "ipc/SharedMemory.h"

#include <fcntl.h>
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

    /// What `work` prints on standard output.
    template <class Work>
    static std::string printed(Work&& work) {
        testing::internal::CaptureStdout();
        work();
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    bool exists() const { return access(("/dev/shm" + mName).c_str(), F_OK) == 0; }

    const std::string mName = "/" + OrbelTest::uniqueName("orbel_segment");
    const long mDescriptors = OrbelTest::openDescriptors();
};

TEST_F(SharedMemoryTest, AnExistingObjectIsMappedAtItsOwnSizeWithItsContent) {
    const auto first = SharedMemory::create(mName);
    ASSERT_TRUE(first->openCreate(8192));
    EXPECT_TRUE(first->openCreate(1)) << "already mapped";
    ASSERT_EQ(first->size(), 8192u);
    static_cast<char*>(first->baseAddress())[8191] = 'x';

    const auto second = SharedMemory::create(mName);
    ASSERT_TRUE(second->openCreate(4096));
    EXPECT_EQ(second->size(), 8192u);
    EXPECT_NE(second->baseAddress(), first->baseAddress());
    EXPECT_EQ(static_cast<char*>(second->baseAddress())[8191], 'x');

    ASSERT_TRUE(second->remap());
    EXPECT_EQ(second->size(), 8192u);
    ASSERT_TRUE(second->reCreate(100));
    EXPECT_EQ(second->size(), 100u);
    EXPECT_EQ(static_cast<char*>(second->baseAddress())[99], 0) << "another object";
    EXPECT_EQ(static_cast<char*>(first->baseAddress())[8191], 'x') << "the old one lives on";
}

TEST_F(SharedMemoryTest, ResetAndRemoveDoWhatIsLeftToDo) {
    const auto memory = SharedMemory::create(mName);
    EXPECT_FALSE(memory->reset()) << "nothing is mapped";
    EXPECT_EQ(printed([&] { EXPECT_FALSE(memory->openOnly()); }),
              "get shm [" + mName + "] failed: No such file or directory\n");
    EXPECT_EQ(printed([&] { EXPECT_FALSE(memory->remove()); }),
              "remove shm failed: No such file or directory\n");

    ASSERT_TRUE(memory->openCreate(64));
    EXPECT_TRUE(memory->reset());
    EXPECT_EQ(memory->baseAddress(), nullptr);
    EXPECT_EQ(memory->size(), 0u);
    EXPECT_TRUE(exists());
    EXPECT_TRUE(memory->remove()) << "unmapped, and still there to be unlinked";
    EXPECT_FALSE(exists());

    ASSERT_TRUE(memory->openCreate(64));
    EXPECT_TRUE(memory->remove());
    EXPECT_EQ(memory->baseAddress(), nullptr);
    EXPECT_FALSE(exists());
}

TEST_F(SharedMemoryTest, SaysWhichStepFailed) {
    const std::string slash = "/no/such" + mName;
    EXPECT_EQ(printed([&] { EXPECT_FALSE(SharedMemory::create(slash)->openCreate(64)); }),
              "create shm [" + slash + "] failed, error: Invalid argument\n");

    const auto empty = SharedMemory::create(mName);
    EXPECT_EQ(printed([&] { EXPECT_FALSE(empty->openCreate(0)); }),
              "attach shm failed: Invalid argument\n");
    EXPECT_EQ(empty->baseAddress(), nullptr);
    EXPECT_FALSE(exists()) << "an object that could not be mapped is unlinked again";
}

TEST_F(SharedMemoryTest, AFailedResizeLeavesAnEmptyObjectThatNobodyCanMap) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit small = before;
    small.rlim_cur = 1000000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto memory = SharedMemory::create(mName);
    const std::string text = printed([&] { EXPECT_FALSE(memory->openCreate(2000000)); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);

    EXPECT_EQ(text, "ftruncate failed: File too large\n");
    EXPECT_TRUE(exists());
    EXPECT_EQ(printed([&] { EXPECT_FALSE(memory->openCreate(64)); }),
              "attach shm [" + mName + "] failed: Invalid argument\n");
    EXPECT_EQ(memory->baseAddress(), nullptr);
}

}  // namespace
}  // namespace Vantel::Orbel
