// Documents and their manager, which a process has only one of: every test starts it and stops it.
#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Vantel/Config/IConfig.h"
#include "Vantel/Config/IConfigManager.h"
#include "Vantel/Orbel/ErrorState.h"
#include "tests/config/ConfigSupport.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WaitFor.h"

using OrbelTest::contentOf;
using OrbelTest::json;
using OrbelTest::nested;
using OrbelTest::TempDirectory;
using Vantel::Config::IConfig;
using Vantel::Config::IConfigManager;
using Vantel::Orbel::getLastErrno;
using Vantel::Orbel::setLastErrno;

namespace {

constexpr const char* kDefaults =
    R"({"net":{"port":80,"ip":"0","sub":{"x":1}},"gain":1,"list":[1,2],"new":0})";

IConfigManager& manager() {
    return *IConfigManager::instance();
}

class Document : public IConfig {
public:
    explicit Document(const char* name) : IConfig(name) {}
    ~Document() override { deInitial(); }

    bool verifyConfig(const Json::Value& value) override { return verify(value); }
    bool importConfig(const char* userId, const char* name, const Json::Value& value) override {
        imported = std::string(userId) + " " + name;
        return value.isObject() && setConfig(userId, nullptr, value, 0, {});
    }
    using IConfig::initial;

    std::function<bool(const Json::Value&)> verify = [](const Json::Value&) { return true; };
    std::string imported;
};

class ConfigTest : public testing::Test {
protected:
    ConfigTest() {
        std::filesystem::create_directory(mDirectory / "defaults");
        EXPECT_TRUE(manager().initial(settings()));
    }
    ~ConfigTest() override {
        manager().detach("robot", observer());
        manager().detach("other", observer());
        manager().deInitial();
    }

    Json::Value settings() const {
        Json::Value settings;
        settings["interval"] = 1000000;
        settings["defConfigPath"] = mDirectory / "defaults";
        settings["configPath"] = mDirectory / "current/of/robot";
        return settings;
    }
    std::string fileOf(const std::string& name) const {
        return mDirectory / ("current/of/robot/" + name);
    }
    /// A document with the usual defaults and `current`, if that is given.
    std::unique_ptr<Document> started(const char* name, const char* current = nullptr) {
        mDirectory.write(std::string("defaults/") + name, kDefaults);
        if (current != nullptr) {
            mDirectory.write(std::string("current/of/robot/") + name, current);
        }
        auto document = std::make_unique<Document>(name);
        EXPECT_TRUE(document->initial());
        return document;
    }

    void onChange(const char* user, const char* name, const Json::Value& attach) {
        mSeen.push_back(std::string(user) + " " + name + " " + attach.toStyledString());
        if (const auto once = std::exchange(mOnChange, nullptr)) {
            once();
        }
    }
    IConfigManager::Observer observer() { return {this, &ConfigTest::onChange}; }

