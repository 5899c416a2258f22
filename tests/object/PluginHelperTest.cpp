#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "Vantel/Orbel/ErrorState.h"
#include "object/PluginHelperImpl.h"
#include "tests/file/TempDirectory.h"
#include "tests/support/HelperProcess.h"
#include "tests/support/LogCapture.h"

using namespace Vantel::Object;
using Vantel::Orbel::getLastErrno;
using Ids = std::vector<std::string>;

namespace {

class CountedObject : public IObject {
public:
    void destroy() override {
        ++mDestroyed;
        if (mOnDestroy) {
            mOnDestroy();
        }
    }
    int mDestroyed = 0;
    std::function<void()> mOnDestroy;
};

class NamedFactory : public IObjectFactory {
public:
    explicit NamedFactory(const char* classId) : mClassId(classId) {}
    const char* getClassId() override { return mClassId; }

private:
    const char* mClassId;
};

std::string pluginDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../plugins";
}

PluginHelperImpl* loading = nullptr;  // the helper that a plug-in's entry points call
Ids called;

/// A copy of the hooked plug-in, which is a library of its own to the loader.
class HookedPlugin {
public:
    HookedPlugin(const OrbelTest::TempDirectory& directory, const std::string& name,
                 int (*onInit)(), int (*onExit)())
        : mPath(directory / name) {
        std::filesystem::copy_file(pluginDirectory() + "/Hooked.so", mPath);
        mHandle = dlopen(mPath.c_str(), RTLD_LAZY);
        *static_cast<int (**)()>(dlsym(mHandle, "hookedInit")) = onInit;
        *static_cast<int (**)()>(dlsym(mHandle, "hookedExit")) = onExit;
    }
    HookedPlugin(const HookedPlugin&) = delete;
    HookedPlugin& operator=(const HookedPlugin&) = delete;
    ~HookedPlugin() { letGo(); }

    const char* path() const { return mPath.c_str(); }
    /// Whether the library is still there without the test's own handle.
    bool letGo() {
        if (mHandle != nullptr) {
            dlclose(std::exchange(mHandle, nullptr));
        }
        void* const other = dlopen(mPath.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        return other != nullptr && dlclose(other) == 0;
    }

private:
    std::string mPath;
    void* mHandle;
};

/// The error number of a call that failed.
int errorOf(bool result) {
    EXPECT_FALSE(result);
    return getLastErrno();
}

class PluginHelperTest : public testing::Test {
protected:
    PluginHelperTest() {
        loading = &mHelper;
        called.clear();
    }

