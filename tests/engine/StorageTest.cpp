#include "engine/Storage.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const QByteArray &value)
        : m_name(name), m_had(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        qputenv(name, value);
    }
    ~ScopedEnv()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *m_name;
    bool m_had;
    QByteArray m_old;
};

// Makes every write beyond `bytes` fail with EFBIG instead of raising SIGXFSZ, so a save can be
// made to fail halfway through its file, the way a full disk would.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &m_old);
        rlimit limit = m_old;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &m_old);
        std::signal(SIGXFSZ, m_oldHandler);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;

private:
    rlimit m_old{};
    void (*m_oldHandler)(int) = nullptr;
};

} // namespace

TEST(StorageTest, SavedObjectLoadsBackIndentedWithSortedKeys)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
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

TEST(StorageTest, HomeComesFromVelixHomeOrTheDataDirectoryAndIsCreatedAtTheFirstSave)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
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

TEST(StorageTest, HomeIsFixedAtItsFirstUse)
{
    const QString first = Storage::home();
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    ScopedEnv env("VELIX_HOME", dir.path().toUtf8());
    EXPECT_EQ(Storage::home(), first);
    EXPECT_EQ(Storage::path("torrents.json"), first + "/torrents.json");
}

TEST(StorageTest, AWriteThatFailsHalfwayLeavesTheOldFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString path = dir.filePath("torrents.json");
    Storage::save(QJsonObject{{"old", true}}, path);
    const QByteArray before = readAll(path);
    ASSERT_FALSE(before.isEmpty());

    QJsonObject big;
    for (int i = 0; i < 2000; ++i)
        big.insert(QString::number(i), QString(40, 'x'));
    {
        FileSizeLimit limit(4096);
        Storage::save(big, path);
    }

    EXPECT_EQ(readAll(path), before);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files), QStringList{"torrents.json"})
        << "no temporary file is left behind";

    Storage::save(big, path);
    EXPECT_EQ(Storage::load(path), big) << "the next save goes through";
}

TEST(StorageTest, ValuesThatCannotBeWrittenLeaveTheOldFile)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
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

TEST(StorageTest, UnreadableFilesLoadAsNothing)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    struct Case
    {
        const char *name;
        const char *content; // nullptr: no file
    };
    const Case cases[] = {{"missing", nullptr}, {"empty", ""},           {"blank", "  \n"},
                          {"not JSON", "settings"}, {"cut short", "{\"ipv6\": fal"}, {"an array", "[1, 2]"}};
    for (const Case &c : cases) {
        const QString path = dir.filePath(QString::fromLatin1(c.name) + ".json");
        if (c.content)
            writeAll(path, c.content);
        EXPECT_EQ(Storage::load(path), std::nullopt) << c.name;
    }

    writeAll(dir.filePath("empty-object.json"), "{}");
    EXPECT_EQ(Storage::load(dir.filePath("empty-object.json")), QJsonObject());
}