    OrbelTest::LogCapture mLog;
    TempDirectory mDirectory;
    std::vector<std::string> mSeen;
    std::function<void()> mOnChange;
};

TEST_F(ConfigTest, DamagedFilesGiveTheDefaultsAndStayUntilTheNextSync) {
    const std::string whole = R"({"net":{"port":8080,"name":"Zürich"},"gain":-1.5,"list":[true]})";
    std::vector<std::string> damaged = {"{\"net\":\"\xff\xfe\"}", nested(100000, "[", "]"),
                                        nested(1001, "{\"net\":", "}")};
    for (size_t length = 0; length < whole.size(); ++length) {
        damaged.push_back(whole.substr(0, length));
    }
    for (const std::string& text : damaged) {
        SCOPED_TRACE(text.substr(0, 100));
        const auto document = started("robot", text.c_str());
        EXPECT_EQ(document->getConfig(nullptr), json(kDefaults));
        EXPECT_EQ(contentOf(fileOf("robot")), text) << "lost before anybody wrote";
        ASSERT_TRUE(document->syncConfig());
        EXPECT_EQ(json(contentOf(fileOf("robot"))), json(kDefaults));
    }
    EXPECT_EQ(contentOf(mDirectory / "defaults/robot"), kDefaults);

    mDirectory.write("defaults/whole", "{");
    mDirectory.write("current/of/robot/whole", whole);
    Document document("whole");
    ASSERT_TRUE(document.initial()) << "the current layer alone is enough";
    EXPECT_EQ(document.getConfig(nullptr), json(whole));
    EXPECT_TRUE(document.getDefaultConfig(nullptr).isNull());
    EXPECT_FALSE(document.syncConfig()) << "clean";
}

TEST_F(ConfigTest, ReadsAndWritesByPath) {
    const auto document = started("robot");
    EXPECT_TRUE(document->initial()) << "and nothing happens";
    EXPECT_EQ(contentOf(fileOf("robot")), "<cannot open>") << "the defaults wait for the sync";
    ASSERT_TRUE(document->syncConfig());
    EXPECT_EQ(json(contentOf(fileOf("robot"))), json(kDefaults));
    getLastErrno();
    EXPECT_FALSE(document->syncConfig());
    EXPECT_EQ(getLastErrno(), 0x10060005);

    EXPECT_TRUE(document->setConfig("u", "a.b", 1, 0, {}));
    EXPECT_TRUE(document->setConfig("u", "list[2]", "x", 0, {}));
    Json::Value expected = json(kDefaults);
    expected["a"]["b"] = 1;
    expected["list"][2] = "x";
    EXPECT_EQ(json(contentOf(fileOf("robot"))), expected);
    EXPECT_EQ(document->getConfig("robot"), expected) << "its own name";
    EXPECT_EQ(document->getConfig("list[2]"), "x");
    EXPECT_EQ(document->getDefaultConfig("net.port"), 80);
    for (const char* path : {"no.such.path", "gain.x", "list.x", "net[0]", "list[9]"}) {
        EXPECT_TRUE(document->getConfig(path).isNull()) << path;
    }
    EXPECT_TRUE(document->setConfig("u", "a.b", 2, IConfig::kDeferSave, {}));
    EXPECT_EQ(json(contentOf(fileOf("robot"))), expected) << "deferred";
    ASSERT_TRUE(document->deInitial());
    EXPECT_EQ(json(contentOf(fileOf("robot")))["a"]["b"], 2) << "written at the last moment";
    EXPECT_TRUE(document->getConfig(nullptr).isNull());
    EXPECT_EQ(manager().getConfigObject("robot"), nullptr);
}

TEST_F(ConfigTest, RefusedWritesChangeNeitherDocumentNorFile) {
    const auto document = started("robot", kDefaults);
    document->verify = [](const Json::Value& value) {
        if (value == "own number") {
            setLastErrno(77);
        }
        return value.isInt();
    };
    const struct {
        const char* user;
        const char* name;
        Json::Value value;
        int error;
        const char* line;
    } cases[] = {
        {nullptr, "gain", 2, 16, "]userId is null,unable setConfig operate\n"},
        {"u", "", 2, 0x10060002, "]user(u) config name invalid\n"},
        {"u", "gain", "two", 0x10060003, "]u set config(gain) failed:\"two\"\n"},
        {"u", "gain", "own number", 77, "]u set config(gain) failed:\"own number\"\n"},
        {"u", "gain.x", 2, 0x10060004, "]user(u) set config robot.gain.x failed\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        getLastErrno();
        EXPECT_FALSE(document->setConfig(c.user, c.name, c.value, 0, {}));
        EXPECT_EQ(getLastErrno(), c.error);
        EXPECT_EQ(mLog.count(c.line), 1);
        EXPECT_EQ(document->getConfig(nullptr), json(kDefaults));
    }
    EXPECT_EQ(contentOf(fileOf("robot")), kDefaults);
    EXPECT_TRUE(document->setConfig("u", "gain", "two", IConfig::kNoVerify, {}));
    EXPECT_FALSE(document->setConfig("u", "fresh.node", "two", 0, {}));
    EXPECT_TRUE(document->getConfig(nullptr).isMember("fresh")) << "the comparison has made it";

    EXPECT_TRUE(document->setConfig("u", nullptr, Json::objectValue, IConfig::kNoVerify, {}));
    getLastErrno();
    EXPECT_FALSE(document->setConfig("u", "gain", 1, 0, {})) << "an empty document stays empty";
    EXPECT_EQ(getLastErrno(), 0x10060004);
    Document unstarted("other");
    EXPECT_TRUE(unstarted.getConfig(nullptr).isNull());
    EXPECT_FALSE(unstarted.setConfig("u", "gain", 1, 0, {}));
    EXPECT_FALSE(unstarted.recovery("u", {}));
}

TEST_F(ConfigTest, AFailedSaveIsTriedAgain) {
    const auto document = started("robot", kDefaults);
    ASSERT_TRUE(manager().attach("robot", observer()));
    {
        const OrbelTest::FullDisk full(20);
        getLastErrno();
        EXPECT_FALSE(document->setConfig("u", "gain", 7, 0, {}));
        EXPECT_EQ(getLastErrno(), 0x10060001);
        EXPECT_FALSE(document->syncConfig());
        EXPECT_EQ(getLastErrno(), 0x10060001) << "no longer dirty";
    }
    EXPECT_EQ(document->getConfig("gain"), 7);
    EXPECT_TRUE(document->syncConfig());
    EXPECT_EQ(json(contentOf(fileOf("robot")))["gain"], 7);
    manager().processEvents();
    EXPECT_TRUE(mSeen.empty()) << "told of a change that failed";
}

TEST_F(ConfigTest, ObserversAreToldInOrderUpTo64) {
    const auto document = started("robot", kDefaults);
    EXPECT_FALSE(manager().attach("unknown", observer()));
    EXPECT_FALSE(manager().attach("robot", {}));
    EXPECT_TRUE(manager().attach("robot", observer()));
    EXPECT_FALSE(manager().attach("robot", observer())) << "twice";
    EXPECT_EQ(mLog.count("]attach config(robot) proc failed"), 2);

    EXPECT_TRUE(document->setConfig("u", "gain", 1, 0, "equal: not told"));
    EXPECT_TRUE(document->setConfig("u", "gain", -1, IConfig::kNoNotify, "not told"));
    for (int i = 0; i < 65; ++i) {
        EXPECT_TRUE(document->setConfig("u", "gain", i + 2, IConfig::kDeferSave, i));
    }
    EXPECT_EQ(mLog.count("]u modify config(gain) notify observer failed\n"), 1);
    mOnChange = [&] {  // may write, which is told as well, and detach
        EXPECT_TRUE(document->setConfig("observer", "gain", 0, 0, {}));
    };
    manager().processEvents();
    ASSERT_EQ(mSeen.size(), 65u);
    EXPECT_EQ(mSeen.front(), "u robot 0\n");
    EXPECT_EQ(mSeen[63], "u robot 63\n");
    EXPECT_EQ(mSeen.back(), "observer robot null\n");

    const auto before = std::chrono::steady_clock::now();
    manager().processEvents();
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(45));
    EXPECT_TRUE(manager().detach("robot", observer()));
    EXPECT_FALSE(manager().detach("robot", observer()));
    EXPECT_FALSE(manager().detach("unknown", observer()));
    EXPECT_FALSE(manager().detach(nullptr, observer()));
}

TEST_F(ConfigTest, RecoveryLeavesTheExceptionsAlone) {
    constexpr const char* changed =
        R"({"net":{"port":1,"ip":"9","own":5,"sub":{"x":9,"y":9}},"gain":9,"list":[],"extra":1})";
    const struct {
        const char* except;
        const char* result;
    } cases[] = {
        {R"({"robot":true})", changed},
        {R"({"robot":[]})",
         R"({"net":{"port":80,"ip":"0","sub":{"x":1}},"gain":1,"list":[1,2],"extra":1})"},
        {R"({"robot":{"net":true,"gain":false}})",
         R"({"net":{"port":1,"ip":"9","own":5,"sub":{"x":9,"y":9}},"gain":1,"list":[1,2],"extra":1})"},
        {R"({"robot":{"net":{"port":true,"sub":{"y":true}},"list":true}})",
         R"({"net":{"port":1,"ip":"0","own":5,"sub":{"x":1}},"gain":1,"list":[],"extra":1})"},
        {R"({"robot":{"net":null,"gain":{"x":true}}})",
         R"({"net":{"port":80,"ip":"0","own":5,"sub":{"x":1}},"gain":9,"list":[1,2],"extra":1})"},
    };
    const auto other = started("other", R"({"gain":9})");
    EXPECT_TRUE(manager().attach("other", observer()));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.except);
        auto document = started("robot", changed);
        document->verify = [](const Json::Value&) { return false; };
        EXPECT_TRUE(other->setConfig("u", "gain", 9, 0, {}));
        EXPECT_TRUE(manager().recovery("u", json(c.except)));
        manager().processEvents();
        EXPECT_EQ(json(contentOf(fileOf("robot"))), json(c.result));
        EXPECT_EQ(other->getConfig("gain"), 1);
        EXPECT_TRUE(mSeen.empty()) << "the reset drops what waits, and tells nobody";
    }
    EXPECT_FALSE(other->recovery("u", Json::arrayValue));
    EXPECT_FALSE(other->recovery(nullptr, {}));
    EXPECT_FALSE(manager().recovery("u", Json::arrayValue));
    EXPECT_TRUE(mLog.has("]except params error,[]\n"));
    EXPECT_FALSE(manager().recoveryConfigs("u", json("[]")));
    EXPECT_TRUE(other->setConfig("u", "gain", 9, 0, {}));
    EXPECT_TRUE(manager().recoveryConfigs("u", json(R"(["unknown", 5, "other"])")));
    EXPECT_EQ(other->getConfig("gain"), 1);
}

