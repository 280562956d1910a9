#include "engine/Storage.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <sys/resource.h>

namespace {

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

// Sets an environment variable for the length of a scope and puts the old value back.
struct ScopedEnv
{
    ScopedEnv(const char *variable, const QByteArray &value)
        : name(variable), had(qEnvironmentVariableIsSet(variable)), old(qgetenv(variable))
    {
        qputenv(name, value);
    }
    ~ScopedEnv() { had ? void(qputenv(name, old)) : void(qunsetenv(name)); }

    const char *name;
    bool had;
    QByteArray old;
};

// Makes every write beyond `bytes` fail with EFBIG instead of raising SIGXFSZ, so a save can be
// made to fail halfway through its file, the way a full disk would.
struct FileSizeLimit
{
    explicit FileSizeLimit(rlim_t bytes) : oldHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &old);
        rlimit limit = old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old);
        std::signal(SIGXFSZ, oldHandler);
    }

    void (*oldHandler)(int);
    rlimit old{};
};

// Each test works in a scratch directory of its own.
class StorageTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(dir.isValid()); }
    QTemporaryDir dir;
};

} // namespace

TEST_F(StorageTest, SavedObjectLoadsBackIndentedWithSortedKeys)
{
    const QString path = dir.filePath("settings.json");

    QJsonObject object;
    object.insert("zeta", 1);
    object.insert("alpha", QJsonArray{1, 2});
    object.insert("mid", QJsonObject{{"y", true}, {"b", "text"}});
    Storage::save(object, path);

    EXPECT_EQ(Storage::load(path), object);
    const QByteArray text = readAll(path);
    EXPECT_TRUE(text.contains("\n    \"alpha\""));
    EXPECT_LT(text.indexOf("\"alpha\""), text.indexOf("\"mid\""));
    EXPECT_LT(text.indexOf("\"mid\""), text.indexOf("\"zeta\""));
    EXPECT_LT(text.indexOf("\"b\""), text.indexOf("\"y\""));
}

TEST_F(StorageTest, HomeComesFromVelixHomeOrTheDataDirectoryAndIsCreatedAtTheFirstSave)
{
    ScopedEnv data("XDG_DATA_HOME", dir.path().toUtf8());
    for (const QByteArray &value : {QByteArray(), QByteArray("")}) {
        ScopedEnv env("VELIX_HOME", value);
        EXPECT_EQ(Storage::resolveHome(), dir.filePath("Velix"));
    }

    const QString home = dir.filePath("not/there/yet");
    ScopedEnv env("VELIX_HOME", home.toUtf8());
    ASSERT_EQ(Storage::resolveHome(), home);
    Storage::save(QJsonObject{{"k", 1}}, Storage::resolveHome() + "/settings.json");
    EXPECT_EQ(Storage::load(home + "/settings.json"), QJsonObject({{"k", 1}}));
}

TEST_F(StorageTest, HomeIsFixedAtItsFirstUse)
{
    const QString first = Storage::home();
    ScopedEnv env("VELIX_HOME", dir.path().toUtf8());
    EXPECT_EQ(Storage::home(), first);
    EXPECT_EQ(Storage::path("torrents.json"), first + "/torrents.json");
}

TEST_F(StorageTest, AWriteThatFailsHalfwayLeavesTheOldFile)
{
    const QString path = dir.filePath("torrents.json");
    Storage::save(QJsonObject{{"old", true}}, path);
    const QByteArray before = readAll(path);
    ASSERT_FALSE(before.isEmpty());

    QJsonObject big;
    for (int i = 0; i < 2000; ++i)
        big.insert(QString::number(i), QString(40, 'x'));
    {
        FileSizeLimit limit(4096);
        const auto failure = Storage::save(big, path);
        ASSERT_TRUE(failure.has_value());
        EXPECT_EQ(failure->code, EFBIG);
    }

    EXPECT_EQ(readAll(path), before);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{"torrents.json"})
        << "no temporary file is left behind";

    Storage::save(big, path);
    EXPECT_EQ(Storage::load(path), big) << "the next save goes through";
}

TEST_F(StorageTest, ValuesThatCannotBeWrittenLeaveTheOldFile)
{
    const QString path = dir.filePath("settings.json");
    writeAll(path, "{\"old\": 1}");

    Storage::save(QJsonValue(5), path); // a JSON document holds an object or an array
    Storage::save(QJsonValue(), path);
    EXPECT_EQ(readAll(path), "{\"old\": 1}");

    // A parent that is a file: nothing can be created, nothing happens.
    writeAll(dir.filePath("plain"), "x");
    Storage::save(QJsonObject{{"k", 1}}, dir.filePath("plain/settings.json"));
    EXPECT_EQ(readAll(dir.filePath("plain")), "x");

    Storage::save(QJsonArray{1, 2}, path);
    EXPECT_EQ(readAll(path).simplified(), "[ 1, 2 ]");
}

TEST_F(StorageTest, UnreadableFilesLoadAsNothingAndOnlyThoseWithContentAreSetAside)
{
    struct Case
    {
        const char *name;
        const char *content; // nullptr: no file
        bool unreadable;     // something the user could lose is there
    };
    const Case cases[] = {{"missing", nullptr, false},  {"empty", "", false},
                          {"blank", "  \n", false},      {"not JSON", "settings", true},
                          {"cut short", "{\"ipv6\": fal", true}, {"an array", "[1, 2]", true}};
    for (const Case &c : cases) {
        const QString path = dir.filePath(QString::fromLatin1(c.name) + ".json");
        if (c.content)
            writeAll(path, c.content);
        EXPECT_EQ(Storage::load(path), std::nullopt) << c.name;
        EXPECT_EQ(Storage::read(path).unreadable, c.unreadable) << c.name;
    }

    // Two set aside within one second keep both copies.
    const QString path = dir.filePath("settings.json");
    for (const QByteArray &content : {QByteArray("first"), QByteArray("second")}) {
        writeAll(path, content);
        const QString copy = Storage::setAside(path);
        EXPECT_EQ(readAll(copy), content);
        EXPECT_FALSE(QFile::exists(path));
    }
    EXPECT_EQ(QDir(dir.path()).entryList({"settings.json.unreadable-*"}, QDir::Files).size(), 2);

    writeAll(dir.filePath("empty-object.json"), "{}");
    EXPECT_EQ(Storage::load(dir.filePath("empty-object.json")), QJsonObject());
}