    OrbelTest::TempDirectory mDirectory;
    OrbelTest::LogCapture mLog;
    PluginHelperImpl mHelper;
    NamedFactory mFirst{"first"};
    NamedFactory mSecond{"second"};
};

TEST_F(PluginHelperTest, LibrariesThatAreNoPlugins) {
    const size_t before = mLog.lines().size();
    EXPECT_FALSE(mHelper.loadClass(nullptr));
    EXPECT_EQ(mLog.lines().size(), before) << "null is refused silently";
    const struct {
        std::string path;
        const char* line;
    } cases[] = {
        {mDirectory / "missing.so", "missing.so failed, reason = "},
        {mDirectory.write("text.so", "no library"), "text.so failed, reason = "},
        {"libanl.so.1", "library not found objectPluginInit sysbol"},
        {"", "library not found objectPluginInit sysbol"},  // the program itself
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const int lines = mLog.count(c.line);
        EXPECT_FALSE(mHelper.loadClass(c.path.c_str()));
        EXPECT_FALSE(mHelper.loadClass(c.path.c_str())) << "it is not taken as loaded";
        EXPECT_EQ(mLog.count(c.line), lines + 2);
    }
    EXPECT_EQ(dlopen("libanl.so.1", RTLD_LAZY | RTLD_NOLOAD), nullptr) << "it stays open";
    EXPECT_FALSE(mHelper.unloadClass("libanl.so.1"));
    EXPECT_TRUE(mLog.has("object not support unload dynamic library"));
}

TEST_F(PluginHelperTest, PluginThatFailsIsClosedAndItsFactoriesStay) {
    static NamedFactory factory("early");
    HookedPlugin plugin(
        mDirectory, "fails.so",
        [] {
            called.push_back("init");
            return loading->registerFactory("object", &factory) ? 7 : 0;
        },
        [] { return 0; });
    EXPECT_FALSE(mHelper.loadClass(plugin.path()));
    EXPECT_FALSE(mHelper.loadClass(plugin.path()));
    EXPECT_EQ(called, (Ids{"init", "init"}));
    EXPECT_EQ(mLog.count("plugin dynamic library objectPluginInit failed 7"), 2);
    EXPECT_EQ(mHelper.getFactory("object", "early"), &factory);
    EXPECT_FALSE(plugin.letGo()) << "a handle leaked";
}

TEST_F(PluginHelperTest, LibrariesAreInitialisedOnceAndLeaveInTheOrderOfTheirPaths) {
    static std::string pathOfA;
    static std::string pathOfB;
    static NamedFactory factory("late");
    HookedPlugin b(
        mDirectory, "b.so",
        [] {
            called.push_back("init b");
            return loading->registerFactory("object", &factory) ? 0 : 1;
        },
        [] {
            called.push_back("exit b");
            return loading->unregisterFactory("object", &factory) ? 0 : 1;
        });
    HookedPlugin a(
        mDirectory, "a.so",
        [] {
            called.push_back("init a");
            // A plug-in that loads itself, on the way of others or not, does not go round.
            return loading->loadClass(pathOfA.c_str()) ? 0 : 1;
        },
        [] {
            called.push_back("exit a");
            return loading->loadClass(pathOfB.c_str()) ? 3 : 0;  // that one is still there
        });
    pathOfA = a.path();
    pathOfB = b.path();
    {
        PluginHelperImpl helper;
        loading = &helper;
        for (int turn = 0; turn < 2; ++turn) {
            EXPECT_TRUE(helper.loadClass(b.path()));
            EXPECT_TRUE(helper.loadClass(a.path()));
        }
        EXPECT_EQ(called, (Ids{"init b", "init a"}));
        EXPECT_EQ(mLog.count(" already load plugin dynamic library "), 3);
        EXPECT_TRUE(a.letGo() && b.letGo()) << "held until the end";
        called.clear();
    }
    EXPECT_EQ(called, (Ids{"exit a", "exit b"}));
    EXPECT_EQ(mLog.count("plugin dynamic library objectPluginExit failed"), 1) << "that of a";
    EXPECT_FALSE(a.letGo() || b.letGo());
}

TEST_F(PluginHelperTest, FactoriesByObjectAndClass) {
    NamedFactory rival("first");
    NamedFactory nameless(nullptr);
    Ids ids{"stays"};
    EXPECT_EQ(errorOf(mHelper.getClassIds("object", ids)), 7);
    EXPECT_EQ(ids, Ids{"stays"});
    EXPECT_TRUE(mHelper.registerFactory("object", &mSecond));
    EXPECT_TRUE(mHelper.registerFactory("object", &mFirst));
    EXPECT_TRUE(mHelper.registerFactory("object", &mFirst));
    EXPECT_EQ(mLog.count(" objectId object, classId first register twice by "), 1);
    EXPECT_FALSE(mHelper.registerFactory("object", &rival));
    EXPECT_EQ(mLog.count("objectId object, classId first already register by "), 1);
    EXPECT_FALSE(mHelper.registerFactory(nullptr, &mFirst));
    EXPECT_FALSE(mHelper.registerFactory("other", &nameless));
    EXPECT_TRUE(mHelper.getClassIds("object", ids));
    EXPECT_EQ(ids, (Ids{"first", "second"}));
    EXPECT_EQ(mHelper.getFactory("object", "first"), &mFirst);

    EXPECT_EQ(errorOf(mHelper.getFactory("other", "first")), 7);
    EXPECT_EQ(errorOf(mHelper.getFactory(nullptr, "first")), 7);
    EXPECT_EQ(errorOf(mHelper.getFactory("object", "third")), 20);
    EXPECT_EQ(errorOf(mHelper.getFactory("object", nullptr)), 20);
    EXPECT_EQ(errorOf(mHelper.unregisterFactory("other", &mFirst)), 7);
    EXPECT_EQ(errorOf(mHelper.unregisterFactory("object", &rival)), 20);
    EXPECT_EQ(errorOf(mHelper.unregisterFactory("object", &nameless)), 20);
    EXPECT_TRUE(mHelper.unregisterFactory("object", &mFirst));
    EXPECT_TRUE(mHelper.unregisterFactory("object", &mSecond));
    EXPECT_TRUE(mHelper.getClassIds("object", ids)) << "known without classes";
    EXPECT_TRUE(ids.empty());
}

TEST_F(PluginHelperTest, OneObjectForEachPairOfIds) {
    CountedObject object;
    CountedObject rival;
    {
        PluginHelperImpl helper;
        for (int turn = 0; turn < 2; ++turn) {
            EXPECT_EQ(helper.makeInstance(&object, "object", "class"), &object);
        }
        EXPECT_DEATH(helper.makeInstance(&rival, "object", "class"), "Assertion");
        EXPECT_EQ(helper.makeInstance(&rival, "object", "other"), &rival);
        EXPECT_EQ(helper.addRef(&rival), 2u);
        EXPECT_EQ(errorOf(helper.makeInstance(nullptr, "object", "class")), 22);
        EXPECT_EQ(helper.makeObject(&object), &object);
        EXPECT_EQ(errorOf(helper.makeObject(nullptr)), 21);
        EXPECT_EQ(helper.addRef(nullptr) + helper.subRef(nullptr), 0u);
        object.mOnDestroy = [&] { helper.makeInstance(&rival, "object", "other"); };
    }
    EXPECT_EQ(object.mDestroyed, 1) << "the second time took another reference";
    EXPECT_EQ(rival.mDestroyed, 0);
    EXPECT_EQ(mHelper.subRef(&rival), 0u);
    EXPECT_EQ(rival.mDestroyed, 1);
}

TEST_F(PluginHelperTest, TablesUnderManyThreads) {
    std::vector<std::thread> threads;
    for (const char* classId : {"one", "two", "three"}) {
        threads.emplace_back([classId] {
            NamedFactory factory(classId);
            Ids ids;
            for (int turn = 0; turn < 500; ++turn) {
                EXPECT_TRUE(factory.registerFactory("threads"));
                EXPECT_TRUE(IPluginHelper::instance()->getClassIds("threads", ids));
                EXPECT_TRUE(factory.unregisterFactory("threads"));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(PluginExample, HostFindsTheClassOfThePlugin) {
    const std::string sonar = pluginDirectory() + "/sonar.so";
    OrbelTest::HelperProcess host("../examples/plugin_host", {sonar, sonar});
    std::string line;
    ASSERT_TRUE(host.readLine(line));
    EXPECT_EQ(line, "sonar: 1.715 m");
    EXPECT_EQ(host.wait(), 0);
    OrbelTest::HelperProcess without("../examples/plugin_host", {"./missing.so"});
    EXPECT_EQ(WEXITSTATUS(without.wait()), 1);
}

}  // namespace