TEST_F(ConfigTest, ImportAndExport) {
    const auto a = started("a", R"({"x":1})");
    const auto b = started("b", R"({"x":2})");
    Json::Value out = "old";
    EXPECT_TRUE(manager().exportConfig(out, {}));
    EXPECT_EQ(out, json(R"([{"key":"a","value":{"x":1}},{"key":"b","value":{"x":2}}])"));
    EXPECT_TRUE(manager().exportConfig(out, json(R"([5,"unknown","b"])")));
    EXPECT_EQ(out, json(R"([{"key":"b","value":{"x":2}}])"));
    EXPECT_TRUE(b->setConfig("u", nullptr, Json::objectValue, 0, {}));
    EXPECT_TRUE(manager().exportConfig(out, json(R"(["b"])")));
    EXPECT_TRUE(out.isNull()) << "of an empty document";
    EXPECT_FALSE(manager().exportConfig(out, "b"));
    EXPECT_TRUE(out.isNull());

    EXPECT_TRUE(manager().importConfig("u", json(R"([5, {"key":"a"}, {"key":7,"value":1},
        {"key":"unknown","value":1}, {"key":"b","value":"refused"}, {"key":"a","value":{"x":3}}])")));
    EXPECT_EQ(a->getConfig("x"), 3);
    EXPECT_EQ(b->imported, "u b");
    EXPECT_EQ(mLog.count("]import config set "), 1);
    EXPECT_EQ(mLog.count("]import config set b config failed\n"), 1);
    EXPECT_TRUE(manager().importConfig("u", 5));
}

TEST_F(ConfigTest, SettingsOfTheManager) {
    const auto refused = [&](const char* key, const Json::Value& value, const std::string& line) {
        Json::Value wrong = settings();
        wrong[key] = value;
        EXPECT_FALSE(manager().initial(wrong));
        EXPECT_TRUE(mLog.has(line)) << line;
    };
    refused("defConfigPath", 5, "]default config path type invalid\n");
    refused("defConfigPath", "/no/such", "]default config path(/no/such) not exist\n");
    refused("configPath", Json::Value(), "]config path type invalid\n");
    unsetenv("SDK_DEFAULT_CONFIG_PATH");
    unsetenv("SDK_CONFIG_PATH");
    EXPECT_THROW(manager().initial(json(R"({"configPath":5})")), std::logic_error)
        << "the defaults come first";
    Json::Value none = settings();
    none.removeMember("configPath");
    EXPECT_THROW(manager().initial(none), std::logic_error);
    setenv("SDK_CONFIG_PATH", (mDirectory / "from/environment").c_str(), 1);
    EXPECT_TRUE(manager().initial(none)) << "a second call changes the paths";
    EXPECT_TRUE(std::filesystem::is_directory(mDirectory / "from/environment"));

    const auto document = std::make_unique<Document>("memory");
    EXPECT_FALSE(document->initial(Json::objectValue, ""));
    EXPECT_TRUE(document->initial(json(kDefaults), mDirectory.path()));
    EXPECT_TRUE(document->setConfig("u", "gain", 3, IConfig::kDeferSave, {}));
    EXPECT_TRUE(manager().deInitial());
    EXPECT_EQ(json(contentOf(mDirectory / "memory"))["gain"], 3) << "stopping writes all";
    EXPECT_FALSE(manager().deInitial());
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) {
        manager().processEvents();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4)) << "slept";
}

using Clock = std::chrono::steady_clock;

/// Runs the worker until the file holds `gain`. Milliseconds since `start`.
int64_t synced(const std::string& file, int gain, Clock::time_point start) {
    const std::string line = "\"gain\" : " + std::to_string(gain);
    OrbelTest::waitFor([&] {
        manager().processEvents();
        return contentOf(file).find(line) != std::string::npos;
    });
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST_F(ConfigTest, LowPowerAndThePeriodicSync) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto lowPower = [this] {
        manager().deInitial();
        Json::Value low = settings();
        low["interval"] = 300;
        low["normalPower"] = false;
        auto start = Clock::now();
        manager().initial(low);
        const auto document = started("low", kDefaults);
        bool good = document->setConfig("u", "gain", 5, 0, {}) &&
                    contentOf(fileOf("low")) == kDefaults && synced(fileOf("low"), 5, start) > 290;
        low["interval"] = 199;  // counts as 2000, from the next sync on
        manager().initial(low);
        start = Clock::now();
        good = document->setConfig("u", "gain", 6, 0, {}) && good;
        synced(fileOf("low"), 6, start);
        getLastErrno();
        good = document->setConfig("u", "gain", 7, 0, {}) && good &&
               synced(fileOf("low"), 7, start) > 1990;
        good = good && getLastErrno() == 0;  // a sync with nothing to write is no error
        std::_Exit(good ? 0 : 1);
    };
    EXPECT_EXIT(lowPower(), testing::ExitedWithCode(0), "");
}

TEST_F(ConfigTest, WritersReadersAndTheWorkerAtOnce) {
    const auto document = started("robot", kDefaults);
    ASSERT_TRUE(manager().attach("robot", observer()));
    Json::Value fast = settings();
    fast["interval"] = 200;
    ASSERT_TRUE(manager().initial(fast));
    const auto write = [&](const char* path, const Json::Value& value) {
        EXPECT_TRUE(document->setConfig("u", path, value, 0, {}));
        EXPECT_EQ(document->getConfig(path), value);
    };
    for (int round = 0; round < 30; ++round) {  // texts of different lengths to one file
        const auto length = static_cast<size_t>(round % 2 * 100000 + round);
        std::thread large(write, "own.large", std::string(length, 'x'));
        std::thread small(write, "own.small", round);
        std::thread deferred([&] {
            EXPECT_TRUE(document->setConfig("u", "own.other", round, IConfig::kDeferSave, {}));
            document->syncConfig();
        });
        manager().processEvents();
        large.join();
        small.join();
        deferred.join();
        document->syncConfig();
        ASSERT_EQ(json(contentOf(fileOf("robot"))), document->getConfig(nullptr))
            << "mixed, or older";
    }
    manager().processEvents();
    EXPECT_EQ(mSeen.size(), 90u);
}

TEST_F(ConfigTest, ProgrammingErrorsEndTheProgram) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Document(nullptr), "Assertion");
    EXPECT_DEATH(Document(""), "Assertion");
    EXPECT_DEATH(Document("nowhere").initial(), "Assertion");
    const auto document = started("robot");
    EXPECT_DEATH(Document("robot").initial(), "Assertion");
    { Document other("robot"); }  // was never initialised, so it must not take away its namesake
    EXPECT_EQ(manager().getConfigObject("robot"), document.get());
}

}  // namespace
